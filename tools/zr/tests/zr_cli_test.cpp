// Runs the zr binary as a user would and checks what it prints and writes.

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "progress.h"

namespace {

struct Outcome {
  int status;
  std::string out;
};

// Runs a shell command; stdout captured, stderr folded in when asked.
Outcome sh(const std::string& command, bool withStderr = false) {
  const std::string full = "{ " + command + "; }" + (withStderr ? " 2>&1" : " 2>/dev/null");
  FILE* p = popen(full.c_str(), "r");
  std::string out;
  char buf[4096];
  while (std::size_t n = std::fread(buf, 1, sizeof buf, p)) out.append(buf, n);
  const int status = pclose(p);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, out};
}

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string l; std::getline(in, l);)
    if (!l.empty()) out.push_back(l);
  return out;
}

const std::string kZr = ZR_BINARY;
const std::string kSample = ZR_SAMPLE;
const std::string kDoubles = ZR_TEST_DOUBLES;

std::string tempPath(const std::string& name) {
  return ::testing::TempDir() + "zr_cli_" + std::to_string(getpid()) + "_" + name;
}

// `text` as one shell word.
std::string quoted(const std::string& text) {
  std::string q = "'";
  for (char c : text) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

std::string readFile(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(f), {});
}

int count(const std::string& text, const std::string& what) {
  int n = 0;
  for (const std::string& l : lines(text)) n += l.find(what) != std::string::npos;
  return n;
}

}  // namespace

TEST(ZrRun, JsonLinesCarryLevelsAndSegments) {
  const Outcome r = sh(kZr + " run " + kSample + " --format jsonl");
  ASSERT_EQ(r.status, 0) << r.out;
  int windows = 0, segments = 0;
  double lastTime = -1.0;
  for (const std::string& line : lines(r.out)) {
    nlohmann::json o;
    ASSERT_NO_THROW(o = nlohmann::json::parse(line)) << line;
    if (o["extractor"] == "SoundLevel" && o["event"] == "Levels") {
      ++windows;
      EXPECT_GT(o["time"].get<double>(), lastTime) << "windows come in time order";
      lastTime = o["time"].get<double>();
      ASSERT_EQ(o["rms"].size(), 1u);
      EXPECT_LE(o["rms"][0].get<double>(), o["peak"][0].get<double>() + 1e-6);
      EXPECT_LE(o["peak"][0].get<double>(), 0.0);
    }
    if (o["extractor"] == "VoiceActivity" && o.contains("start")) {
      ++segments;
      EXPECT_LT(o["start"].get<double>(), o["end"].get<double>());
    }
  }
  // 10.17 s of audio in 100 ms windows: every full window and the last 70 ms, none lost.
  EXPECT_EQ(windows, 102);
  EXPECT_NEAR(lastTime, 10.1, 1e-6);
  EXPECT_EQ(segments, 3);
}

TEST(ZrRun, CsvHasOneHeaderAndConsistentColumns) {
  const Outcome r = sh(kZr + " run " + kSample + " --format csv --period 500 -e SoundLevel");
  ASSERT_EQ(r.status, 0);
  const auto rows = lines(r.out);
  ASSERT_GT(rows.size(), 10u);
  EXPECT_EQ(rows[0], "extractor,event,time,channel,rms,peak,start,end,value");
  for (std::size_t i = 1; i < rows.size(); ++i)
    EXPECT_EQ(std::count(rows[i].begin(), rows[i].end(), ','), 8) << rows[i];
  EXPECT_EQ(count(r.out, "SoundLevel,Levels,"), 21);  // 10.17 s in 500 ms windows, tail included
}

TEST(ZrRun, OutputFileAndPlotsWhateverTheNames) {
  // Names that a shell or gnuplot would run commands from: nothing may run, the plot is drawn.
  const std::string dir = tempPath("plotdir"), name = "`touch ran1`$(touch ran2)\"'.wav",
                    png = "`touch ran3`'.png";
  ASSERT_EQ(sh("mkdir -p " + dir + " && cp " + kSample + " " + quoted(dir + "/" + name)).status, 0);
  const Outcome r = sh("cd " + dir + " && " + kZr + " run " + quoted(name) +
                           " -f jsonl -o out.jsonl --plot " + quoted(png),
                       true);
  ASSERT_EQ(r.status, 0) << r.out;
  EXPECT_GT(lines(readFile(dir + "/out.jsonl")).size(), 100u);
  EXPECT_EQ(readFile(dir + "/" + png).substr(1, 3), "PNG");
  for (const char* marker : {"/ran1", "/ran2", "/ran3"})
    EXPECT_NE(access((dir + marker).c_str(), F_OK), 0) << marker << " was run";
  const std::string svg = tempPath("levels.svg");
  ASSERT_EQ(sh(kZr + " run " + kSample + " -o /dev/null --plot " + svg).status, 0);
  EXPECT_NE(readFile(svg).find("<svg"), std::string::npos);
  sh("rm -rf " + dir + " " + svg);
}

