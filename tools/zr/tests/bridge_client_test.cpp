// The live bridge as viewers meet it: the protocol's reference client and hostile clients (node,
// bridge_client.cjs) against real hosts with a synthetic tone, the bridge inside a host and as a
// process of its own. Every wait is for a line, an answer or a process's end, bounded by a
// deadline that only turns a hang into a failure.

#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <zrhostprocess.h>

namespace {

const std::string kZr = ZR_BINARY;
const std::string kBeat = zrtest::kSanitizedHeartbeat;
constexpr std::chrono::seconds kLimit{60};

using zrtest::words;

// A zr process whose lines the test waits for; a line that does not come fails the test.
struct Zr : zrtest::HostProcess {
  explicit Zr(const std::string& args) : HostProcess(kZr, words(args)) {
    zrtest::hostFailure = [](const std::string& message) { ADD_FAILURE() << message; };
  }
  // What follows `part` on the first line that has it, whenever it was printed.
  std::string after(const std::string& part) {
    rewind();
    const std::string line = waitFor(part, kLimit);
    const auto at = line.find(part);
    return at == std::string::npos ? "" : line.substr(at + part.size());
  }
  // The page's address from "zr: bridge on http://...".
  std::string url() {
    rewind();
    std::smatch m;
    const std::string line = waitFor("bridge on ", kLimit);
    return std::regex_search(line, m, std::regex(R"(bridge on (http://\S+))")) ? m[1].str() : "";
  }
};

// A tone host serving a directory; with `extra` (e.g. a bridge) too.
struct ToneHost : Zr {
  explicit ToneHost(const std::string& extra = "", const std::string& name = "tonehost",
                    const std::string& beat = kBeat)
      : Zr("host --name " + name +
           " --serve-directory --directory tcp://127.0.0.1:0 --device tone:440 --realtime"
           " --memory -e SoundLevel" +
           beat + " " + extra) {
    directory = " --directory " + after("serves the directory at ") + beat;
    after("serving");
  }
  std::string directory;
};

std::string nodeProgram() {
  const std::string path = zrtest::shell("command -v node").second;
  return path.substr(0, path.find('\n'));
}

// A scenario of bridge_client.cjs: its findings, and what it printed when they are missing.
nlohmann::json scenario(const std::string& name, const std::string& url) {
  const auto [status, out] = zrtest::shell(
      "timeout 600 node '" ZR_BRIDGE_CLIENT "' '" ZR_BRIDGE_NPM "' " + name + " '" + url + "'",
      true);
  const auto start = out.rfind("\n{\"scenario\"");
  const auto findings = nlohmann::json::parse(
      start == std::string::npos ? out : out.substr(start + 1), nullptr, false);
  if (!findings.is_object()) {
    ADD_FAILURE() << name << " printed no findings: " << out;
    return nlohmann::json::object();
  }
  EXPECT_TRUE(status == 0 && findings.value("ok", false))
      << name << " failed (status " << status << "):\n"
      << findings.value("failures", nlohmann::json::array()).dump(1) << "\nfindings: " << out;
  return findings;
}

std::string call(const std::string& directory, const std::string& args) {
  return zrtest::shell("timeout 60 " + kZr + " call " + args + directory).second;
}

// Asks again until `ask()` gives `expected`, each ask after the last one's answer; the last
// answer.
template <class Ask>
auto eventually(Ask ask, const decltype(ask())& expected) {
  const auto deadline = std::chrono::steady_clock::now() + kLimit;
  auto got = ask();
  while (got != expected && std::chrono::steady_clock::now() < deadline) got = ask();
  return got;
}

std::string callUntil(const std::string& directory, const std::string& args,
                      const std::string& expected) {
  return eventually([&] { return call(directory, args); }, expected);
}

// The "bridge" rows of `zr top`.
std::vector<nlohmann::json> bridgeRows(const std::string& directory) {
  const auto [status, out] =
      zrtest::shell("timeout 60 " + kZr + " top --once -f jsonl" + directory);
  EXPECT_EQ(status, 0) << out;
  std::vector<nlohmann::json> rows;
  std::istringstream in(out);
  for (std::string line; std::getline(in, line);) {
    const auto row = nlohmann::json::parse(line, nullptr, false);
    if (row.is_object() && row.value("type", "") == "bridge") rows.push_back(row);
  }
  return rows;
}

class ZrBridge : public ::testing::Test {
 protected:
  void SetUp() override {
    signal(SIGPIPE, SIG_IGN);
    ASSERT_FALSE(nodeProgram().empty()) << "node is needed (./setup.sh installs it)";
    ASSERT_EQ(zrtest::shell("test -d '" ZR_BRIDGE_NPM "/node_modules/@foxglove/ws-protocol'").first,
              0)
        << "the reference client is installed by ./setup.sh into " ZR_BRIDGE_NPM;
  }
};

}  // namespace

