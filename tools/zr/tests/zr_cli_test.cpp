// Runs the zr binary as a user would and checks what it prints and writes.

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include <zrhostprocess.h>
#include <nlohmann/json.hpp>

#include <zrcommon/zrservicenames.h>
#include <zrextractors/zrrecord.h>

#include "output.h"
#include "progress.h"
#include "timeorder.h"

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

TEST(ZrRun, GapsAreLinesOfTheirOwnAndEveryResultSaysWhereItsWindowStarts) {
  const std::string err = kTemp + "gaps.err";
  const auto [status, out] =
      shell(kZr + " run " + kSample + " -f jsonl --inject-gap 16000:800 --inject-gap 40000:3200" +
            " 2>" + err);
  ASSERT_EQ(status, 0) << out;
  std::vector<nlohmann::ordered_json> gaps;
  std::vector<std::int64_t> windows;
  for (const std::string& line : lines(out)) {
    const auto o = nlohmann::ordered_json::parse(line);
    if (o["event"] == "Gap") {
      gaps.push_back(o);
      continue;
    }
    ASSERT_TRUE(o.contains("sample")) << line;
    const std::int64_t sample = o["sample"];
    if (o.contains("time")) {
      EXPECT_NEAR(o["time"].get<double>(), sample / 16000.0, 1e-4) << line;
    }
    if (o["event"] == "Levels") windows.push_back(sample);
  }
  ASSERT_EQ(gaps.size(), 2u) << out;
  EXPECT_EQ(gaps[0].dump(),
            R"({"event":"Gap","start":16000,"samples":800,"cause":"capture","reason":"injected",)"
            R"("time":1.0})");
  EXPECT_EQ(gaps[1]["start"], 40000);
  EXPECT_EQ(gaps[1]["samples"], 3200);
  // 100 ms windows of delivered sound: the window after each gap starts where the sound resumes.
  std::vector<std::int64_t> steps;
  for (std::size_t i = 1; i < windows.size(); ++i)
    if (windows[i] - windows[i - 1] != 1600) steps.push_back(windows[i] - windows[i - 1]);
  EXPECT_EQ(steps, (std::vector<std::int64_t>{2400, 4800}));
  // One warning for the burst; the second gap, right behind it, is counted in the last line.
  const std::string warnings = readFile(err);
  EXPECT_EQ(count(warnings,
                  "zr: warning: 800 samples lost at sample 16000 (1.000 s), at capture: "
                  "injected"),
            1)
      << warnings;
  EXPECT_EQ(count(warnings, "samples lost") + count(warnings, "more gap(s) of 3200 samples"), 2)
      << warnings;

  const auto bad = shell(kZr + " run " + kSample + " --inject-gap 100", true);
  EXPECT_EQ(bad.first, 2);
  EXPECT_NE(bad.second.find("wants AT:N"), std::string::npos) << bad.second;
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
  // A bad input file is one line with its name and the cause, not the chain of calls that met it.
  ASSERT_EQ(shell("echo text > " + dir + "/text.wav && sox -n -r 16000 -c 3 " + dir +
                  "/three.wav synth 0.1 sine 440")
                .first,
            0);
  const std::pair<std::string, std::string> inputs[] = {
      {"run " + dir + "/text.wav",
       "zr: error: cannot read input " + dir + "/text.wav: Format not recognised.\n"},
      {"run " + dir + "/three.wav --channels 2",
       "zr: error: cannot convert the 3 channels of \"" + dir +
           "/three.wav\" to 2: ask for 1 channel or for the file's own count\n"}};
  for (const auto& [args, expected] : inputs)
    EXPECT_EQ(shell(kZr + " " + args, true).second, expected);
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

TEST(ZrRun, AFileComesInTimeOrderAtFullPrecision) {
  // VoiceActivity knows a segment only once it ended: its lines stand among the levels by time.
  const auto [status, out] = shell(kZr + " run " + kSample + " -f jsonl");
  ASSERT_EQ(status, 0);
  double last = -1.0;
  int voice = 0;
  for (const std::string& line : lines(out)) {
    const auto o = nlohmann::json::parse(line);
    const double at = o.contains("end") ? o["end"].get<double>() : o["time"].get<double>();
    EXPECT_GE(at, last) << line;
    last = at;
    voice += o["extractor"] == "VoiceActivity";
  }
  EXPECT_EQ(voice, 9);
  // Floats in their shortest exact text in JSON lines and CSV; rounded only in the table.
  const std::string probe =
      "run " + kSample + " --load " + kDoubles + " -e PrecisionProbe --precision 0.002 -p 1000 -f ";
  EXPECT_EQ(count(shell(kZr + " " + probe + "jsonl").second, "\"precision\":0.002}"), 102);
  EXPECT_EQ(count(shell(kZr + " " + probe + "csv").second, ",\"{\"\"precision\"\":0.002}\""), 102);
  const std::string levels = shell(kZr + " run " + kSample + " -e SoundLevel -f jsonl").second;
  EXPECT_NE(levels.find("\"rms\":[-22.798296]"), std::string::npos) << "the window at 1.9 s";
  const std::string table = shell(kZr + " run " + kSample + " -e SoundLevel").second;
  EXPECT_NE(table.find("rms -22.8 peak -6.6 dBFS"), std::string::npos);
}

TEST(ZrRun, AnExtractorThatFailsFailsTheRunWhereItFailed) {
  const auto [status, out] = shell(kZr + " run " + kSample + " --load " + kDoubles +
                                   " -e FailsMidway -e SoundLevel -f jsonl 2>" + kTemp + "err");
  EXPECT_EQ(status, 1);
  const std::string err = readFile(kTemp + "err");
  EXPECT_EQ(err,
            "zr: error: extractor FailsMidway failed at 2.000 s of audio: the model ran out of "
            "memory (the results before it were written)\n");
  // Everything before the failure, nothing from there on.
  int ticks = 0;
  double last = 0.0;
  for (const std::string& line : lines(out)) {
    const auto o = nlohmann::json::parse(line);
    ticks += o["event"] == "Tick";
    last = o["time"].get<double>();
  }
  EXPECT_EQ(ticks, 20);
  EXPECT_NEAR(last, 1.9, 1e-6);
  std::remove((kTemp + "err").c_str());
}

TEST(ZrRun, SeveralFilesAndDirectoriesMakeOneStream) {
  const std::string dir = kTemp + "many";
  ASSERT_EQ(
      shell("mkdir -p " + dir + "/sub " + dir + "/.hidden && cp " + kSample + " " + dir +
            "/a.wav && sox " + kSample + " " + dir + "/sub/b.flac && cp " + kSample + " " + dir +
            "/.hidden/c.wav && echo notes > " + dir + "/notes.txt && echo x > " + dir + "/bad.wav")
          .first,
      0);
  const auto [status, out] =
      shell(kZr + " run " + dir + " -e SoundLevel -p 5000 -f jsonl 2>" + kTemp + "err");
  EXPECT_EQ(status, 0) << readFile(kTemp + "err");
  std::vector<std::string> files;
  for (const std::string& line : lines(out)) {
    const std::string f = nlohmann::json::parse(line)["file"];
    if (files.empty() || files.back() != f) files.push_back(f);
  }
  EXPECT_EQ(files, (std::vector<std::string>{dir + "/a.wav", dir + "/sub/b.flac"}));
  const std::string err = readFile(kTemp + "err");
  EXPECT_EQ(count(err, "zr: 2 sound file(s) to run; 2 other file(s) left out"), 1) << err;
  EXPECT_EQ(count(err, "a.wav: 10.17 s of audio in "), 1) << err;
  EXPECT_EQ(count(err, "b.flac: 10.17 s of audio in "), 1) << err;
  // A file among others that is no sound: one line naming it, the others run, exit 1.
  const auto mixed = shell(kZr + " run " + dir + "/a.wav " + dir + "/bad.wav " + dir +
                           "/sub -e SoundLevel -p 5000 -f csv 2>" + kTemp + "err");
  EXPECT_EQ(mixed.first, 1);
  EXPECT_EQ(lines(mixed.second).at(0),
            "file,extractor,event,time,channel,rms,peak,start,end,value");
  EXPECT_EQ(count(mixed.second, dir + "/sub/b.flac,SoundLevel,Levels,"), 3);
  const std::vector<std::string> said = lines(readFile(kTemp + "err"));
  ASSERT_EQ(said.size(), 4u) << readFile(kTemp + "err");
  EXPECT_EQ(said[0].rfind("zr: " + dir + "/a.wav: 10.17 s of audio", 0), 0u);
  EXPECT_EQ(said[1], "zr: error: cannot read input " + dir + "/bad.wav: Format not recognised.");
  EXPECT_EQ(said[2].rfind("zr: " + dir + "/sub/b.flac: 10.17 s of audio", 0), 0u);
  EXPECT_EQ(said[3], "zr: error: 1 of 3 inputs failed");
  EXPECT_EQ(shell(kZr + " run " + dir + " mic").first, 2) << "only sound files mix";
  shell("rm -rf " + dir + " " + kTemp + "err");
}

TEST(ZrRun, PlotsAreCheckedBeforeTheRunAndNeverLeftHalfDrawn) {
  const std::string dir = kTemp + "plot";
  ASSERT_EQ(
      shell("mkdir -p " + dir + "/bin && printf '#!/bin/sh\\necho half\\nexit 1\\n' > " + dir +
            "/bin/gnuplot && chmod +x " + dir + "/bin/gnuplot && echo old > " + dir + "/kept.png")
          .first,
      0);
  const std::string run = kZr + " run " + kSample + " -o " + dir + "/out.txt --plot ";
  struct Case {
    std::string path, env, expected;
  } cases[] = {
      {dir + "/no/such/dir/p.png", "", "cannot write " + dir + "/no/such/dir/p.png"},
      {dir + "/p.png", "PATH=/nonexistent ", "install it (on Debian: apt-get install gnuplot-nox)"},
  };
  for (const Case& c : cases) {
    const auto [status, out] = shell("env " + c.env + run + c.path, true);
    EXPECT_EQ(status, 1) << out;
    EXPECT_EQ(lines(out).size(), 1u) << out;
    EXPECT_NE(out.find(c.expected), std::string::npos) << out;
    EXPECT_NE(access((dir + "/out.txt").c_str(), F_OK), 0) << "the run was not started";
    EXPECT_NE(access(c.path.c_str(), F_OK), 0) << "no empty plot is left";
  }
  // A gnuplot that fails halfway: the file there stays as it was, nothing else is left.
  const auto [status, out] =
      shell("env PATH=" + dir + "/bin:$PATH " + run + dir + "/kept.png", true);
  EXPECT_EQ(status, 1);
  EXPECT_NE(out.find("gnuplot failed to draw"), std::string::npos) << out;
  EXPECT_EQ(readFile(dir + "/kept.png"), "old\n");
  EXPECT_EQ(shell("ls " + dir).second, "bin\nkept.png\nout.txt\n");
  shell("rm -rf " + dir);
}

TEST(ZrRun, RawInputSaysWhatItAssumesAndListSpeaksJson) {
  const std::string notice =
      "zr: raw PCM on standard input is read as 16-bit 16000 Hz mono; give --rate HZ and "
      "--channels N if it is not";
  const std::pair<std::string, int> cases[] = {
      {"", 1}, {" --rate 16000", 1}, {" --channels 1", 1}, {" --rate 8000 --channels 2", 0}};
  for (const auto& [options, times] : cases) {
    const auto [status, out] = shell("head -c 3200 /dev/zero | " + kZr + " run -" + options +
                                     " -e SoundLevel 2>&1 >/dev/null");
    EXPECT_EQ(status, 0);
    EXPECT_EQ(count(out, options.find("8000") == std::string::npos ? notice : "raw PCM"), times)
        << options << ": " << out;
  }
  const auto [status, out] = shell(kZr + " list -f jsonl --load " + kDoubles);
  EXPECT_EQ(status, 0);
  std::vector<std::string> names;
  for (const std::string& line : lines(out)) names.push_back(nlohmann::json::parse(line)["name"]);
  for (const char* name : {"SoundLevel", "VoiceActivity", "FailsMidway"})
    EXPECT_NE(std::find(names.begin(), names.end(), name), names.end()) << name;
}

TEST(ZrDocs, TheExtractorsPageDocumentsEveryEventAndMethodOfTheStockExtractors) {
  const std::string doc = readFile(ZR_EXTRACTORS_DOC);
  ASSERT_FALSE(doc.empty());
  std::set<std::string> events;
  for (const std::string& line : lines(shell(kZr + " run " + kSample + " -f jsonl").second)) {
    const auto o = nlohmann::json::parse(line);
    events.insert(o["extractor"].get<std::string>() + "/" + o["event"].get<std::string>());
  }
  EXPECT_EQ(events.size(), 4u);
  for (const std::string& e : events) EXPECT_NE(doc.find("`" + e + "`"), std::string::npos) << e;
  // The remote methods each extractor adds to those of its base classes.
  for (const std::string name : {"SoundLevel", "VoiceActivity"})
    for (const std::string& line : lines(shell(kZr + " describe " + name).second))
      if (line.size() > name.size() + 3 &&
          line.substr(line.size() - name.size() - 2) == "[" + name + "]") {
        const std::string method = line.substr(0, line.find('('));
        EXPECT_NE(doc.find("`" + method + "("), std::string::npos) << name << " " << method;
      }
}

TEST(ZrRun, TimeOrderPassesOnWhatNoExtractorCanStillPrecede) {
  std::vector<std::string> out;
  zr::TimeOrder order({"A", "B", "C"}, [&](const zr::Result& r) {
    const auto t = zr::resultTime(r);
    out.push_back(r.extractor + (t ? "@" + std::to_string(std::lround(*t * 10)) : ""));
  });
  auto result = [](const char* extractor, const char* field, float time) {
    return zr::Result{extractor, "E", ZR::makeRecord({{field, ZR::ZRValue(time)}})};
  };
  order.add(result("A", "time", 0.0f));
  EXPECT_TRUE(out.empty()) << "B and C may still say something earlier";
  order.add({"C", "Untimed", ZR::makeRecord({{"x", ZR::ZRValue(1)}})});
  EXPECT_EQ(out, (std::vector<std::string>{"C"})) << "a result without a time passes at once";
  order.add(result("B", "end", 0.5f));  // a segment, known once it ended
  EXPECT_EQ(out, (std::vector<std::string>{"C", "A@0"})) << "C holds back nobody now";
  order.add(result("A", "time", 0.3f));
  order.add(result("A", "time", 0.6f));
  EXPECT_EQ(out, (std::vector<std::string>{"C", "A@0", "A@3", "B@5"}));
  order.add(result("B", "end", 0.9f));
  order.add(result("A", "time", 1.2f));
  EXPECT_EQ(out, (std::vector<std::string>{"C", "A@0", "A@3", "B@5", "A@6", "B@9"}));
  order.add(result("A", "time", 1.5f));
  EXPECT_EQ(order.held(), 2u);
  order.flush(1.3);  // stopped at 1.3 s: what came before, in order; the rest is dropped
  EXPECT_EQ(out.back(), "A@12");
  EXPECT_EQ(out.size(), 7u);
  EXPECT_EQ(order.held(), 0u);
}

// A JSON line is written straight from the record: it must be the object's own text, whatever
// the record holds.
TEST(ZrRun, AJsonLineIsTheResultsObjectWhateverItHolds) {
  using ZR::ZRValue;
  const unsigned char bytes[3] = {1, 2, 3};
  ZRValue nested = ZR::makeRecord({{"x", ZRValue(1)}});
  ZRValue list;
  for (const ZRValue& e : {ZRValue(0.1f), ZRValue(-3), ZRValue(100.0f), ZRValue(1e-7f),
                           ZRValue(std::nanf("")), ZRValue(true), ZRValue("a\"b\n\xc3\xa9")})
    list.arrayPush(e);
  ZRValue twice = ZR::makeRecord({{"v", ZRValue(1)}, {"v", ZRValue(2)}});
  ZRValue bigSample;  // a position past 32 bits: [high, low]
  bigSample.arrayPush(ZRValue(1));
  bigSample.arrayPush(ZRValue(5));
  const std::vector<zr::Result> results = {
      {"SoundLevel", "Levels",
       ZR::makeRecord({{"time", ZRValue(12.345f)}, {"rms", list}, {"peak", ZRValue(-0.5f)}})},
      {"S", "E", ZR::makeRecord({{"time", ZRValue(0.3f)}, {"start", ZRValue(0.1f)}})},
      {"S", "E", ZR::makeRecord({{"start", ZRValue(0.1f)}, {"time", ZRValue(0.3f)}})},
      {"S", "E", ZR::makeRecord({{"start", ZRValue("later")}, {"time", ZRValue(7)}})},
      {"S", "E", ZR::makeRecord({{"time", ZRValue(1.0f)}, {"sample", ZRValue(3)}})},
      {"S", "E", ZR::makeRecord({{"sample", bigSample}, {"end", ZRValue(2.5f)}})},
      {"S", "E", ZR::makeRecord({{"event", ZRValue("x")}, {"inner", nested}})},
      {"S", "E", twice},
      {"S", "E", ZRValue(bytes, sizeof bytes)},
      {"S", "E", list},
      {"S", "E", ZRValue()},
      {"S", "E", ZRValue(std::vector<std::string>{})},
      {ZR::kAudioDeviceServiceName, "Gap",
       ZR::makeRecord({{"start", ZRValue(1600)}, {"samples", ZRValue(160)}})},
      {"S\t", "\x01", ZR::makeRecord({{"na\"me", ZRValue(std::nanf(""))}})}};
  for (zr::Result r : results)
    for (const char* file : {"", "dir/a b.wav"})
      for (int rate : {0, 16000}) {
        r.file = file;
        r.sampleRate = rate;
        EXPECT_EQ(zr::jsonLine(r), zr::resultJson(r).dump()) << r.value.toString();
      }
  // Floats: the edges of the plain layout, and a million bit patterns.
  std::vector<float> floats = {0.0f,   -0.0f,  1e-4f,   9.9999e-5f, 1e15f,  1e16f, 123456789.0f,
                               0.001f, 1e-45f, 3.4e38f, -2.5f,      1e-10f, 7e22f};
  std::mt19937 bits(7);
  for (int i = 0; i < 1000000; ++i) {
    const std::uint32_t b = bits();
    float f;
    std::memcpy(&f, &b, sizeof f);
    floats.push_back(f);
  }
  int differ = 0;
  for (float f : floats) {
    // The library's text of the double that the float's shortest text reads as.
    char shortest[32];
    *std::to_chars(shortest, shortest + sizeof shortest - 1, f).ptr = '\0';
    const std::string expected =
        std::isfinite(f) ? nlohmann::json(std::strtod(shortest, nullptr)).dump() : "null";
    std::string text;
    zr::appendFloat(text, f);
    if (text != expected && ++differ < 5) ADD_FAILURE() << text << " for " << expected;
    if (zr::valueJson(ZRValue(f)).dump() != expected && ++differ < 5) ADD_FAILURE() << expected;
  }
  EXPECT_EQ(differ, 0);
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
