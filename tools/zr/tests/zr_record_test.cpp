// Records runs with the zr binary, replays and inspects the recordings as a user would.

#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <zrhostprocess.h>
#include <nlohmann/json.hpp>

namespace {

const std::string kZr = ZR_BINARY, kSample = ZR_SAMPLE;
const std::string kTemp = ::testing::TempDir() + "zr_record_" + std::to_string(getpid()) + "_";

using zrtest::shell;

int count(const std::string& text, const std::string& what) {
  int n = 0;
  for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

std::string fileBytes(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(f), {}};
}

}  // namespace

// What extractors found on recorded sound they find again, value for value, when it is replayed:
// mono speech with lost sound in it, and four channels.
TEST(ZrRecord, ARecordingReplaysToTheSameResults) {
  const std::string multi = kTemp + "four.wav";
  ASSERT_EQ(shell("sox -n -r 16000 -c 4 " + multi +
                  " synth 3 sine 300 sine 500 pinknoise sine 900 gain -6")
                .first,
            0);
  struct Case {
    std::string input, args;
  } cases[] = {{kSample,
                " --inject-gap 0:500 --inject-gap 16000:800 --inject-gap 40000:3200"
                " --inject-gap 162600:500"},
               {multi, " -e SoundLevel -e VoiceActivity -p 50 --compression lz4"}};
  for (const Case& c : cases) {
    const std::string rec = kTemp + "replay.mcap";
    const auto recorded = shell(kZr + " run " + c.input + c.args + " -f jsonl --record " + rec);
    ASSERT_EQ(recorded.first, 0) << recorded.second;
    const auto replayed = shell(kZr + " run " + rec + " -f jsonl" +
                                (c.input == multi ? " -e SoundLevel -e VoiceActivity -p 50" : ""));
    ASSERT_EQ(replayed.first, 0) << replayed.second;
    EXPECT_GT(count(recorded.second, "\"Levels\""), 50);
    EXPECT_EQ(replayed.second, recorded.second) << c.input;

    // What was recorded is what was printed: every result, on its channel.
    const auto events = shell(kZr + " inspect " + rec + " --format jsonl");
    ASSERT_EQ(events.first, 0);
    EXPECT_EQ(count(events.second, "\"topic\":\"SoundLevel/Levels\""),
              count(recorded.second, "\"event\":\"Levels\""));
    EXPECT_EQ(count(events.second, "\"topic\":\"ZRAudioDevice/Gap\""),
              count(recorded.second, "\"event\":\"Gap\""));
    // The reference implementation reads it all, every CRC and index checked: the events zr
    // printed, and a sound message per buffer.
    if (std::system("command -v node >/dev/null 2>&1") == 0) {
      const auto reference =
          shell("node '" ZR_MCAP_REFERENCE "' '" ZR_MCAP_NPM "' read " + rec, true);
      ASSERT_EQ(reference.first, 0) << reference.second;
      const auto j = nlohmann::json::parse(reference.second);
      std::map<std::string, int> perTopic;
      for (const auto& m : j.at("messages"))
        ++perTopic[j.at("channels").at(std::to_string(m[0].get<int>())).at("topic")];
      EXPECT_EQ(perTopic["SoundLevel/Levels"], count(recorded.second, "\"event\":\"Levels\""));
      EXPECT_GT(perTopic["ZRAudioDevice/Sound"], 25);
    }
    const auto summary = shell(kZr + " inspect " + rec).second;
    EXPECT_NE(summary.find("complete"), std::string::npos) << summary;
    EXPECT_NE(summary.find(c.input == multi
                               ? "16000 Hz, 4 channels, 3.000 s of sound, no gap"
                               : "16000 Hz, 1 channel, 9.881 s of sound, 4 gaps (0.287 s lost)"),
              std::string::npos)
        << summary;
  }
  shell("rm -f " + multi + " " + kTemp + "replay.mcap");
}