// The bridge of a host: the reference client's visit, then every attack, then the host still
// answers and shows its bridge, and stops cleanly.
TEST_F(ZrBridge, AHostsBridgeServesTheReferenceClientAndOutlastsHostileOnes) {
  ToneHost host("--bridge 0", "bridged");
  const std::string url = host.url();
  ASSERT_TRUE(std::regex_match(url, std::regex(R"(http://127\.0\.0\.1:\d+/)"))) << url;

  const auto ref = scenario("reference", url);
  // The tone at half of full scale: its RMS and peak in dBFS, as the extractor computed them.
  const auto payload = ref.value("firstPayload", nlohmann::json::object());
  ASSERT_TRUE(payload.contains("rms") && payload["rms"].size() == 1) << payload;
  EXPECT_NEAR(payload["rms"][0].get<double>(), -9.03, 0.5) << payload;
  EXPECT_NEAR(payload["peak"][0].get<double>(), -6.02, 0.5) << payload;
  EXPECT_EQ(ref.value("channels", nlohmann::json()),
            nlohmann::json({"SoundLevel/Levels", "SoundLevel/ThresholdCrossed"}))
      << ref;

  scenario("hostile", url);
  EXPECT_EQ(call(host.directory, "ZRMemory ping"), "true\n");
  EXPECT_EQ(callUntil(host.directory, "SoundLevel getSubscribersInfo", "[]\n"), "[]\n");
  EXPECT_EQ(call(host.directory, "ZRMemory getSubscribers SoundLevel/Levels"), "[]\n");
  const auto rows = bridgeRows(host.directory);
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].value("host", ""), "bridged") << rows[0];
  const auto viewers = [&] {
    const auto now = bridgeRows(host.directory);
    return now.empty() ? nlohmann::json() : now[0]["viewers"];
  };
  EXPECT_EQ(eventually(viewers, nlohmann::json::array()), nlohmann::json::array());
  // And it still serves a viewer after all that; stopping, it says goodbye to a viewer.
  scenario("reference", url);
  zrtest::HostProcess follower(nodeProgram(),
                               {ZR_BRIDGE_CLIENT, ZR_BRIDGE_NPM, "follow", url, "-"});
  EXPECT_NE(follower.waitFor("{\"watching\":", kLimit), "");
  EXPECT_EQ(host.stop(SIGTERM), 0);
  const std::string closed = follower.waitFor("{\"closed\":", kLimit);
  EXPECT_TRUE(closed == "{\"closed\":1001}" || closed == "{\"closed\":1000}") << closed;
  EXPECT_EQ(follower.finish(), 0);
}

// `zr bridge` joins the directory of a host, follows modules as they come and go, and when it
// is killed its viewer's subscription goes with it.
TEST_F(ZrBridge, ABridgeProcessFollowsTheDirectory) {
  ToneHost host;
  Zr bridge("bridge --port 0 --name viewers" + host.directory);
  const std::string url = bridge.url();
  ASSERT_FALSE(url.empty());
  const auto ref = scenario("reference", url);
  EXPECT_EQ(ref.value("serverInfo", nlohmann::json::object()).value("name", ""),
            "zr bridge viewers");
  ASSERT_EQ(ref.value("viewers", nlohmann::json::array()).size(), 1u) << ref;
  EXPECT_EQ(ref["viewers"][0].get<std::string>().rfind("viewers.viewer", 0), 0u) << ref;

  zrtest::HostProcess follower(nodeProgram(),
                               {ZR_BRIDGE_CLIENT, ZR_BRIDGE_NPM, "follow", url, "PeakMeter/Peak"});
  EXPECT_NE(follower.waitFor("{\"initial\":", kLimit).find("SoundLevel/Levels"), std::string::npos);
  {
    Zr peaks("host --name peakhost --load " ZR_TEST_PLUGIN " -e PeakMeter" + host.directory);
    peaks.after("serving");
    EXPECT_NE(follower.waitFor("{\"came\":\"PeakMeter/Peak\"", kLimit), "");
    peaks.kill9();
  }
  EXPECT_NE(follower.waitFor("{\"went\":\"PeakMeter/Peak\"", kLimit), "");
  EXPECT_NE(follower.waitFor("{\"watching\":", kLimit), "");
  // The follower, as `zr top` shows it: one subscription left, messages sent.
  const auto rows = bridgeRows(host.directory);
  EXPECT_EQ(rows.size(), 1u);
  if (rows.size() != 1 || rows[0]["viewers"].size() != 1) {
    ADD_FAILURE() << "zr top shows no viewer of the follower: " << nlohmann::json(rows);
  } else {
    const auto& viewer = rows[0]["viewers"][0];
    EXPECT_EQ(viewer.value("subscriptions", 0), 1) << viewer;
    EXPECT_GT(viewer.value("sent", 0), 0) << viewer;
    EXPECT_EQ(viewer.value("dropped", -1), 0) << viewer;
  }
  EXPECT_NE(call(host.directory, "SoundLevel getSubscribersInfo").find("viewers.viewer"),
            std::string::npos);

  bridge.kill9();
  EXPECT_NE(follower.waitFor("{\"closed\":", kLimit), "");
  EXPECT_EQ(follower.finish(), 0);
  // The platform reaps the dead bridge's viewer: the extractor goes idle.
  EXPECT_EQ(callUntil(host.directory, "SoundLevel getSubscribersInfo", "[]\n"), "[]\n");
  EXPECT_EQ(callUntil(host.directory, "ZRMemory getSubscribers SoundLevel/Levels", "[]\n"), "[]\n");
  EXPECT_EQ(eventually([&] { return bridgeRows(host.directory).size(); }, 0u), 0u);
}

