#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <zrcommon/zrbroker.h>
#include <zrcommon/zrmodule.h>
#include <zrcommon/zrproxy.h>
#include <zrmemory/zrmemory.h>
#include <zrsoundextractor/zrsoundextractor.h>
#include <zrtest.h>

namespace {

const char* const kCategory = "audio.zrsoundextractor";
const char* const kDebugText =
    "The call to setDebugMode() is now deprectated. This functionnality is now handled by vo/log";

using Call = std::pair<std::string, std::string>;  // method, module name
using Calls = std::vector<Call>;
using Names = std::vector<std::string>;

// Stands in for the audio device: records every subscribe/unsubscribe and refuses on demand.
class RecordingDevice : public ZR::ZRModule {
 public:
  RecordingDevice(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name)
      : ZRModule(broker, name) {
    functionName("subscribe", "RecordingDevice", "Records a subscription.", 0);
    addParam("module", "Subscriber.");
    bindMethod(&RecordingDevice::subscribe);
    functionName("unsubscribe", "RecordingDevice", "Records an unsubscription.", 0);
    addParam("module", "Subscriber.");
    bindMethod(&RecordingDevice::unsubscribe);
  }
  void subscribe(const std::string& module) { record("subscribe", module, failSubscribe); }
  void unsubscribe(const std::string& module) { record("unsubscribe", module, failUnsubscribe); }
  Calls calls() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return calls_;
  }
  void clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    calls_.clear();
  }
  std::atomic<bool> failSubscribe{false};
  std::atomic<bool> failUnsubscribe{false};

 private:
  void record(const char* method, const std::string& module, const std::atomic<bool>& fail) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      calls_.emplace_back(method, module);
    }
    if (fail) throw ZR::ZRError("ZRAudioDevice", method, "refused " + module);
  }
  mutable std::mutex mutex_;
  Calls calls_;
};

using zrtest::errorOf;
using zrtest::Line;
using zrtest::Lines;

const Line kStartLine{5, "startDetection", "ZRSoundExtractor : startDetection"};
const Line kStopLine{5, "stopDetection", "ZRSoundExtractor : stopDetection"};

class TestSound : public ZR::ZRSoundExtractor {
 public:
  using ZRSoundExtractor::ZRSoundExtractor;
  bool debug() const { return debugMode; }
  const ZR::ZRValue& auxiliary() const { return auxiliaryValue; }
};

void expectStartError(const ZR::ZRError& e, const std::string& cause) {
  EXPECT_EQ(e.getModuleName() + "|" + e.getMethodName() + "|" + e.getDescription() + "|" +
                e.getFileName() + "|" + std::to_string(e.getLineNumber()),
            "Sound|startDetection|" + cause + "||0");
}

class SoundExtractorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    broker = ZR::ZRBroker::createBroker("soundextractor-test", 2);
    ZR::ZRModule::createModule<ZR::ZRMemory>(broker, "ZRMemory");
  }
  void TearDown() override {
    broker->shutdown();
    logs.takeLines();  // checks that no record carries a source location
  }

  boost::shared_ptr<RecordingDevice> addDevice() {
    return ZR::ZRModule::createModule<RecordingDevice>(broker, "ZRAudioDevice");
  }
  template <class T = TestSound>
  boost::shared_ptr<T> addSound(const std::string& name = "Sound") {
    return ZR::ZRModule::createModule<T>(broker, name);
  }
  // What the broker says when it has no device: the cause every start error must carry.
  std::string noDeviceText() {
    return errorOf([&] { broker->getProxy("ZRAudioDevice", 0); }).what();
  }
  std::string refusalText(const std::string& method) {
    return errorOf([&] { broker->getProxy("ZRAudioDevice", 0)->call<void>(method, "Sound"); })
        .what();
  }

  // This class's records only: the platform's own threads log under other categories.
  zrtest::LogCapture logs{kCategory};
  boost::shared_ptr<ZR::ZRBroker> broker;
};