// A recorder killed mid-run leaves a file whose complete chunks are read; a recording cut at
// any point, or damaged, or no recording at all, is a clear error or what it still holds.
TEST(ZrRecord, ACutOrDamagedRecordingIsReadAsFarAsItGoes) {
  const std::string rec = kTemp + "killed.mcap";
  {
    zrtest::HostProcess run(kZr, {"run", "tone:440", "--realtime", "-e", "SoundLevel", "-f",
                                  "jsonl", "-p", "100", "--record", rec});
    // Chunks close every second of capture: by 2.5 s one is on disk.
    run.waitFor("\"time\":2.5");
    run.kill9();
  }
  const auto inspected = shell(kZr + " inspect " + rec, true);
  EXPECT_EQ(inspected.first, 0) << inspected.second;
  EXPECT_NE(inspected.second.find("cut short"), std::string::npos) << inspected.second;
  const auto replayed = shell(kZr + " run " + rec + " -e SoundLevel -f jsonl");
  EXPECT_EQ(replayed.first, 0);
  EXPECT_GE(count(replayed.second, "\"Levels\""), 10);

  // Cut at every tenth of a complete recording, then with bytes flipped: never a crash.
  const std::string whole = kTemp + "whole.mcap", part = kTemp + "part.mcap";
  ASSERT_EQ(shell(kZr + " run " + kSample + " -e SoundLevel -f jsonl --record " + whole).first, 0);
  const std::string bytes = fileBytes(whole);
  for (int tenth = 0; tenth < 10; ++tenth) {
    std::ofstream(part, std::ios::binary).write(bytes.data(), bytes.size() * tenth / 10);
    for (const std::string& command : {"inspect " + part, "run " + part + " -e SoundLevel"}) {
      const auto [status, out] = shell(kZr + " " + command + " -f jsonl 2>&1");
      EXPECT_TRUE(status == 0 || (status == 1 && out.find(part) != std::string::npos))
          << command << " (tenth " << tenth << ") printed " << out;
    }
  }
  std::string flipped = bytes;
  for (std::size_t i = 64; i < flipped.size(); i += 997)
    flipped[i] = static_cast<char>(~flipped[i]);
  std::ofstream(part, std::ios::binary).write(flipped.data(), flipped.size());
  const auto damaged = shell(kZr + " run " + part + " -e SoundLevel 2>&1");
  EXPECT_EQ(damaged.first, 1) << damaged.second;
  EXPECT_NE(damaged.second.find("byte"), std::string::npos) << damaged.second;

  const auto full = shell(kZr + " run " + kSample + " -e SoundLevel --record /dev/full 2>&1");
  EXPECT_EQ(full.first, 1);
  EXPECT_NE(full.second.find("/dev/full::write: cannot write"), std::string::npos) << full.second;

  std::ofstream(part) << "not a recording at all";
  for (const std::string& command : {"inspect " + part, "run " + part}) {
    const auto [status, out] = shell(kZr + " " + command + " 2>&1");
    EXPECT_EQ(status, 1) << command;
    EXPECT_NE(out.find(part), std::string::npos) << out;
    EXPECT_NE(out.find("not"), std::string::npos) << out;
  }
  // A FIFO is never waited on; a recording is never written over its own input.
  const std::string fifo = kTemp + "fifo.mcap";
  ASSERT_EQ(shell("mkfifo " + fifo).first, 0);
  for (const std::string& command :
       {"run " + fifo, "inspect " + fifo, "run " + whole + " --record " + whole}) {
    const auto [status, out] = shell("timeout 60 " + kZr + " " + command + " 2>&1");
    EXPECT_TRUE(status == 1 || status == 2) << command << ": " << out;
    EXPECT_TRUE(out.find("not a regular file") != std::string::npos ||
                out.find("would write over its own input") != std::string::npos)
        << out;
  }
  EXPECT_EQ(fileBytes(whole), bytes);
  shell("rm -f " + rec + " " + whole + " " + part + " " + fifo);
}
