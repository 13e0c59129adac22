#include "plot.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>

#include <zrextractors/zrrecord.h>

extern char** environ;

namespace zr {

std::string plotTerminal(const std::string& path) {
  const auto dot = path.rfind('.');
  const std::string ext = dot == std::string::npos ? "" : path.substr(dot + 1);
  if (ext == "png") return "pngcairo size 1200,500";
  if (ext == "svg") return "svg size 1200,500";
  return "";
}

std::string gnuplotQuoted(const std::string& text) {
  // In single quotes gnuplot expands no backquote and no macro; '' is a quote. A line break
  // would end the command, so control characters become spaces.
  std::string q = "'";
  for (char c : text) {
    if (c == '\'')
      q += "''";
    else
      q += static_cast<unsigned char>(c) < 0x20 || c == 0x7f ? ' ' : c;
  }
  return q + "'";
}

void PlotData::add(const Result& r) {
  if (isGap(r)) {  // lost sound: where it starts, and for how long when the rate is known
    const ZR::ZRValue* at = ZR::recordField(r.value, "time");
    const ZR::ZRValue* samples = ZR::recordField(r.value, "samples");
    if (at && at->isFloat() && samples && samples->isInt())
      gaps_.emplace_back(at->toFloat(), r.sampleRate > 0
                                            ? static_cast<double>(samples->toInt()) / r.sampleRate
                                            : 0.0);
    return;
  }
  const ZR::ZRValue* rms = ZR::recordField(r.value, "rms");
  const ZR::ZRValue* time = ZR::recordField(r.value, "time");
  const ZR::ZRValue* start = ZR::recordField(r.value, "start");
  const ZR::ZRValue* end = ZR::recordField(r.value, "end");
  if (rms && time && rms->isArray() && ZR::recordField(r.value, "peak")) {
    Level l{time->toFloat(), {}};
    for (const ZR::ZRValue& v : rms->arrayElements()) l.rms.push_back(v.toFloat());
    levels_.push_back(std::move(l));
  } else if (start && end && start->isFloat() && end->isFloat()) {
    segments_.emplace_back(start->toFloat(), end->toFloat());
  } else if (const ZR::ZRValue* sources = ZR::recordField(r.value, "sources");
             sources && sources->isArray() && time && time->isFloat()) {
    sawDirections_ = true;
    for (const ZR::ZRValue& s : sources->arrayElements()) {
      const ZR::ZRValue* id = ZR::recordField(s, "id");
      const ZR::ZRValue* azimuth = ZR::recordField(s, "azimuth");
      if (id && azimuth && id->isInt() && azimuth->isFloat())
        directions_.push_back({time->toFloat(), id->toInt(), azimuth->toFloat()});
    }
  }
}

namespace {

// A temporary directory for the data and the script, removed with what is in it.
class TempDir {
 public:
  TempDir() {
    if (!mkdtemp(path_))
      throw std::runtime_error("cannot create a temporary directory for the plot");
  }
  ~TempDir() {
    for (const std::string& f : files_) std::remove(f.c_str());
    rmdir(path_);
  }
  std::string file(const std::string& name) {
    files_.push_back(std::string(path_) + "/" + name);
    return files_.back();
  }