TEST(ZrRun, SyntheticAndRawInputs) {
  // A tone at -6 dBFS peak: RMS of a sine is 3 dB below its peak.
  Outcome r = sh(kZr +
                 " run tone:1000 --rate 16000 --channels 2 -e SoundLevel -f jsonl < /dev/null "
                 "| grep Levels | head -n 5");
  auto first = lines(r.out);
  ASSERT_GE(first.size(), 3u);
  auto o = nlohmann::json::parse(first[1]);
  EXPECT_EQ(o["rms"].size(), 2u);
  EXPECT_NEAR(o["peak"][0].get<double>(), -6.0, 0.1);
  EXPECT_NEAR(o["rms"][0].get<double>(), -9.0, 0.1);

  // One second of raw silence on standard input.
  r = sh("head -c 32000 /dev/zero | " + kZr +
         " run - --rate 16000 --channels 1 -e SoundLevel -f jsonl");
  ASSERT_EQ(r.status, 0);
  const auto rows = lines(r.out);
  ASSERT_EQ(rows.size(), 10u);
  EXPECT_EQ(nlohmann::json::parse(rows[0])["rms"][0].get<double>(), -120.0);
}

TEST(ZrRun, InterruptEndsALiveRunCleanly) {
  // SIGINT once a real-time tone has produced results: they stay, and the exit is clean.
  int out[2];
  ASSERT_EQ(pipe(out), 0);
  const std::string err = tempPath("interrupt.err");
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(out[1], STDOUT_FILENO);
    dup2(open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), STDERR_FILENO);
    close(out[0]);
    execl(kZr.c_str(), "zr", "run", "tone:440", "--realtime", "-e", "SoundLevel", "-f", "jsonl",
          "-p", "10", static_cast<char*>(nullptr));
    _exit(127);
  }
  close(out[1]);
  FILE* results = fdopen(out[0], "r");
  std::vector<std::string> windows;
  char line[512];
  while (windows.size() < 3 && std::fgets(line, sizeof line, results)) windows.push_back(line);
  ASSERT_EQ(windows.size(), 3u);
  kill(pid, SIGINT);
  while (std::fgets(line, sizeof line, results)) windows.push_back(line);
  fclose(results);
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << readFile(err);
  EXPECT_NE(readFile(err).find("interrupted"), std::string::npos) << readFile(err);
  for (const std::string& w : windows)
    EXPECT_EQ(nlohmann::json::parse(w)["extractor"], "SoundLevel") << w;
  std::remove(err.c_str());
}

TEST(ZrRun, BadInputsFailWithOneClearLine) {
  const std::string dir = tempPath("bad"), plugin = " --load " + kDoubles;
  // A FLAC whose frames are garbage halfway, and a FIFO nobody writes to.
  ASSERT_EQ(sh("mkdir -p " + dir + " && sox " + kSample + " " + dir + "/bad.flac && head -c " +
               "8000 /dev/zero | tr '\\0' U | dd of=" + dir + "/bad.flac bs=1 seek=100000 " +
               "conv=notrunc && mkfifo " + dir + "/fifo")
                .status,
            0);
  struct Case {
    std::string args, expected, env = "";
  } cases[] = {
      {"run /no/such/file.wav", "cannot read input /no/such/file.wav"},
      {"run " + kSample + " -e NoSuchExtractor", "unknown extractor \"NoSuchExtractor\""},
      {"run " + kSample + " --format xml", "--format"},
      {"run " + kSample + " --period 0", "--period"},
      {"run " + kSample + " --precision 1.5", "--precision"},
      {"run tone:abc", "tone"},
      {"run ''", "empty"},
      {"run " + kSample + " --load /no/such/plugin.so", "cannot load /no/such/plugin.so"},
      {"run " + kSample + " -o " + dir + "/never --plot " + dir + "/x.pdf", ".png or .svg"},
      {"run " + kSample + " -o /dev/full", "cannot write /dev/full: No space left on device"},
      {"run " + kSample + " > /dev/full", "cannot write standard output: No space left"},
      {"run " + dir + "/fifo", "not a regular file"},
      {"run " + dir + "/bad.flac -e SoundLevel -o " + dir + "/kept", "cannot read the sound file"},
      {"run" + plugin + " -e Thrower", "creating \"Thrower\" failed"},
      {"list" + plugin, "entry point failed", "ZR_TEST_THROW_AT_LOAD=1"},
      {"frobnicate", "unknown command \"frobnicate\""},
  };
  for (const Case& c : cases) {
    const Outcome r = sh("timeout 60 env " + c.env + " " + kZr + " " + c.args, true);
    EXPECT_TRUE(r.status > 0 && r.status != 124) << c.args << " printed: " << r.out;
    EXPECT_NE(r.out.find(c.expected), std::string::npos) << c.args << " printed: " << r.out;
    EXPECT_LE(lines(r.out).size(), 2u) << c.args << " printed: " << r.out;
  }
  EXPECT_NE(access((dir + "/never").c_str(), F_OK), 0) << "a bad plot name fails before the run";
  EXPECT_GT(count(readFile(dir + "/kept"), "Levels"), 20) << "results before the failure stay";
  sh("rm -rf " + dir);
}

