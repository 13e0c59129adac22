// Runs the zr binary as a user would and checks what it prints and writes.

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include <zrhostprocess.h>
#include <nlohmann/json.hpp>

#include "progress.h"

namespace {

const std::string kZr = ZR_BINARY, kSample = ZR_SAMPLE, kDoubles = ZR_TEST_DOUBLES;
const std::string kTemp = ::testing::TempDir() + "zr_cli_" + std::to_string(getpid()) + "_";

using zrtest::shell;

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string l; std::getline(in, l);)
    if (!l.empty()) out.push_back(l);
  return out;
}

// How many lines of `text` hold `what`.
int count(const std::string& text, const std::string& what) {
  int n = 0;
  for (const std::string& l : lines(text)) n += l.find(what) != std::string::npos;
  return n;
}

// `text` as one shell word.
std::string quoted(const std::string& text) {
  std::string q = "'";
  for (char c : text) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

std::string readFile(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(f), {}};
}

}  // namespace

TEST(ZrRun, JsonLinesAndCsvCarryLevelsAndSegments) {
  const auto [status, out] = shell(kZr + " run " + kSample + " --format jsonl");
  ASSERT_EQ(status, 0) << out;
  int windows = 0, segments = 0;
  double lastTime = -1.0;
  for (const std::string& line : lines(out)) {
    const auto o = nlohmann::json::parse(line);
    if (o["event"] == "Levels") {
      ++windows;
      EXPECT_GT(o["time"].get<double>(), lastTime) << "windows come in time order";
      lastTime = o["time"].get<double>();
    }
    if (o["event"] == "Segment") segments += o["start"] < o["end"];
  }
  // 10.17 s of audio in 100 ms windows: every full window and the last 70 ms, none lost.
  EXPECT_EQ(windows, 102);
  EXPECT_NEAR(lastTime, 10.1, 1e-6);
  EXPECT_EQ(segments, 3);

  const auto csv =
      shell(kZr + " run " + kSample + " --format csv --period 500 -e SoundLevel").second;
  const auto rows = lines(csv);
  EXPECT_EQ(rows.at(0), "extractor,event,time,channel,rms,peak,start,end,value");
  for (const std::string& row : rows) EXPECT_EQ(std::count(row.begin(), row.end(), ','), 8) << row;
  EXPECT_EQ(count(csv, "SoundLevel,Levels,"), 21);  // 10.17 s in 500 ms windows, tail too
}

TEST(ZrRun, OutputFileAndPlotsWhateverTheNames) {
  // Names that a shell or gnuplot would run commands from: nothing may run, the plot is drawn.
  const std::string dir = kTemp + "plotdir", name = "`touch ran1`$(touch ran2)\"'.wav",
                    png = "`touch ran3`'.png";
  ASSERT_EQ(shell("mkdir -p " + dir + " && cp " + kSample + " " + quoted(dir + "/" + name)).first,
            0);
  const auto [status, out] = shell("cd " + dir + " && " + kZr + " run " + quoted(name) +
                                       " -f jsonl -o out.jsonl --plot " + quoted(png),
                                   true);
  ASSERT_EQ(status, 0) << out;
  EXPECT_EQ(count(readFile(dir + "/out.jsonl"), "\"Levels\""), 102);
  EXPECT_EQ(readFile(dir + "/" + png).substr(1, 3), "PNG");
  for (const char* marker : {"/ran1", "/ran2", "/ran3"})
    EXPECT_NE(access((dir + marker).c_str(), F_OK), 0) << marker << " was run";
  ASSERT_EQ(shell(kZr + " run " + kSample + " -o /dev/null --plot " + dir + "/l.svg").first, 0);
  EXPECT_NE(readFile(dir + "/l.svg").find("<svg"), std::string::npos);
  shell("rm -rf " + dir);
}

TEST(ZrRun, InterruptEndsALiveRunCleanly) {
  // SIGINT once a real-time tone has produced results (the shell's pid is zr's, by exec): the
  // results stay, and the exit is clean. The tone is at -6 dBFS peak, its RMS 3 dB below.
  FILE* p = popen(("echo $$; exec " + kZr +
                   " run tone:1000 --channels 2 --realtime -e SoundLevel -f jsonl -p 10 2>&1")
                      .c_str(),
                  "r");
  char line[512];
  std::vector<std::string> out;
  while (out.size() < 4 && std::fgets(line, sizeof line, p)) out.push_back(line);
  ASSERT_EQ(out.size(), 4u);
  kill(std::stoi(out[0]), SIGINT);
  while (std::fgets(line, sizeof line, p)) out.push_back(line);
  const int status = pclose(p);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_NE(out.back().find("interrupted"), std::string::npos) << out.back();
  const auto o = nlohmann::json::parse(out[1]);
  EXPECT_EQ(o["rms"].size(), 2u);
  EXPECT_NEAR(o["peak"][0].get<double>(), -6.0, 0.1);
  EXPECT_NEAR(o["rms"][0].get<double>(), -9.0, 0.1);
}

