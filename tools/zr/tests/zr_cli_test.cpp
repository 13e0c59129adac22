// Runs the zr binary as a user would and checks what it prints and writes.

#include <sys/wait.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

struct Outcome {
  int status;
  std::string out;
};

// Runs a shell command; stdout captured, stderr folded in when asked.
Outcome sh(const std::string& command, bool withStderr = false) {
  const std::string full = command + (withStderr ? " 2>&1" : " 2>/dev/null");
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

std::string tempPath(const std::string& name) {
  return ::testing::TempDir() + "zr_cli_" + std::to_string(getpid()) + "_" + name;
}

std::string readFile(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(f), {});
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
    ASSERT_TRUE(o.is_object()) << line;
    if (o["extractor"] == "SoundLevel" && o["event"] == "Levels") {
      ++windows;
      ASSERT_TRUE(o["time"].is_number());
      EXPECT_GT(o["time"].get<double>(), lastTime) << "windows come in time order";
      lastTime = o["time"].get<double>();
      ASSERT_EQ(o["rms"].size(), 1u);
      ASSERT_EQ(o["peak"].size(), 1u);
      EXPECT_LE(o["rms"][0].get<double>(), o["peak"][0].get<double>() + 1e-6);
      EXPECT_LE(o["peak"][0].get<double>(), 0.0);
    }
    if (o["extractor"] == "VoiceActivity" && o.contains("start")) {
      ++segments;
      EXPECT_LT(o["start"].get<double>(), o["end"].get<double>());
    }
  }
  // 10.17 s of audio in 100 ms windows: every full window, none lost.
  EXPECT_EQ(windows, 101);
  EXPECT_EQ(segments, 3);
}

TEST(ZrRun, CsvHasOneHeaderAndConsistentColumns) {
  const Outcome r = sh(kZr + " run " + kSample + " --format csv --period 500 -e SoundLevel");
  ASSERT_EQ(r.status, 0);
  const auto rows = lines(r.out);
  ASSERT_GT(rows.size(), 10u);
  EXPECT_EQ(rows[0], "extractor,event,time,channel,rms,peak,start,end,value");
  int levelRows = 0;
  for (std::size_t i = 1; i < rows.size(); ++i) {
    EXPECT_EQ(std::count(rows[i].begin(), rows[i].end(), ','), 8) << rows[i];
    if (rows[i].rfind("SoundLevel,Levels,", 0) == 0) ++levelRows;
  }
  EXPECT_EQ(levelRows, 20);  // 10.17 s in 500 ms windows
}

TEST(ZrRun, OutputFileAndPlots) {
  const std::string out = tempPath("out.jsonl"), png = tempPath("levels.png"),
                    svg = tempPath("levels.svg");
  ASSERT_EQ(sh(kZr + " run " + kSample + " -f jsonl -o " + out + " --plot " + png).status, 0);
  EXPECT_GT(lines(readFile(out)).size(), 100u);
  const std::string pngBytes = readFile(png);
  ASSERT_GT(pngBytes.size(), 1000u);
  EXPECT_EQ(pngBytes.substr(1, 3), "PNG");
  ASSERT_EQ(sh(kZr + " run " + kSample + " -o /dev/null --plot " + svg).status, 0);
  EXPECT_NE(readFile(svg).find("<svg"), std::string::npos);
  for (const auto& p : {out, png, svg}) std::remove(p.c_str());
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
  // SIGINT after a second of a tone paced at real time: results so far, then a clean exit.
  const Outcome r = sh("{ timeout --preserve-status -s INT 1 " + kZr +
                           " run tone:440 --realtime -e SoundLevel -f jsonl; echo exit=$?; }",
                       true);
  EXPECT_NE(r.out.find("interrupted"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("exit=0"), std::string::npos) << r.out;
  int windows = 0;
  for (const std::string& line : lines(r.out))
    if (line.find("\"Levels\"") != std::string::npos) ++windows;
  EXPECT_GE(windows, 5);
  EXPECT_LE(windows, 11);
}

TEST(ZrRun, BadInputsFailWithOneClearLine) {
  struct Case {
    std::string args, expected;
  } cases[] = {
      {"run /no/such/file.wav", "cannot read input /no/such/file.wav"},
      {"run " + kSample + " -e NoSuchExtractor", "unknown extractor \"NoSuchExtractor\""},
      {"run " + kSample + " --format xml", "--format"},
      {"run " + kSample + " --period 0", "--period"},
      {"run tone:abc", "tone"},
      {"run " + kSample + " --load /no/such/plugin.so", "cannot load /no/such/plugin.so"},
      {"frobnicate", "unknown command \"frobnicate\""},
  };
  for (const Case& c : cases) {
    const Outcome r = sh(kZr + " " + c.args, true);
    EXPECT_NE(r.status, 0) << c.args;
    EXPECT_NE(r.out.find(c.expected), std::string::npos) << c.args << " printed: " << r.out;
    EXPECT_LE(lines(r.out).size(), 3u) << c.args << " printed: " << r.out;
  }
}

TEST(ZrRun, HelpAndDescribe) {
  Outcome r = sh(kZr + " run --help");
  EXPECT_EQ(r.status, 0);
  for (const char* option :
       {"--extractor", "--period", "--format", "--plot", "--realtime", "--load", "--log-level"})
    EXPECT_NE(r.out.find(option), std::string::npos) << option;
  r = sh(kZr + " describe SoundLevel");
  ASSERT_EQ(r.status, 0);
  EXPECT_NE(r.out.find("Subscribes to the extractor."), std::string::npos);
  EXPECT_NE(r.out.find("setThreshold"), std::string::npos);
  EXPECT_NE(sh(kZr + " describe Nobody").status, 0);
}

TEST(ZrRun, PluginLoadsAndRuns) {
  const Outcome list = sh(kZr + " list --load " + std::string(ZR_TEST_PLUGIN));
  ASSERT_EQ(list.status, 0);
  EXPECT_NE(list.out.find("PeakMeter"), std::string::npos);
  const Outcome r = sh(kZr + " run " + kSample + " --load " + std::string(ZR_TEST_PLUGIN) +
                       " --extractor PeakMeter -f jsonl");
  ASSERT_EQ(r.status, 0);
  const auto rows = lines(r.out);
  ASSERT_GT(rows.size(), 50u);
  const auto o = nlohmann::json::parse(rows[10]);
  EXPECT_EQ(o["extractor"], "PeakMeter");
  EXPECT_GT(o["peak"].get<double>(), 0.0);
}
