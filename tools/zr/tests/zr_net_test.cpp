// zr across processes: real `zr host` processes and the client subcommands against them.

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <zrhostprocess.h>
#include "remote.h"

namespace {

const std::string kZr = ZR_BINARY, kRun = "timeout 60 " + kZr, kSample = ZR_SAMPLE;
const std::string kTemp = ::testing::TempDir() + "zr_net_" + std::to_string(getpid()) + "_";
const std::string kBeat = zrtest::kSanitizedHeartbeat;
// Turns a hang into a failure; never a pace.
constexpr std::chrono::seconds kLimit{60};

std::pair<int, std::string> sh(const std::string& command) {
  return zrtest::shell(command, true);
}

using zrtest::words;

// A zr process, its output read line by line; a line that does not come fails the test.
struct Zr : zrtest::HostProcess {
  explicit Zr(const std::string& args) : HostProcess(kZr, words(args)) {
    zrtest::hostFailure = [](const std::string& message) { ADD_FAILURE() << message; };
  }
};

// A host that serves a directory of its own on a free port, or joins the one at `dir` of
// another; `dir` gives its address to other zr commands.
struct Host : Zr {
  Host(const std::string& modules, const std::string& name = "testhost",
       const std::string& join = "")
      : Zr("host --name " + name + " " + modules +
           (join.empty() ? " --serve-directory --directory tcp://127.0.0.1:0" + kBeat : join)),
        dir(join) {
    if (join.empty()) {
      const std::string line = waitFor("serves the directory at ");
      dir = " --directory " + line.substr(line.rfind(' ') + 1) + kBeat;
    }
    waitFor("serving", kLimit);
  }
  std::string dir;
};

}  // namespace

TEST(ZrNet, ArgumentsAndResultsFollowTheRules) {
  const std::pair<std::string, std::string> cases[] = {{"42", "42"},
                                                       {"-7", "-7"},
                                                       {"0.1", "0.1"},
                                                       {"1e3", "1000"},
                                                       {"true", "true"},
                                                       {"null", "null"},
                                                       {"[1,\"a\"]", "[1,\"a\"]"},
                                                       {"word", "\"word\""},
                                                       {"\"42\"", "\"42\""},
                                                       {"{\"a\":1}", "\"{\\\"a\\\":1}\""}};
  for (const auto& [arg, json] : cases) EXPECT_EQ(zr::toJson(zr::parseArgument(arg)), json) << arg;
  EXPECT_EQ(zr::toJson(ZR::ZRValue("\x01\x02\xff", 3)), "{\"binary\":\"AQL/\"}");
  EXPECT_EQ(zr::toJson(ZR::ZRValue(1.0f / 3.0f)), "0.33333334");
  // One overload of the arity takes the number as the other kind: converted; two: left alone.
  const auto overloads = zr::parseMethodHelp(
      "f(int, float) -> void\n  One.\n  a (int): first\n  b (float): second\n"
      "f(string) -> int\n  returns n: count\n");
  ASSERT_EQ(overloads.size(), 2u);
  EXPECT_EQ(overloads[0].description, "One.");
  EXPECT_EQ(overloads[1].returnName, "n");
  std::vector<ZR::ZRValue> args{ZR::ZRValue(2.0f), ZR::ZRValue(3)};
  zr::fitArguments(overloads, args);
  EXPECT_TRUE(args[0].isInt() && args[1].isFloat());
  args = {ZR::ZRValue(2.5f), ZR::ZRValue(3)};
  zr::fitArguments(overloads, args);
  EXPECT_TRUE(args[0].isFloat()) << "2.5 is no int";
}