// A frozen host stays listed for as long as its lease (here, minutes): a bridge that joins
// meanwhile offers the other modules' channels at once, and the levels flow.
TEST_F(ZrBridge, AFrozenHostHoldsUpNoViewer) {
  const std::string beat = " --heartbeat 60000";
  ToneHost host("", "tonehost", beat);
  Zr peaks("host --name peakhost --load " ZR_TEST_PLUGIN " -e PeakMeter" + host.directory);
  peaks.after("serving");
  peaks.signal(SIGSTOP);
  Zr bridge("bridge --port 0" + host.directory);
  zrtest::HostProcess follower(nodeProgram(),
                               {ZR_BRIDGE_CLIENT, ZR_BRIDGE_NPM, "follow", bridge.url(), "-"});
  EXPECT_NE(follower.waitFor("{\"initial\":", kLimit).find("PeakMeter/Peak"), std::string::npos);
  EXPECT_NE(follower.waitFor("{\"watching\":", kLimit), "");
  peaks.signal(SIGCONT);
}

// Loopback by default; another address only with a token, given or generated, and every
// request and upgrade then needs it. Addresses that cannot be served are clear errors.
TEST_F(ZrBridge, BeyondLoopbackOnlyWithAToken) {
  ToneHost host("--bridge 0 --bridge-address 0.0.0.0 --bridge-token s3cret-Given");
  const std::string given = host.url();
  EXPECT_TRUE(std::regex_match(given, std::regex(R"(http://\S+:\d+/\?token=s3cret-Given)")))
      << given;
  EXPECT_EQ(scenario("token", given).value("tokenLength", 0), 12);

  std::string tokens[2];
  for (std::string& token : tokens) {
    Zr bridge("bridge --address 0.0.0.0 --port 0" + host.directory);
    const std::string url = bridge.url();
    std::smatch m;
    ASSERT_TRUE(std::regex_search(url, m, std::regex(R"(\?token=([^&\s]+)$)"))) << url;
    token = m[1];
    EXPECT_GE(token.size(), 16u) << "a guessable token: " << token;
    scenario("token", url);
  }
  EXPECT_NE(tokens[0], tokens[1]);

  // A token asked for on loopback is required too.
  Zr local("bridge --port 0 --token loopback-token-1" + host.directory);
  const std::string localUrl = local.url();
  EXPECT_NE(localUrl.find("127.0.0.1"), std::string::npos) << localUrl;
  scenario("token", localUrl);

  const std::string port = std::regex_replace(localUrl, std::regex(R"(.*:(\d+)/.*)"), "$1");
  for (const std::string& args : {"--port " + port, std::string("--address 300.1.2.3 --port 0"),
                                  std::string("--address nowhere.invalid --port 0")}) {
    const auto [status, out] =
        zrtest::shell("timeout 60 " + kZr + " bridge " + args + host.directory, true);
    EXPECT_NE(status, 0) << args << ": " << out;
    EXPECT_NE(out.find("zr: "), std::string::npos) << args << ": " << out;
    EXPECT_EQ(out.find("bridge on"), std::string::npos) << args << ": " << out;
  }
  EXPECT_EQ(local.stop(SIGTERM), 0);
}