TEST_F(SoundExtractorTest, DeviceSubscriptionFollowsFirstAndLastClient) {
  auto device = addDevice();
  auto sound = addSound();
  EXPECT_TRUE(logs.takeLines().empty()) << "construction with a device logs nothing";
  auto proxy = broker->getProxy("Sound", 0);
  const Call sub{"subscribe", "Sound"}, unsub{"unsubscribe", "Sound"};

  sound->subscribe("a", 100, 0.5f);
  proxy->call<void>("subscribe", "b", 40, 0.2f);
  proxy->call<void>("subscribe", "c");
  proxy->call<void>("updatePeriod", "a", 5);
  proxy->call<void>("updatePrecision", "b", 0.9f);
  sound->unsubscribe("a");
  proxy->call<void>("unsubscribe", "b");
  EXPECT_EQ(device->calls(), Calls{sub});
  proxy->call<void>("unsubscribe", "c");
  EXPECT_EQ(device->calls(), Calls({sub, unsub}));

  EXPECT_EQ(logs.takeLines(), Lines({kStartLine, kStopLine}));

  // Repeated starts and stops are no-ops: no call, no record.
  device->clear();
  sound->startDetection();
  sound->startDetection();
  sound->stopDetection();
  sound->stopDetection();
  EXPECT_EQ(device->calls(), Calls({sub, unsub}));
  EXPECT_EQ(logs.takeLines(), Lines({kStartLine, kStopLine}));
}

TEST_F(SoundExtractorTest, MissingDeviceWarnsAtConstructionAndIsRetriedAtEachStart) {
  auto sound = addSound();
  const std::string cause = noDeviceText();
  EXPECT_EQ(logs.takeLines(),
            Lines({{3, "ZRSoundExtractor", cause + " Sound capture will not work."}}));
  EXPECT_EQ(sound->auxiliary().toString(), "[0, 0]");
  EXPECT_FALSE(sound->debug());

  expectStartError(errorOf([&] { sound->subscribe("a", 100, 0.5f); }), cause);
  expectStartError(errorOf([&] { sound->startDetection(); }), cause);
  sound->unsubscribe("a");  // idle: stopping must not touch the missing proxy

  // The device appears later: the next start finds it.
  auto device = addDevice();
  sound->subscribe("a", 100, 0.5f);
  sound->unsubscribe("a");
  EXPECT_EQ(device->calls(), Calls({{"subscribe", "Sound"}, {"unsubscribe", "Sound"}}));
}

TEST_F(SoundExtractorTest, RefusedSubscribeLeavesItIdleAndKeepsTheProxy) {
  auto sound = addSound();
  auto first = addDevice();
  first->failSubscribe = true;
  const std::string cause = refusalText("subscribe");
  first->clear();

  expectStartError(errorOf([&] { sound->subscribe("a", 100, 0.5f); }), cause);
  sound->unsubscribe("a");  // idle: no unsubscribe reaches the device
  EXPECT_EQ(first->calls(), Calls({{"subscribe", "Sound"}}));

  // Replace the device under the same name: the kept proxy still designates the first one, which
  // its broker let go, so the start fails instead of reaching the newcomer.
  first->failSubscribe = false;
  ASSERT_TRUE(broker->removeModule("ZRAudioDevice"));
  auto second = addDevice();
  expectStartError(errorOf([&] { sound->subscribe("b", 100, 0.5f); }),
                   "ZRAudioDevice::subscribe: module destroyed");
  EXPECT_EQ(first->calls(), Calls({{"subscribe", "Sound"}}));
  EXPECT_TRUE(second->calls().empty());

  // A proxy obtained at construction is kept the same way, and serves while its device lives.
  auto other = addSound("Other");
  other->startDetection();
  other->stopDetection();
  EXPECT_EQ(second->calls(), Calls({{"subscribe", "Other"}, {"unsubscribe", "Other"}}));
  ASSERT_TRUE(broker->removeModule("ZRAudioDevice"));
  auto third = addDevice();
  EXPECT_THROW(other->startDetection(), ZR::ZRError);
  EXPECT_TRUE(third->calls().empty());
}