TEST(ZrNet, HostCallListDescribeTopAndShutdown) {
  Host host("--memory --device " + kSample +
            " -e SoundLevel --load " ZR_TEST_PLUGIN " -e PeakMeter");
  const std::string d = host.dir;
  auto list = sh(kRun + " list -f jsonl" + d);
  ASSERT_EQ(list.first, 0) << list.second;
  std::istringstream in(list.second);
  std::vector<std::string> kinds;
  for (std::string l; std::getline(in, l);) {
    const auto o = nlohmann::json::parse(l);
    EXPECT_EQ(o["host"], "testhost");
    kinds.push_back(o["name"].get<std::string>() + " " + o["kind"].get<std::string>());
  }
  EXPECT_EQ(kinds,
            (std::vector<std::string>{"PeakMeter soundextractor", "SoundLevel soundextractor",
                                      "ZRAudioDevice service", "ZRMemory service"}));
  const auto describe = sh(kRun + " describe PeakMeter -f jsonl" + d);
  EXPECT_NE(describe.second.find("{\"module\":\"PeakMeter\",\"method\":\"subscribe\",\"signature\":"
                                 "\"subscribe(string, int, float) -> void\",\"description\":"
                                 "\"Subscribes to the extractor. "),
            std::string::npos)
      << describe.second;

  struct Call {
    std::string args;
    int status;
    std::string out;
  } calls[] = {
      {"ZRMemory insertData k 42", 0, ""},  // void: nothing
      {"ZRMemory getData k", 0, "42\n"},
      {"ZRMemory insertData k 0.1", 0, ""},
      {"ZRMemory getData k", 0, "0.1\n"},
      {"ZRMemory insertData k '[\"x\",true,null]'", 0, ""},
      {"ZRMemory getData k", 0, "[\"x\",true,null]\n"},
      {"ZRMemory insertData k hello", 0, ""},
      {"ZRMemory getData k", 0, "\"hello\"\n"},
      {"ZRMemory getData nokey", 1, "ZRMemory::getData: "},
      {"-f jsonl ZRMemory getData nokey", 1, "{\"module\":\"ZRMemory\",\"method\":\"getData\","},
      {"Nobody ping", 1, "Nobody::ping: no module called \"Nobody\""},
      {"SoundLevel setThreshold -30 6", 0, ""},         // ints to the float overload
      {"SoundLevel subscribe slow 200.0 0.25", 0, ""},  // 200.0 to the one int overload
      {"SoundLevel subscribe fast 50 0.5", 0, ""},
      {"SoundLevel getCurrentPeriod", 0, "50\n"},
      {"SoundLevel getMyPeriod nobody", 1, "SoundLevel::getMyPeriod: "},
  };
  for (const Call& c : calls) {
    const auto [status, out] = sh(kRun + " call " + c.args + d);
    EXPECT_EQ(status, c.status) << c.args << ": " << out;
    EXPECT_EQ(c.out.empty() ? out : out.substr(0, c.out.size()), c.out) << c.args;
  }
  // Requested (the registry) against effective (the current values).
  const auto top = sh(kRun + " top --once -f jsonl" + d);
  bool sawExtractor = false, sawHost = false;
  std::istringstream rows(top.second);
  for (std::string l; std::getline(rows, l);) {
    const auto o = nlohmann::json::parse(l);
    sawHost = sawHost || (o["type"] == "host" && o["host"] == "testhost");
    if (o["type"] != "extractor" || o["module"] != "SoundLevel") continue;
    sawExtractor = true;
    EXPECT_EQ(o["state"], "running");
    EXPECT_EQ(o["currentPeriod"], 50);
    EXPECT_EQ(o["currentPrecision"], 0.5);
    EXPECT_TRUE(o["eventsPerSecond"].is_number()) << l;  // read twice, a second apart
    EXPECT_EQ(o["subscribers"],
              nlohmann::json::parse("[{\"name\":\"fast\",\"period\":50,\"precision\":0.5},"
                                    "{\"name\":\"slow\",\"period\":200,\"precision\":0.25}]"));
  }
  EXPECT_TRUE(sawExtractor && sawHost) << top.second;

  // A name another host holds; listening beyond loopback without keys.
  const auto taken = sh(kRun + " host --memory" + d);
  EXPECT_NE(taken.first, 0);
  // Refused by this host's copy of the directory or by the directory itself, naming the holder.
  EXPECT_NE(taken.second.find("by host testhost"), std::string::npos) << taken.second;
  const auto open = sh(kRun + " host --listen tcp://0.0.0.0:0" + d);
  EXPECT_EQ(open.first, 2);
  EXPECT_NE(open.second.find("give --curve-keys FILE --allow FILE"), std::string::npos)
      << open.second;
  EXPECT_EQ(host.stop(SIGTERM), 0);
  host.waitFor("host testhost stopped");
}

