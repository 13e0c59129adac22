// The pipeline across processes: a device host, an extractor host (with "ZRMemory") and a client
// host, with this process serving the directory and asking the modules remotely. Hosts are
// killed with SIGKILL for real; every wait is for a line a host prints or an event, bounded by a
// deadline (the reaping ones by 2 s), never a sleep.
#include <signal.h>

#include <map>
#include <mutex>

#include <gtest/gtest.h>

#include <zraudiodevice/zraudiodevice.h>
#include <zrcommon/zrbroker.h>
#include <zrcommon/zrproxy.h>
#include <zrextractors/zrextractorregistry.h>
#include <zrmemory/zrmemory.h>
#include <zrproxies/zrmemoryproxy.h>
#include <zrtest.h>

#include <zrhostprocess.h>
#include "pipeline_modules.h"

namespace {

using std::chrono::milliseconds;
using Strings = std::vector<std::string>;
using Host = zrtest::HostProcess;

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
// Sanitized hosts on a loaded machine need longer heartbeats to not be found dead; a death is
// then seen later, and the reaping deadline follows.
const std::string kBeat = "500";
const milliseconds kReapLimit{4000};
#else
const std::string kBeat = "250";
const milliseconds kReapLimit{2000};
#endif

// This process serves the directory; hosts join it.
struct Net : ::testing::Test {
  Net() {
    signal(SIGPIPE, SIG_IGN);
    zrtest::hostFailure = [](const std::string& message) { ADD_FAILURE() << message; };
    ZR::ZRBrokerOptions o;
    o.directory = "tcp://127.0.0.1:0";
    o.serveDirectory = true;
    o.heartbeat = milliseconds(std::stoi(kBeat));
    broker = ZR::ZRBroker::createBroker("test", o);
  }
  ~Net() override { broker->shutdown(); }
  std::unique_ptr<Host> host(const std::string& name, Strings args) {
    args.insert(args.begin(), {name, "--directory", broker->endpoint(), "--heartbeat", kBeat});
    auto h = std::make_unique<Host>(ZR_PIPELINE_HOST, args);
    h->ready();
    return h;
  }
  boost::shared_ptr<ZR::ZRProxy> proxy(const std::string& name) {
    EXPECT_EQ(broker->session()->waitForService(name).async().wait(
                  static_cast<int>(zrtest::kWaitLimit.count() * 1000)),
              vo::FutureState::FinishedWithValue)
        << name;
    return broker->getProxy(name);
  }
  Strings subscribersOf(const std::string& extractor) {
    Strings names;
    const ZR::ZRValue info = proxy(extractor)->call<ZR::ZRValue>("getSubscribersInfo");
    for (int i = 0; i < info.getSize(); ++i) names.push_back(info[i][0]);
    return names;
  }
  Strings deviceSubscribers() { return proxy("ZRAudioDevice")->call<Strings>("getSubscribers"); }
  // A live device, an extractor host and a client receiving its levels.
  void startLivePipeline() {
    device = host("devhost", {"--device", "tone:440", "--live"});
    extractors = host("exthost", {"--memory", "--extractor", "SoundLevel"});
    client = host("client", {"--client", "SoundLevel/Levels"});
    client->waitFor("event SoundLevel/Levels");
    ASSERT_EQ(subscribersOf("SoundLevel"), Strings{"Client"});
    ASSERT_EQ(deviceSubscribers(), Strings{"SoundLevel"});
  }
  boost::shared_ptr<ZR::ZRBroker> broker;
  std::unique_ptr<Host> device, extractors, client;
};

const Strings kEvents = {"SoundLevel/Levels", "VoiceActivity/Segment"};

// Each event's values, in order, from "event EVENT VALUE" lines.
std::map<std::string, Strings> byEvent(const Strings& lines) {
  std::map<std::string, Strings> out;
  for (const auto& l : lines)
    for (const auto& e : kEvents)
      if (l.rfind("event " + e + " ", 0) == 0) out[e].push_back(l.substr(e.size() + 7));
  return out;
}

TEST_F(Net, ThreeProcessesDeliverWhatOneProcessDoes) {
  // In one process first: the reference.
  Strings local;
  {
    auto b = ZR::ZRBroker::createBroker("local");
    auto memory = ZR::ZRModule::createModule<ZR::ZRMemory>(b, "ZRMemory", 1 << 16);
    ZR::ZRAudioDeviceOptions o = ZR::ZRAudioDeviceOptions::fromInput(ZR_SAMPLE);
    o.held = true;
    auto dev = ZR::ZRModule::createModule<ZR::ZRAudioDevice>(b, "ZRAudioDevice", o);
    const auto registry = ZR::ZRExtractorRegistry::withStockExtractors();
    auto level = registry.create("SoundLevel", b, "SoundLevel");
    auto vad = registry.create("VoiceActivity", b, "VoiceActivity");
    std::mutex m;
    auto receiver = ZR::ZRModule::createModule<zrtest::PipeClient>(
        b, "Client", [&](const std::string& e, const ZR::ZRValue& v) {
          std::lock_guard<std::mutex> lock(m);
          local.push_back("event " + e + " " + zrtest::render(v));
        });
    for (const auto& e : kEvents) ZR::ZRMemoryProxy(b).subscribeToEvent(e, "Client", "onEvent");
    dev->release();
    ASSERT_TRUE(dev->waitForEndOfStream(-1));
    ASSERT_TRUE(memory->waitForDeliveries(std::chrono::seconds(20)));
    // The broker destroys them in order: clients, extractors, then the services they use.
    receiver.reset(), vad.reset(), level.reset(), dev.reset(), memory.reset();
    b->shutdown();
  }
  // Then across three processes, the device held until both extractors listen.
  device = host("devhost", {"--device", ZR_SAMPLE, "--held"});
  extractors =
      host("exthost", {"--memory", "--extractor", "SoundLevel", "--extractor", "VoiceActivity"});
  client = host("client", {"--client", kEvents[0], "--client", kEvents[1], "--client",
                           "ZRAudioDevice/EndOfStream"});
  proxy("ZRAudioDevice")->call<void>("release");
  client->waitFor("event ZRAudioDevice/EndOfStream");
  const auto expected = byEvent(local), got = byEvent(client->lines());
  ASSERT_EQ(expected.size(), 2u);
  EXPECT_GT(expected.at(kEvents[0]).size(), 100u);
  EXPECT_EQ(got, expected);
  EXPECT_EQ(client->finish(), 0);
  EXPECT_EQ(extractors->finish(), 0);
  EXPECT_EQ(device->finish(), 0);
}

TEST_F(Net, KilledClientsAndExtractorHostsAreReaped) {
  startLivePipeline();
  client->kill9();
  // Within 2 s: the extractor's stop hook ran, its registry is empty, the device stopped.
  extractors->waitFor("ZRSoundExtractor : stopDetection", kReapLimit);
  device->waitFor("stopped tone", kReapLimit);
  EXPECT_EQ(subscribersOf("SoundLevel"), Strings{});
  EXPECT_EQ(deviceSubscribers(), Strings{});

  // Back under its name, it subscribes afresh; then the extractor host goes.
  client = host("client", {"--client", "SoundLevel/Levels"});
  client->waitFor("event SoundLevel/Levels");
  EXPECT_EQ(subscribersOf("SoundLevel"), Strings{"Client"});
  extractors->kill9();
  device->waitFor("stopped tone", kReapLimit);
  EXPECT_EQ(deviceSubscribers(), Strings{});
  EXPECT_EQ(client->finish(), 0);
  EXPECT_EQ(device->finish(), 0);
}

TEST_F(Net, AKilledDeviceHostIsReportedAndReachedAgain) {
  startLivePipeline();
  device->kill9();
  const std::string line = extractors->waitFor("log zrcommon.ZRReaper", kReapLimit);
  EXPECT_NE(line.find("SoundLevel: its audio device \"ZRAudioDevice\" is gone"), std::string::npos)
      << line;
  EXPECT_EQ(subscribersOf("SoundLevel"), Strings{"Client"});  // the host lives on

  device = host("devhost", {"--device", "tone:440", "--live"});
  extractors->waitFor("subscribed again to \"ZRAudioDevice\"");
  EXPECT_EQ(deviceSubscribers(), Strings{"SoundLevel"});
  EXPECT_TRUE(zrtest::eventually([&] {
    return proxy("ZRAudioDevice")->call<int>("getDeliveredBufferCount", std::string("SoundLevel")) >
           1;
  }));
  // Destroying the extractor unsubscribes it from the device that came back: a clean exit.
  EXPECT_EQ(client->finish(), 0);
  EXPECT_EQ(extractors->finish(), 0);
  EXPECT_EQ(device->finish(), 0);
}

TEST_F(Net, ASlowRemoteSubscriberHoldsUpNobody) {
  device = host("devhost", {"--device", "tone:440", "--live", "--buffer", "800"});
  auto sinks = host("sinks", {"--sink", "Fast", "--slow-sink", "Slow"});
  // Slow holds its first buffer; the source goes on and drops Slow's oldest ones.
  device->waitFor("subscriber \"Slow\" does not keep up");
  auto dev = proxy("ZRAudioDevice");
  const int atDrop = dev->call<int>("getDeliveredBufferCount", std::string("Fast"));
  sinks->waitFor("buffer Fast " + std::to_string(atDrop + 20));
  // Sent to Slow are only the few its stream may have in flight, the first still held.
  EXPECT_LE(dev->call<int>("getDeliveredBufferCount", std::string("Slow")), 3);
  EXPECT_GT(dev->call<int>("getDroppedBufferCount", std::string("Slow")), 0);
  EXPECT_EQ(dev->call<int>("getDroppedBufferCount", std::string("Fast")), 0);
  sinks->send("release");
  sinks->waitFor("buffer Slow 2");
  const int fast = dev->call<int>("getDeliveredBufferCount", std::string("Fast"));
  sinks->rewind();
  sinks->waitFor("buffer Fast " + std::to_string(fast));  // every buffer counted reached it
  EXPECT_EQ(dev->call<int>("getDroppedBufferCount", std::string("Fast")), 0);
  EXPECT_EQ(sinks->finish(), 0);
  device->waitFor("stopped tone", kReapLimit);  // its subscribers left without unsubscribing
  EXPECT_EQ(device->finish(), 0);
}

// A failed start is no subscription: the extractor that could not reach a device is left with no
// subscriber, and a retry once the device exists starts it and delivers.
TEST(Pipeline, AFailedStartIsUndoneAndARetryDelivers) {
  auto b = ZR::ZRBroker::createBroker("local");
  auto memory = ZR::ZRModule::createModule<ZR::ZRMemory>(b, "ZRMemory");
  auto level = ZR::ZRExtractorRegistry::withStockExtractors().create("SoundLevel", b, "SoundLevel");
  zrtest::Signal received;
  auto client = ZR::ZRModule::createModule<zrtest::PipeClient>(
      b, "Client", [&](const std::string&, const ZR::ZRValue&) { received.notify(); });
  ZR::ZRMemoryProxy m(b);
  const ZR::ZRError e =
      zrtest::errorOf([&] { m.subscribeToEvent("SoundLevel/Levels", "Client", "onEvent"); });
  EXPECT_EQ(e.getMethodName(), "subscribeToEvent");
  EXPECT_NE(std::string(e.what()).find("startDetection"), std::string::npos) << e.what();
  EXPECT_EQ(b->getProxy("SoundLevel")->call<ZR::ZRValue>("getSubscribersInfo").getSize(), 0);
  EXPECT_EQ(m.getSubscribers("SoundLevel/Levels"), Strings{});

  auto device = ZR::ZRModule::createModule<ZR::ZRAudioDevice>(
      b, "ZRAudioDevice", ZR::ZRAudioDeviceOptions::fromInput("tone:440"));
  m.subscribeToEvent("SoundLevel/Levels", "Client", "onEvent");
  EXPECT_TRUE(received.waitFor(3));
  client.reset(), level.reset(), device.reset(), memory.reset();
  b->shutdown();
}

}  // namespace