TEST(ZrRun, BadInputsFailWithOneClearLine) {
  const std::string dir = kTemp + "bad", plugin = " --load " + kDoubles;
  // A FLAC whose frames are garbage halfway, and a FIFO nobody writes to.
  ASSERT_EQ(shell("mkdir -p " + dir + " && sox " + kSample + " " + dir + "/bad.flac && head -c " +
                  "8000 /dev/zero | tr '\\0' U | dd of=" + dir + "/bad.flac bs=1 seek=100000 " +
                  "conv=notrunc && mkfifo " + dir + "/fifo")
                .first,
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
      {"run " + dir + "/bad.flac --log-level silent -o " + dir + "/kept", "cannot read the sound"},
      {"run" + plugin + " -e Thrower", "creating \"Thrower\" failed"},
      {"list" + plugin, "entry point failed", "ZR_TEST_THROW_AT_LOAD=1"},
      {"frobnicate", "unknown command \"frobnicate\""},
      {"describe Nobody", "unknown extractor \"Nobody\""},
  };
  for (const Case& c : cases) {
    const auto [status, out] = shell("timeout 60 env " + c.env + " " + kZr + " " + c.args, true);
    EXPECT_TRUE(status > 0 && status != 124 && out.find(c.expected) != std::string::npos &&
                lines(out).size() <= 2)
        << c.args << " printed: " << out;
  }
  EXPECT_NE(access((dir + "/never").c_str(), F_OK), 0) << "a bad plot name fails before the run";
  EXPECT_GT(count(readFile(dir + "/kept"), "Levels"), 20) << "results before the failure stay";
  shell("rm -rf " + dir);
}

TEST(ZrRun, CommandsPrintWhatTheyShouldAndPluginsRunWithThePrecisionAskedFor) {
  const std::string plugins = "run " + kSample + " --load " + std::string(ZR_TEST_PLUGIN) +
                              " --load " + kDoubles + " -e PeakMeter -e PrecisionProbe -f jsonl";
  const std::tuple<std::string, std::string, std::string, int> cases[] = {
      // Each extractor's own default precision, or the one asked for; only the probe reports it.
      {"", plugins, "{\"extractor\":\"PeakMeter\",\"event\":\"Peak\",\"time\"", 102},
      {"", plugins, "{\"extractor\":\"PrecisionProbe\"", 102},
      {"", plugins, "\"precision\":0.75}", 102},
      {"", plugins + " --precision 0.25", "\"precision\":", 102},
      {"", plugins + " --precision 0.25", "\"precision\":0.25}", 102},
      {"", "run --help", "--precision", 1},
      {"", "describe SoundLevel", "Subscribes to the extractor.", 2},
      {"", "describe SoundLevel", "Publishes the window still open", 1},
      {"", "list --load " + std::string(ZR_TEST_PLUGIN), "PeakMeter", 1},
      // One second of raw silence on standard input: ten windows, floored.
      {"head -c 32000 /dev/zero | ", "run - --rate 16000 --channels 1 -e SoundLevel -f jsonl",
       "\"rms\":[-120.0]", 10},
      // A last byte that makes no whole sample is said to be dropped, not lost in silence.
      {"head -c 32001 /dev/zero | ", "run - --rate 16000 --channels 1 -f jsonl 2>&1",
       "1 byte(s) that make no whole frame", 1},
  };
  for (const auto& [before, args, expected, times] : cases) {
    const auto [status, out] = shell(before + kZr + " " + args);
    EXPECT_EQ(status, 0) << args;
    EXPECT_EQ(count(out, expected), times) << args << " printed: " << out;
  }
}