TEST(ZrNet, RunAndWatchAcrossProcesses) {
  // The device on a host of its own: its buffers cross to the extractors' host.
  Host host("--memory -e SoundLevel -e VoiceActivity");
  Host device("--device " + kSample, "devhost", host.dir);
  // The same results as in one process, line for line.
  const auto local = sh(kRun + " run " + kSample + " -f jsonl 2>/dev/null");
  ASSERT_EQ(local.first, 0);
  EXPECT_EQ(sh(kRun + " run " + kSample + host.dir).first, 2);
  const auto remote = sh(kRun + " run -f jsonl" + host.dir);
  ASSERT_EQ(remote.first, 0) << remote.second;
  // Each extractor's results in their order; two extractors interleave as they happen to run.
  auto byExtractor = [](const std::string& out) {
    std::map<std::string, std::vector<std::string>> lines;
    std::istringstream in(out);
    for (std::string line; std::getline(in, line);)
      if (line.rfind("{\"extractor\":", 0) == 0)
        lines[nlohmann::json::parse(line)["extractor"].get<std::string>()].push_back(line);
    return lines;
  };
  EXPECT_EQ(byExtractor(remote.second), byExtractor(local.second));
  // A second run on the same hosts: the same results, and its own seconds of audio only.
  const auto again = sh(kRun + " run -f jsonl" + host.dir);
  EXPECT_EQ(byExtractor(again.second), byExtractor(local.second));
  EXPECT_NE(again.second.find("zr: 10.20 s of audio in "), std::string::npos) << again.second;

  // Its first subscription starts the file, which runs at full speed: a second extractor
  // subscribed a moment later could find it over, so one event is watched.
  Zr watch("watch SoundLevel/Levels" + host.dir);
  const std::string first = watch.waitFor("\"Levels\"");
  ASSERT_NE(first, "");
  EXPECT_EQ(nlohmann::json::parse(first)["extractor"], "SoundLevel");
  EXPECT_EQ(watch.stop(SIGINT), 0);

  // The memory's host dies under a watcher: it says so.
  Zr orphan("watch SoundLevel/Levels" + host.dir);
  ASSERT_NE(orphan.waitFor("watching"), "");
  host.kill9();
  orphan.waitFor("ZRMemory left");
}

TEST(ZrNet, ListingAsksOnlyTheDirectory) {
  // Leases of 3 heartbeats of 2 s: the frozen host stays listed while the test looks.
  const std::string slow = " --heartbeat 2000";
  Host host("--memory --heartbeat 2000");
  const std::string dir = host.dir + slow;
  Host frozen("-e SoundLevel" + slow, "frozen", dir);
  frozen.signal(SIGSTOP);
  // What SoundLevel is and declared comes with its name, not from its host, which cannot answer.
  const auto list = sh(kRun + " list -f jsonl" + dir);
  frozen.signal(SIGCONT);
  ASSERT_EQ(list.first, 0) << list.second;
  std::map<std::string, nlohmann::json> byName;
  std::istringstream in(list.second);
  for (std::string line; std::getline(in, line);)
    if (line.rfind("{", 0) == 0) {
      const nlohmann::json j = nlohmann::json::parse(line);
      byName[j["name"]] = j;
    }
  ASSERT_TRUE(byName.count("SoundLevel")) << list.second;
  EXPECT_EQ(byName["SoundLevel"]["kind"], "soundextractor");
  EXPECT_EQ(byName["SoundLevel"]["events"],
            nlohmann::json::array({"SoundLevel/Levels", "SoundLevel/ThresholdCrossed"}));
  EXPECT_EQ(byName["ZRMemory"]["kind"], "service");
  EXPECT_EQ(byName["ZRMemory"]["methods"][0], "getMethodList");
  // A module whose host never answers: refused within the tool's own connection time.
  frozen.signal(SIGSTOP);
  const auto described = sh(kRun + " describe SoundLevel" + dir);
  frozen.signal(SIGCONT);
  EXPECT_NE(described.first, 0);
  EXPECT_NE(described.second.find("module destroyed"), std::string::npos) << described.second;
}