TEST(ZrRun, HelpAndDescribe) {
  Outcome r = sh(kZr + " run --help");
  EXPECT_EQ(r.status, 0);
  for (const char* option : {"--extractor", "--period", "--precision", "--format", "--plot",
                             "--realtime", "--load", "--log-level"})
    EXPECT_NE(r.out.find(option), std::string::npos) << option;
  r = sh(kZr + " describe SoundLevel");
  ASSERT_EQ(r.status, 0);
  EXPECT_NE(r.out.find("Subscribes to the extractor."), std::string::npos);
  EXPECT_NE(r.out.find("setThreshold"), std::string::npos);
  EXPECT_NE(sh(kZr + " describe Nobody").status, 0);
}

TEST(ZrRun, PluginsLoadAndRunWithThePrecisionAskedFor) {
  const Outcome list = sh(kZr + " list --load " + std::string(ZR_TEST_PLUGIN));
  ASSERT_EQ(list.status, 0);
  EXPECT_NE(list.out.find("PeakMeter"), std::string::npos);
  const Outcome r = sh(kZr + " run " + kSample + " --load " + std::string(ZR_TEST_PLUGIN) +
                       " --extractor PeakMeter -f jsonl");
  ASSERT_EQ(r.status, 0);
  const auto rows = lines(r.out);
  ASSERT_GT(rows.size(), 50u);
  EXPECT_EQ(nlohmann::json::parse(rows[10])["extractor"], "PeakMeter");
  EXPECT_GT(nlohmann::json::parse(rows[10])["peak"].get<double>(), 0.0);
  // Each extractor's own default, or the one asked for.
  for (const auto& [option, precision] :
       {std::pair<std::string, double>{"", 0.75}, {" --precision 0.25", 0.25}}) {
    const Outcome p = sh(kZr + " run " + kSample + " --load " + kDoubles +
                         " -e PrecisionProbe -f jsonl" + option + " | head -n 1");
    EXPECT_EQ(nlohmann::json::parse(p.out)["precision"].get<double>(), precision) << option;
  }
}

TEST(ZrRun, ProgressShowsNoSpeedUntilItIsKnown) {
  struct Case {
    double total, done, elapsed;
    bool final;
    const char* expected;
  } cases[] = {
      {10, 0, 0.5, false, "\r[------------------------------]   0.0% "},
      {10, 5, 0.0, false, "\r[###############---------------]  50.0% "},
      {10, 5, 1.0, false,
       "\r[###############---------------]  50.0%      5.0x real time    1.0 s left "},
      {10, 10, 2.0, true,
       "\r[##############################] 100.0%      5.0x real time    0.0 s left "},
      {0, 0, 1.0, false, "\r     0.0 s of audio "},
      {0, 3, 2.0, false, "\r     3.0 s of audio      1.5x real time "},
  };
  for (const Case& c : cases)
    EXPECT_EQ(zr::progressLine(c.total, c.done, c.elapsed, c.final), c.expected) << c.done;
  EXPECT_EQ(zr::summaryLine(0.0, 0.5, true), "zr: 0.00 s of audio in 0.50 s, interrupted");
  EXPECT_EQ(zr::summaryLine(10.0, 0.5, false), "zr: 10.00 s of audio in 0.50 s (20x real time)");
}