TEST(ZrRun, ProgressShowsNoSpeedUntilItIsKnown) {
  const std::tuple<double, double, double, std::string> cases[] = {
      {10, 0, 0.5, "\r[------------------------------]   0.0% "},
      {10, 5, 0.0, "\r[###############---------------]  50.0% "},
      {10, 5, 1.0, "\r[###############---------------]  50.0%      5.0x real time    1.0 s left "},
      {0, 0, 1.0, "\r     0.0 s of audio "},
      {0, 3, 2.0, "\r     3.0 s of audio      1.5x real time "},
  };
  for (const auto& [total, done, elapsed, expected] : cases)
    EXPECT_EQ(zr::progressLine(total, done, elapsed, false), expected) << done << " " << elapsed;
  EXPECT_EQ(zr::summaryLine(0.0, 0.5, true), "zr: 0.00 s of audio in 0.50 s, interrupted");
  EXPECT_EQ(zr::summaryLine(10.0, 0.5, false), "zr: 10.00 s of audio in 0.50 s (20x real time)");
}

// A 4-channel recording of noise arriving from azimuth 0 at circular4-r32mm (mic 0 on +x hears
// it first, mic 2 last), made with sox.
TEST(ZrRun, SoundLocalizationPrintsDirectionsAndRefusesBadArrays) {
  const std::string source = kTemp + "loc_source.wav", wav = kTemp + "loc_4ch.wav";
  ASSERT_EQ(shell("sox -R -n -r 16000 -b 16 -c 1 " + source +
                  " synth 2 whitenoise vol 0.3 pad 0.5 0 && sox " + source + " " + wav +
                  " remix 1 1 1 1 delay 0 0.0000937 0.0001875 0.0000937")
                .first,
            0);
  const auto [status, out] =
      shell(kZr + " run " + wav + " -e SoundLocalization --array circular4-r32mm -f jsonl");
  ASSERT_EQ(status, 0) << out;
  int periods = 0, near = 0;
  for (const std::string& line : lines(out)) {
    const auto o = nlohmann::json::parse(line);
    ASSERT_EQ(o["extractor"], "SoundLocalization");
    ASSERT_EQ(o["event"], "Sources");
    ASSERT_TRUE(o["time"].is_number() && o["sources"].is_array()) << line;
    ++periods;
    for (const auto& s : o["sources"]) {
      for (const char* field : {"id", "azimuth", "elevation", "energy"})
        EXPECT_TRUE(s.contains(field)) << line;
      near += std::fabs(s["azimuth"].get<double>()) < 10.0;
    }
  }
  EXPECT_EQ(periods, 25);  // 2.5 s in periods of 100 ms (and 3 samples, no frame)
  EXPECT_GE(near, 15);

  const auto table =
      shell(kZr + " run " + wav + " -e SoundLocalization --array circular4-r32mm").second;
  EXPECT_GE(count(table, "source 1 azimuth"), 15) << table;
  EXPECT_GE(count(table, "no source"), 3) << table;
  const auto csv =
      shell(kZr + " run " + wav + " -e SoundLocalization --array circular4-r32mm -f csv").second;
  EXPECT_GE(count(csv, "\"{\"\"id\"\":1,\"\"azimuth\"\":"), 15) << csv;

  const std::string plot = kTemp + "loc.png";
  EXPECT_EQ(shell(kZr + " run " + wav + " -e SoundLocalization -e SoundLevel --array " +
                  "circular4-r32mm --plot " + plot + " -o /dev/null")
                .first,
            0);
  EXPECT_GT(readFile(plot).size(), 1000u);

  const auto mismatch =
      shell(kZr + " run " + wav + " -e SoundLocalization --array circular6-r46mm", true);
  EXPECT_EQ(mismatch.first, 1);
  EXPECT_EQ(count(mismatch.second, "has 6 mics but the audio device delivers 4 channel(s)"), 1)
      << mismatch.second;
  const auto unknown = shell(kZr + " run " + wav + " -e SoundLocalization --array square4", true);
  EXPECT_EQ(unknown.first, 2);
  EXPECT_EQ(count(unknown.second, "unknown array \"square4\""), 1) << unknown.second;
  const auto unused = shell(kZr + " run " + wav + " --array circular4-r32mm", true);
  EXPECT_EQ(unused.first, 2);
  EXPECT_EQ(count(unused.second, "none of the extractors run takes an array"), 1) << unused.second;
  const auto missing = shell(kZr + " run " + wav + " -e SoundLocalization", true);
  EXPECT_EQ(missing.first, 1);
  EXPECT_EQ(count(missing.second, "no microphone array"), 1) << missing.second;
}