TEST_F(SoundExtractorTest, RefusedUnsubscribeReachesTheCallerAndLeavesItIdle) {
  auto device = addDevice();
  auto sound = addSound();
  sound->subscribe("a", 100, 0.5f);
  device->failUnsubscribe = true;
  const std::string cause = refusalText("unsubscribe");
  device->clear();

  const ZR::ZRError e = errorOf([&] { sound->unsubscribe("a"); });
  EXPECT_EQ(e.getModuleName(), "ZRAudioDevice");
  EXPECT_EQ(e.getMethodName(), "unsubscribe");
  EXPECT_EQ(std::string(e.what()), cause);

  device->failUnsubscribe = false;
  sound->subscribe("b", 100, 0.5f);
  sound->unsubscribe("b");
  EXPECT_EQ(device->calls(),
            Calls({{"unsubscribe", "Sound"}, {"subscribe", "Sound"}, {"unsubscribe", "Sound"}}));
}

TEST_F(SoundExtractorTest, DestructionUnsubscribesOnlyWhenSubscribed) {
  auto device = addDevice();
  auto idle = addSound("Idle");
  auto busy = addSound("Busy");
  busy->subscribe("a", 100, 0.5f);
  logs.takeLines();

  idle.reset();
  ASSERT_TRUE(broker->removeModule("Idle"));
  EXPECT_EQ(device->calls().size(), 1u);
  EXPECT_TRUE(logs.takeLines().empty());

  busy.reset();
  ASSERT_TRUE(broker->removeModule("Busy"));
  EXPECT_EQ(device->calls(), Calls({{"subscribe", "Busy"}, {"unsubscribe", "Busy"}}));
  EXPECT_EQ(logs.takeLines(), Lines{kStopLine});
}

TEST_F(SoundExtractorTest, RemoteSurface) {
  auto sound = addSound();
  logs.takeLines();
  auto proxy = broker->getProxy("Sound", 0);
  EXPECT_EQ(proxy->call<std::string>("version"), "");

  proxy->call<void>("setDebugMode", true);
  proxy->call<void>("setDebugMode", false);
  EXPECT_FALSE(sound->debug());
  const Line deprecated{3, "setDebugMode", kDebugText};
  EXPECT_EQ(logs.takeLines(), Lines({deprecated, deprecated}));

  auto names = proxy->call<Names>("getMethodList");
  ASSERT_GE(names.size(), 4u);
  EXPECT_EQ(Names(names.end() - 4, names.end()),
            Names({"getMemoryKeyList", "setDebugMode", "processRemote", "processSoundRemote"}));

  // Each of the last three methods as "signature|class|description|return|param:doc|...".
  Names described;
  const auto descriptions = sound->getMethodDescriptions();
  for (auto d = descriptions.end() - 3; d != descriptions.end(); ++d) {
    std::string text = d->signature + "|" + d->moduleName + "|" + d->description + "|" +
                       d->returnName + d->returnDocumentation;
    for (const auto& p : d->parameters) text += "|" + p.name + ":" + p.documentation;
    described.push_back(text);
  }
  const std::string head =
      "|ZRSoundExtractor|enable/disable the printing of some debug information|";
  const std::string counts =
      "|nbOfChannels:Provides the number of channels of the buffer."
      "|nbOfSamplesByChannel:Provides the number of samples by channel.";
  const std::string buffer = "|buffer:Provides the audio buffer as an ZRValue.";
  EXPECT_EQ(described,
            Names({"setDebugMode(bool) -> void" + head +
                       "|bSetOrUnset:enable the functionnality when true.",
                   "processRemote(int, int, ZRValue, ZRValue) -> void" + head + counts +
                       "|timestamp:Provides the timestamp of the buffer." + buffer,
                   "processSoundRemote(int, int, ZRValue) -> void" + head + counts + buffer}));
}

TEST_F(SoundExtractorTest, ConcurrentClientsKeepStartsAndStopsAlternating) {
  auto device = addDevice();
  auto sound = addSound();
  std::vector<std::thread> clients;
  for (int t = 0; t < 4; ++t) {
    clients.emplace_back([&, t] {
      auto proxy = broker->getProxy("Sound", 0);
      const std::string name = "client" + std::to_string(t);
      for (int i = 0; i < 50; ++i) {
        proxy->call<void>("subscribe", name, 10 + t, 0.5f);
        proxy->call<void>("unsubscribe", name);
      }
    });
  }
  for (auto& c : clients) c.join();
  const auto calls = device->calls();
  ASSERT_FALSE(calls.empty());
  ASSERT_EQ(calls.size() % 2, 0u);
  for (std::size_t i = 0; i < calls.size(); ++i)
    ASSERT_EQ(calls[i], Call(i % 2 ? "unsubscribe" : "subscribe", "Sound")) << i;
}