TEST(ZrNet, NoDirectoryExitsThreeAndKeysAreWritten) {
  const std::string none = " --directory tcp://127.0.0.1:1";
  for (const std::string& args : {"list" + none, "describe X" + none, "call X ping" + none,
                                  "watch E" + none, "top --once" + none, "run" + none}) {
    const auto [status, out] = sh(kRun + " " + args);
    EXPECT_EQ(status, 3) << args << ": " << out;
    EXPECT_NE(out.find("no directory answers at tcp://127.0.0.1:1"), std::string::npos) << out;
  }
  EXPECT_EQ(sh("ZR_DIRECTORY=tcp://127.0.0.1:1 " + kRun + " list").first, 3);
  ASSERT_EQ(sh(kRun + " keygen " + kTemp + "k").first, 0);
  struct stat st {};
  ASSERT_EQ(stat((kTemp + "k.key").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_EQ(zr::readKeyPair(kTemp + "k.key").publicKey, zr::readPublicKeys(kTemp + "k.pub").at(0));
  EXPECT_NE(sh(kRun + " keygen " + kTemp + "k").first, 0) << "an existing key stays";
  // A secret key others can read is refused by name, with the fix; the host does not start.
  for (const char* mode : {"640", "604"}) {
    ASSERT_EQ(sh(std::string("chmod ") + mode + " " + kTemp + "k.key").first, 0);
    try {
      zr::readKeyPair(kTemp + "k.key");
      ADD_FAILURE() << "mode " << mode << " accepted";
    } catch (const std::runtime_error& e) {
      EXPECT_NE(std::string(e.what()).find(kTemp + "k.key"), std::string::npos) << e.what();
      EXPECT_NE(std::string(e.what()).find("chmod 600"), std::string::npos) << e.what();
    }
    const auto [status, out] = sh(kRun + " host --listen tcp://127.0.0.1:0 --curve-keys " + kTemp +
                                  "k.key --allow " + kTemp + "k.pub --directory tcp://127.0.0.1:1");
    EXPECT_NE(status, 0) << out;
    EXPECT_NE(out.find("chmod 600 " + kTemp + "k.key"), std::string::npos) << out;
  }
  std::remove((kTemp + "k.key").c_str());
  std::remove((kTemp + "k.pub").c_str());
}

TEST(ZrNet, TheDocumentedStepsWorkAsPasted) {
  Host host("--memory --device tone:440 --realtime -e SoundLevel");
  const std::string d = host.dir;
  // Nobody subscribed yet: idle, without the registry's -1 for its current values.
  const auto idle = sh(kRun + " top --once --interval 100 -f jsonl" + d);
  EXPECT_NE(idle.second.find("\"module\":\"SoundLevel\",\"host\":\"testhost\",\"state\":\"idle\","
                             "\"currentPeriod\":null,\"currentPrecision\":null"),
            std::string::npos)
      << idle.second;
  const auto table = sh(kRun + " top --once --interval 100" + d);
  EXPECT_NE(table.second.find("idle           -         -"), std::string::npos) << table.second;
  EXPECT_EQ(table.second.find("-1"), std::string::npos) << table.second;

  // Negative numbers after --, as docs/command-line.md writes them; options go before it.
  EXPECT_EQ(sh(kRun + " call" + d + " SoundLevel setThreshold -- -40 3").first, 0);
  EXPECT_EQ(sh(kRun + " call" + d + " ZRMemory insertData -- k -x").first, 0);
  EXPECT_EQ(sh(kRun + " call" + d + " ZRMemory getData k").second, "\"-x\"\n");
  EXPECT_EQ(sh(kRun + " list" + d + " -- extra").first, 2) << "only zr call takes words after --";

  // A number of events, or a time; a misspelt event is said at once, a future one waited for.
  const auto three = sh(kRun + " watch SoundLevel/Levels --count 3 2>/dev/null" + d);
  EXPECT_EQ(three.first, 0);
  EXPECT_EQ(std::count(three.second.begin(), three.second.end(), '\n'), 3) << three.second;
  const auto timed = sh(kRun + " watch SoundLevel/Levels --duration 0.3 -f table" + d);
  EXPECT_EQ(timed.first, 0) << timed.second;
  EXPECT_NE(timed.second.find("SoundLevel     Levels"), std::string::npos) << timed.second;
  const auto misspelt = sh(kRun + " watch SoundLevel/Level" + d);
  EXPECT_EQ(misspelt.first, 1);
  EXPECT_NE(misspelt.second.find("zr: error: no module declares the event \"SoundLevel/Level\" "
                                 "(known: SoundLevel/Levels, SoundLevel/ThresholdCrossed, "
                                 "ZRAudioDevice/Gap); check its name, or give --wait to wait for "
                                 "a producer"),
            std::string::npos)
      << misspelt.second;
  const auto waiting = sh(kRun + " watch Later/Event --wait --duration 0.2" + d);
  EXPECT_EQ(waiting.first, 0) << waiting.second;
  EXPECT_NE(waiting.second.find("no module declares Later/Event yet"), std::string::npos);

  for (const char* bad : {"garbage", "tcp://127.0.0.1", "tcp://host:99999"}) {
    const auto [status, out] = sh(kRun + " list --directory " + bad);
    EXPECT_EQ(status, 2) << bad;
    EXPECT_NE(out.find("the address \"" + std::string(bad) + "\" is malformed"), std::string::npos)
        << out;
  }
  EXPECT_EQ(sh("ZR_DIRECTORY=nowhere " + kRun + " top --once").first, 2);
}

// Keys as the networking guide sets them up: the hosts share a pair, the client has its own.
// Events come back to the client, so the memory's host must reach it with the client's key.
TEST(ZrNet, EventsReachAClientWithAKeyPairOfItsOwn) {
  for (const char* name : {"hosts", "alice"})
    ASSERT_EQ(sh(kRun + " keygen " + kTemp + name).first, 0) << name;
  ASSERT_EQ(sh("cat " + kTemp + "hosts.pub " + kTemp + "alice.pub > " + kTemp + "allow").first, 0);
  Host host("--memory --device " + kSample + " -e SoundLevel --curve-keys " + kTemp +
            "hosts.key --allow " + kTemp + "allow");
  const std::string alice =
      host.dir + " --curve-keys " + kTemp + "alice.key --server-key " + kTemp + "hosts.pub";
  const auto watched = sh(kRun + " watch SoundLevel/Levels --count 3 -f jsonl" + alice);
  EXPECT_EQ(watched.first, 0) << watched.second;
  EXPECT_EQ(std::count(watched.second.begin(), watched.second.end(), '{'), 3) << watched.second;
  // zr run takes where events reach it as zr watch does; without --directory it has no use.
  const auto ran = sh(kRun + " run -f jsonl -e SoundLevel --listen tcp://127.0.0.1:0" + alice);
  EXPECT_EQ(ran.first, 0) << ran.second;
  EXPECT_NE(ran.second.find("zr: 10.20 s of audio in "), std::string::npos) << ran.second;
  EXPECT_EQ(sh(kRun + " run --listen tcp://127.0.0.1:0").first, 2);
  EXPECT_EQ(host.stop(SIGTERM), 0);
  for (const char* file : {"hosts.key", "hosts.pub", "alice.key", "alice.pub", "allow"})
    std::remove((kTemp + file).c_str());
}

// Device, extractor and memory in three processes: both the device's figure for its subscriber
// and the extractor's results are timed from the capture of the sound. Then the device's host
// stops first: the extractor's host, still subscribed to it, stops cleanly all the same.
TEST(ZrNet, ResultsAreTimedFromCaptureAcrossHostsWhichStopInAnyOrder) {
  Host memory("--memory");
  Host device("--device tone:440 --realtime --buffer 160", "devhost", memory.dir);
  Host extractor("-e SoundLevel", "exthost", memory.dir);
  Zr watch("watch SoundLevel/Levels" + memory.dir);
  ASSERT_NE(watch.waitFor("\"Levels\""), "");
  const auto top = sh(kRun + " top --once -f jsonl --interval 100" + memory.dir);
  ASSERT_EQ(top.first, 0) << top.second;
  std::istringstream in(top.second);
  int timed = 0;
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("{", 0) != 0) continue;
    const nlohmann::json j = nlohmann::json::parse(line);
    if (j["type"] == "extractor" || j["type"] == "subscriber") {
      EXPECT_TRUE(j["latency_p50_ms"].is_number()) << line;
      EXPECT_GT(j["latency_p99_ms"].get<double>(), 0.0) << line;
      ++timed;
    }
  }
  EXPECT_EQ(timed, 2) << top.second;
  EXPECT_EQ(device.stop(SIGTERM), 0);
  EXPECT_EQ(extractor.stop(SIGINT), 0);
  EXPECT_EQ(watch.stop(SIGINT), 0);
}