 private:
  char path_[20] = "/tmp/zrplotXXXXXX";
  std::vector<std::string> files_;
};

}  // namespace

namespace {

bool onPath(const std::string& program) {
  const char* path = std::getenv("PATH");
  std::string dirs = path ? path : "/usr/bin:/bin";
  for (std::size_t at = 0; at <= dirs.size();) {
    std::size_t colon = dirs.find(':', at);
    if (colon == std::string::npos) colon = dirs.size();
    const std::string dir = colon > at ? dirs.substr(at, colon - at) : ".";
    if (::access((dir + "/" + program).c_str(), X_OK) == 0) return true;
    at = colon + 1;
  }
  return false;
}

}  // namespace

void checkPlotOutput(const std::string& path) {
  if (plotTerminal(path).empty())
    throw std::runtime_error("--plot wants a .png or .svg file, not " + path);
  if (!onPath("gnuplot"))
    throw std::runtime_error(
        "--plot draws with gnuplot, which is not installed: install it (on "
        "Debian: apt-get install gnuplot-nox) or leave out --plot");
  // Opened as the plot will be, without truncating what is there; a file made only to try is
  // removed again.
  const bool existed = ::access(path.c_str(), F_OK) == 0;
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
  if (fd < 0) throw std::runtime_error("cannot write " + path + ": " + std::strerror(errno));
  ::close(fd);
  if (!existed) std::remove(path.c_str());
}

void PlotData::render(const std::string& path, const std::string& title) const {
  const std::string terminal = plotTerminal(path);
  if (terminal.empty()) throw std::runtime_error("--plot wants a .png or .svg file, not " + path);
  TempDir dir;
  const std::string data = dir.file("levels.dat"), script = dir.file("plot.gp");
  const std::string tracks = dir.file("tracks.dat");
  std::size_t channels = 0;
  {
    std::ofstream d(data);
    for (const Level& l : levels_) {
      d << l.time;
      for (float v : l.rms) d << ' ' << v;
      d << '\n';
      channels = std::max(channels, l.rms.size());
    }
  }
  double lowest = 0.0;
  {
    std::ofstream d(tracks);
    for (const Direction& t : directions_) {
      d << t.time << ' ' << t.azimuth << ' ' << t.id << '\n';
      lowest = std::min(lowest, t.azimuth);
    }
  }
  const bool withDirections = sawDirections_;
  const bool withLevels = channels > 0 || !segments_.empty() || !withDirections;
  {
    std::ofstream g(script);
    g << "set terminal " << terminal << "\n"
      << "set output\n"  // standard output, which is the user's file
      << "set title " << gnuplotQuoted(title) << " noenhanced\n"
      << "set xlabel \"time (s)\"\nset ylabel \"RMS level (dBFS)\"\nset grid\n"
      << "set key outside right\n";
    if (withDirections && withLevels)
      g << "set multiplot layout 2,1\nset lmargin 10\nset rmargin 18\n";
    int n = 1;
    for (const auto& [s, e] : segments_)
      g << "set object " << n++ << " rect from " << s << ", graph 0 to " << e
        << ", graph 1 behind fillcolor rgb \"#cce5ff\" fillstyle solid 0.6 noborder\n";
    for (const auto& [at, length] : gaps_) {
      g << "set arrow " << n << " from " << at << ", graph 0 to " << at
        << ", graph 1 nohead front linecolor rgb \"#d62728\" linewidth 1.5\n";
      if (length > 0)
        g << "set object " << n << " rect from " << at << ", graph 0 to " << at + length
          << ", graph 1 front fillcolor rgb \"#d62728\" fillstyle transparent solid 0.3 "
             "noborder\n";
      ++n;
    }
    if (!gaps_.empty())
      g << "set label \"lost sound\" at graph 1.02, graph 0.02 tc rgb \"#d62728\"\n";
    if (!withLevels) {
    } else if (channels == 0) {
      g << "set xrange [0:1]\nset yrange [-120:0]\nplot NaN title \"no levels\"\n";
    } else {
      g << "plot ";
      for (std::size_t c = 0; c < channels; ++c)
        g << (c ? ", " : "") << gnuplotQuoted(data) << " using 1:" << c + 2
          << " with lines title \"channel " << c << "\"";
      g << "\n";
    }
    if (withDirections) {
      // One colour per track id; a line array's azimuths lie in [0, 180].
      g << "unset object\nset title"
        << (withLevels ? "\n" : " " + gnuplotQuoted(title) + " noenhanced\n")
        << "set ylabel \"azimuth (deg)\"\nset yrange [" << (lowest < 0.0 ? -180 : 0)
        << ":180]\nset ytics 45\nset autoscale x\n";
      if (directions_.empty())
        g << "plot NaN title \"no source\"\n";
      else
        g << "plot " << gnuplotQuoted(tracks)
          << " using 1:2:3 with points pt 7 ps 0.6 lc variable title \"sources (colour: track)\"\n";
      if (withLevels) g << "unset multiplot\n";
    }
  }

  // Drawn beside the file, which is replaced only by a finished picture: a failed gnuplot
  // leaves neither an empty file nor a broken one.
  const std::string drawn = path + ".zr-" + std::to_string(::getpid()) + ".tmp";
  const int out = ::open(drawn.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
  if (out < 0) throw std::runtime_error("cannot write " + path + ": " + std::strerror(errno));
  struct Unlink {
    const std::string& file;
    bool keep = false;
    ~Unlink() {
      if (!keep) std::remove(file.c_str());
    }
  } unlinkDrawn{drawn};
  int messages[2];
  if (::pipe2(messages, O_CLOEXEC) != 0) {
    ::close(out);
    throw std::runtime_error(std::string("cannot run gnuplot: ") + std::strerror(errno));
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, messages[1], STDERR_FILENO);
  std::string program = "gnuplot";
  char* argv[] = {program.data(), const_cast<char*>(script.c_str()), nullptr};
  pid_t pid = -1;
  const int spawned = posix_spawnp(&pid, "gnuplot", &actions, nullptr, argv, environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(out);
  ::close(messages[1]);
  std::string text;
  if (spawned == 0) {
    char buf[256];
    for (ssize_t n; (n = ::read(messages[0], buf, sizeof buf)) != 0;) {
      if (n > 0)
        text.append(buf, static_cast<std::size_t>(n));
      else if (errno != EINTR)
        break;
    }
  }
  ::close(messages[0]);
  if (spawned != 0)
    throw std::runtime_error(std::string("cannot run gnuplot (install gnuplot-nox): ") +
                             std::strerror(spawned));
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
    throw std::runtime_error("gnuplot failed to draw " + path + (text.empty() ? "" : ": " + text));
  if (std::rename(drawn.c_str(), path.c_str()) != 0)
    throw std::runtime_error("cannot write " + path + ": " + std::strerror(errno));
  unlinkDrawn.keep = true;
}

}  // namespace zr