// Traces every processing call; a sample pointer shows as "in place" when it points into
// `sent`, the binary value the test delivers.
class ProcessProbe : public ZR::ZRSoundExtractor {
 public:
  using ZRSoundExtractor::ZRSoundExtractor;
  void process(const int& c, const int& n, const short* b, const ZR::ZRValue& ts) override {
    trace("process", c, n, where(b) + " " + ts.toString());
    if (failProcess) throw ZR::ZRError("Probe", "process", "bad buffer");
    if (forward) ZRSoundExtractor::process(c, n, b, ts);
  }
  void processSound(int c, int n, const short* b) override {
    trace("processSound", c, n, where(b));
  }
  void processSoundRemote(const int& c, const int& n, const ZR::ZRValue& v) override {
    trace("processSoundRemote", c, n, v.isBinary() ? where(v.GetBinary()) : v.toString());
  }
  std::string where(const void* p) const {
    return p == nullptr ? "null" : p == sent.GetBinary() ? "in place" : "elsewhere";
  }
  void trace(const char* f, int c, int n, const std::string& rest) {
    calls.push_back(std::string(f) + " " + std::to_string(c) + "x" + std::to_string(n) + " " +
                    rest);
  }
  ZR::ZRValue sent;
  Names calls;
  bool forward = false, failProcess = false;
};

TEST_F(SoundExtractorTest, ProcessRemoteHandsTheSamplesInPlaceThenThePresenceFlag) {
  auto probe = addSound<ProcessProbe>("Probe");
  auto proxy = broker->getProxy("Probe", 0);
  const short samples[6] = {1, -2, 3, -4, 5, -32768};
  probe->sent = ZR::ZRValue(samples, sizeof samples);
  ZR::ZRValue ts;
  ts.arraySetSize(2);
  ts[0] = 12;
  ts[1] = 345;

  proxy->call<void>("processRemote", 2, 3, ts, probe->sent);
  proxy->call<void>("processRemote", 4, 5, ts, "no samples");
  probe->forward = true;
  proxy->call<void>("processRemote", 2, 3, ts, probe->sent);
  // Called on its own, processSoundRemote gets the caller's buffer, not a flag.
  proxy->call<void>("processSoundRemote", 1, 6, probe->sent);
  probe->failProcess = true;
  const ZR::ZRError e = errorOf([&] { proxy->call<void>("processRemote", 2, 3, ts, probe->sent); });
  EXPECT_NE(std::string(e.what()).find("bad buffer"), std::string::npos) << e.what();

  EXPECT_EQ(probe->calls, Names({"process 2x3 in place [12, 345]", "processSoundRemote 2x3 true",
                                 "process 4x5 null [12, 345]", "processSoundRemote 4x5 false",
                                 "process 2x3 in place [12, 345]", "processSound 2x3 in place",
                                 "processSoundRemote 2x3 true", "processSoundRemote 1x6 in place",
                                 "process 2x3 in place [12, 345]"}));
}

class EventfulSound : public ZR::ZRSoundExtractor {
 public:
  EventfulSound(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name)
      : ZRSoundExtractor(broker, name) {
    declareEvent("Eventful/second");
    declareMemoryKey("Eventful/level");
    declareEvent("Eventful/first");
  }
};

TEST_F(SoundExtractorTest, OutputNamesAreTheEventsTheMemoryKnows) {
  auto sound = addSound<EventfulSound>("Eventful");
  auto memory = broker->getProxy("ZRMemory", 0);
  const auto events = memory->call<Names>("getExtractorEvent", std::string("Eventful"));
  EXPECT_EQ(events, Names({"Eventful/second", "Eventful/first"}));
  EXPECT_EQ(sound->getOutputNames(), events) << "memory keys are not outputs of a sound extractor";
  EXPECT_EQ(broker->getProxy("Eventful", 0)->call<Names>("getOutputNames"), events);
}

}  // namespace