// A host of extractors waits for a memory service that may never come: Ctrl-C still stops it.
TEST(ZrNet, AHostWaitingForAMemoryServiceStopsOnASignal) {
  Zr lonely("host --name lonely -e SoundLevel --serve-directory --directory tcp://127.0.0.1:0");
  ASSERT_NE(lonely.waitFor("waiting for ZRMemory", kLimit), "");
  EXPECT_EQ(lonely.stop(SIGINT), 0);
}

namespace {

// The rms values of the SoundLevel results in `text`, in order, however the lines frame them.
std::vector<std::string> rmsValues(const std::string& text) {
  std::vector<std::string> out;
  const std::string key = "\"rms\"";
  for (std::size_t at = text.find(key); at != std::string::npos; at = text.find(key, at + 1)) {
    const std::size_t open = text.find('[', at), close = text.find(']', open);
    out.push_back(text.substr(open, close - open + 1));
  }
  return out;
}

}  // namespace

// A running system is recorded without being changed, and its recorded events, replayed into
// another system, reach that system's clients as they were recorded.
TEST(ZrNet, ARunningSystemIsRecordedAndItsEventsReplayedIntoAnother) {
  const std::string rec = kTemp + "live.mcap";
  {
    Host h("--memory --device tone:440 --realtime -e SoundLevel");
    Zr watch("watch SoundLevel/Levels --name Watcher" + h.dir);
    watch.waitFor("\"event\":\"Levels\"", kLimit);
    ASSERT_EQ(sh(kRun + " call SoundLevel updatePeriod Watcher 500" + h.dir).first, 0);
    const auto [status, out] = sh(kRun + " record " + rec + " --duration 3" + h.dir);
    EXPECT_EQ(status, 0) << out;
    EXPECT_NE(out.find("recording the sound and the results of SoundLevel to"), std::string::npos)
        << out;
    EXPECT_EQ(watch.stop(SIGTERM), 0);
  }
  const auto summary = sh(kRun + " inspect " + rec).second;
  for (const char* part : {"complete", "ZRAudioDevice/Sound", "16000 Hz, 1 channel"})
    EXPECT_NE(summary.find(part), std::string::npos) << summary;
  // Recorded at the period the system ran with, not at the recorder's own default.
  const std::string events = sh(kRun + " inspect " + rec + " -f jsonl").second;
  std::vector<double> times;
  for (const std::string& line : words(events))
    if (line.find("SoundLevel/Levels") != std::string::npos)
      times.push_back(nlohmann::json::parse(line)["time"].get<double>());
  ASSERT_GE(times.size(), 3u) << events;
  for (std::size_t i = 1; i < times.size(); ++i) EXPECT_NEAR(times[i] - times[i - 1], 0.5, 1e-6);

  Host other("--memory", "otherhost");
  Zr watch("watch SoundLevel/Levels --wait -n " + std::to_string(times.size()) + other.dir);
  watch.waitFor("watching", kLimit);
  const auto [status, out] = sh(kRun + " replay " + rec + " --speed 20" + other.dir);
  EXPECT_EQ(status, 0) << out;
  EXPECT_NE(out.find("replayed " + std::to_string(times.size() + 0)), std::string::npos) << out;
  std::string received;
  for (std::size_t i = 0; i < times.size(); ++i) received += watch.waitFor("Levels", kLimit);
  EXPECT_EQ(rmsValues(received), rmsValues(events));
  EXPECT_EQ(watch.stop(SIGTERM), 0);
  std::remove(rec.c_str());
}
