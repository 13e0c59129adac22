// The bridge's own page in headless Chromium, over a real host playing a tone: it loads with no
// console error, lists the modules, and its level chart changes as the tone plays
// (bridge_page.cjs drives the browser; its screenshot stays in the build tree).

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <zrhostprocess.h>

namespace {

const std::string kZr = ZR_BINARY;
// Turns a hang into a failure; never a pace.
constexpr std::chrono::seconds kLimit{60};
const std::string kBeat = zrtest::kSanitizedHeartbeat;

using zrtest::words;

bool has(const nlohmann::json& list, const std::string& item) {
  return std::find(list.begin(), list.end(), item) != list.end();
}

}  // namespace

TEST(BridgePage, ShowsTheRunningSystemLive) {
  // Both come with ./setup.sh: a machine without them fails here rather than skipping the page.
  ASSERT_EQ(access("/usr/bin/chromium", X_OK), 0) << "no /usr/bin/chromium: run ./setup.sh";
  ASSERT_EQ(zrtest::shell("node --version").first, 0) << "no node: run ./setup.sh";
  zrtest::hostFailure = [](const std::string& message) { ADD_FAILURE() << message; };
  // With a token, so that the page must carry it to its own files and to the WebSocket.
  zrtest::HostProcess host(kZr, words("host --name pagehost --memory --device tone:440 --realtime "
                                      "-e SoundLevel -e VoiceActivity"
                                      " --serve-directory --directory tcp://127.0.0.1:0 --bridge 0"
                                      " --bridge-token page-test-token" +
                                      kBeat));
  const std::string line = host.waitFor("bridge on ", kLimit);
  std::smatch url;
  ASSERT_TRUE(std::regex_search(line, url, std::regex(R"(bridge on (http://\S+))"))) << line;
  ASSERT_NE(url[1].str().find("token=page-test-token"), std::string::npos) << line;

  const std::string shot = ZR_BRIDGE_PAGE_SHOT;
  std::remove(shot.c_str());
  const auto run = zrtest::shell("timeout 300 node '" ZR_BRIDGE_PAGE_SCRIPT "' '" ZR_NPM "' '" +
                                     url[1].str() + "' '" + shot + "' ZRMemory ZRAudioDevice",
                                 true);
  std::cout << "screenshot of the page: " << shot << std::endl;
  const std::size_t at = run.second.rfind("\n{");
  const std::string last = run.second.substr(at == std::string::npos ? 0 : at + 1);
  const auto found = nlohmann::json::parse(last, nullptr, false);
  ASSERT_FALSE(found.is_discarded()) << run.second;
  ASSERT_TRUE(found.at("failures").empty())
      << found.at("failures").dump(1) << "\nconsole: " << found.at("console").dump(1);
  EXPECT_EQ(run.first, 0) << run.second;

  // The modules of the host, each listed; the events they declare, the drawn ones subscribed.
  for (const char* module : {"SoundLevel", "VoiceActivity", "ZRMemory", "ZRAudioDevice"}) {
    EXPECT_TRUE(has(found.at("modules"), module)) << module;
    EXPECT_TRUE(has(found.at("listed"), module)) << module;
  }
  for (const char* event :
       {"SoundLevel/Levels", "VoiceActivity/SpeechDetected", "VoiceActivity/Segment"})
    EXPECT_TRUE(has(found.at("subscribed"), event)) << event;
  // A mono tone: one level per window, well above silence, and the chart drew more of it.
  EXPECT_EQ(found.at("levels").at("rms").size(), 1u);
  EXPECT_GT(found.at("after").at("coloured").get<int>(),
            found.at("before").at("coloured").get<int>());
  EXPECT_GT(found.at("messages")[1].get<int>(), found.at("messages")[0].get<int>());

  std::ifstream png(shot, std::ios::binary);
  char magic[8] = {};
  png.read(magic, sizeof magic);
  EXPECT_EQ(std::string(magic, sizeof magic), std::string("\x89PNG\r\n\x1a\n", 8)) << shot;
  EXPECT_EQ(host.stop(SIGTERM), 0);
}
