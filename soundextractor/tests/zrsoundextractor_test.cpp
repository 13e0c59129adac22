// ZR::ZRSoundExtractor: the device subscription that follows its first and last client, a
// missing or refusing device, its remote surface with its exact texts, and buffer intake.

#include <zrsoundextractor/zrsoundextractor.h>

#include <zrproducer.h>

#include "extractor_fixture.h"

namespace {

using namespace extractortest;
using Call = std::pair<std::string, std::string>;  // method, module name
using Calls = std::vector<Call>;

const Line kStartLine{5, "startDetection", "ZRSoundExtractor : startDetection"};
const Line kStopLine{5, "stopDetection", "ZRSoundExtractor : stopDetection"};
const Call kSubscribe{"subscribe", "Sound"}, kUnsubscribe{"unsubscribe", "Sound"};

// Traces each processing call; samples are "in place" when they point into `sent`.
class Probe : public ZR::ZRSoundExtractor {
 public:
  using ZRSoundExtractor::ZRSoundExtractor;
  bool debug() const { return debugMode; }
  const ZR::ZRValue& auxiliary() const { return auxiliaryValue; }
  void process(const int& c, const int& n, const short* b, const ZR::ZRValue& ts) override {
    trace("process", c, n, b, " " + ts.toString());
    if (failProcess) throw ZR::ZRError("Probe", "process", "bad buffer");
    if (forward) ZRSoundExtractor::process(c, n, b, ts);
  }
  void processSound(int c, int n, const short* b) override { trace("processSound", c, n, b); }
  void processSoundRemote(const int& c, const int& n, const ZR::ZRValue& v) override {
    trace("processSoundRemote", c, n, v.GetBinary(), v.isBinary() ? "" : " " + v.toString());
  }
  ZR::ZRValue sent;
  Names calls;
  bool forward = false, failProcess = false;

 private:
  void trace(const std::string& f, int c, int n, const void* p, const std::string& rest = "") {
    const char* where = p == nullptr ? " null" : p == sent.GetBinary() ? " in place" : " elsewhere";
    calls.push_back(f + " " + std::to_string(c) + "x" + std::to_string(n) + where + rest);
  }
};

class SoundExtractorTest : public BrokerTest {
 protected:
  SoundExtractorTest() : BrokerTest("audio.zrsoundextractor") {}
  boost::shared_ptr<zrtest::Producer> addDevice() { return add<zrtest::Producer>("ZRAudioDevice"); }
  boost::shared_ptr<Probe> addSound(const std::string& name = "Sound") { return add<Probe>(name); }
  template <class F>
  void expectStartError(F&& f, const std::string& cause) {
    EXPECT_EQ(errorFields(f), "Sound|startDetection|" + cause + "||0");
  }
  // What the broker or the device says: the cause a start error must carry.
  std::string deviceError(const char* method = nullptr) {
    return errorOf([&] {
             auto device = broker->getProxy("ZRAudioDevice", 0);
             if (method) device->call<void>(method, "Sound");
           })
        .what();
  }
};

TEST_F(SoundExtractorTest, DeviceSubscriptionFollowsTheFirstAndLastClientOnly) {
  auto device = addDevice();
  auto sound = addSound();
  EXPECT_TRUE(log.takeLines().empty()) << "construction with a device logs nothing";
  auto proxy = broker->getProxy("Sound", 0);
  sound->subscribe("a", 100, 0.5f);
  proxy->call<void>("subscribe", "b", 40, 0.2f);
  proxy->call<void>("subscribe", "c");
  proxy->call<void>("updatePeriod", "a", 5);
  proxy->call<void>("updatePrecision", "b", 0.9f);
  sound->unsubscribe("a");
  proxy->call<void>("unsubscribe", "b");
  EXPECT_EQ(device->take(), Calls{kSubscribe});
  proxy->call<void>("unsubscribe", "c");
  EXPECT_EQ(device->take(), Calls{kUnsubscribe});
  EXPECT_EQ(log.takeLines(), Lines({kStartLine, kStopLine}));

  // Repeated starts and stops are no-ops: no call, no record.
  sound->startDetection();
  sound->startDetection();
  sound->stopDetection();
  sound->stopDetection();
  sound->subscribe("z", 100, 0.5f);
  sound.reset();  // subscribed: destruction unsubscribes
  ASSERT_TRUE(broker->removeModule("Sound"));
  EXPECT_EQ(device->take(), Calls({kSubscribe, kUnsubscribe, kSubscribe, kUnsubscribe}));
  EXPECT_EQ(log.takeLines(), Lines({kStartLine, kStopLine, kStartLine, kStopLine}));
}

TEST_F(SoundExtractorTest, AMissingOrRefusingDeviceLeavesItIdleAndAFoundProxyIsKept) {
  auto sound = addSound();
  const std::string missing = deviceError();
  EXPECT_EQ(log.takeLines(),
            Lines({{3, "ZRSoundExtractor", missing + " Sound capture will not work."}}));
  EXPECT_EQ(sound->auxiliary().toString(), "[0, 0]");
  EXPECT_FALSE(sound->debug());
  expectStartError([&] { sound->subscribe("a", 100, 0.5f); }, missing);
  expectStartError([&] { sound->startDetection(); }, missing);
  sound->unsubscribe("a");  // idle: stopping must not touch the missing proxy
  // Looked for again at each start: found now, but refusing.
  auto first = addDevice();
  first->failSubscribe = true;
  const std::string refused = deviceError("subscribe");
  first->take();
  expectStartError([&] { sound->subscribe("a", 100, 0.5f); }, refused);
  sound->unsubscribe("a");  // idle: no unsubscribe reaches the device
  first->failSubscribe = false;
  sound->subscribe("a", 100, 0.5f);
  first->failUnsubscribe = true;
  const std::string cause = deviceError("unsubscribe");
  EXPECT_EQ(first->take(), Calls{kSubscribe});  // the refusals came from the device itself
  const ZR::ZRError e = errorOf([&] { sound->unsubscribe("a"); });
  EXPECT_EQ(e.getModuleName() + "|" + e.getMethodName() + "|" + e.what(),
            "ZRAudioDevice|unsubscribe|" + cause);
  log.takeLines();

  // Idle although the unsubscribe failed, so the next client starts again, through the kept
  // proxy: it designates the first device, which its broker let go, and does not reach a
  // newcomer under the same name.
  ASSERT_TRUE(broker->removeModule("ZRAudioDevice"));
  auto second = addDevice();
  expectStartError([&] { sound->subscribe("b", 100, 0.5f); },
                   "ZRAudioDevice::subscribe: module destroyed");
  sound.reset();  // idle: destruction calls nobody and logs nothing
  ASSERT_TRUE(broker->removeModule("Sound"));
  EXPECT_TRUE(first->take().empty() && second->take().empty());
  EXPECT_EQ(log.takeLines(), Lines{kStartLine});
}

TEST_F(SoundExtractorTest, RemoteSurfaceWordForWord) {
  auto sound = addSound();
  log.takeLines();
  auto proxy = broker->getProxy("Sound", 0);
  EXPECT_EQ(proxy->call<std::string>("version"), "");
  proxy->call<void>("setDebugMode", true);
  proxy->call<void>("setDebugMode", false);
  EXPECT_FALSE(sound->debug());
  const Line deprecated{3, "setDebugMode",
                        "The call to setDebugMode() is now deprectated. This functionnality is "
                        "now handled by vo/log"};
  EXPECT_EQ(log.takeLines(), Lines({deprecated, deprecated}));
  // After the extractor's methods, three more, word for word, all described as the first.
  const auto d = sound->getMethodDescriptions();
  ASSERT_GE(d.size(), 4u);
  EXPECT_EQ(d.end()[-4].methodName, "getMemoryKeyList");
  const std::string head = " | enable/disable the printing of some debug information |";
  const std::string counts =
      " nbOfChannels: Provides the number of channels of the buffer.;"
      " nbOfSamplesByChannel: Provides the number of samples by channel.;";
  const std::string buffer = " buffer: Provides the audio buffer as an ZRValue.; | [][]";
  EXPECT_EQ(Names({describe(d.end()[-3]), describe(d.end()[-2]), describe(d.end()[-1])}),
            Names({"setDebugMode(bool) -> void" + head +
                       " bSetOrUnset: enable the functionnality when true.; | [][]",
                   "processRemote(int, int, ZRValue, ZRValue) -> void" + head + counts +
                       " timestamp: Provides the timestamp of the buffer.;" + buffer,
                   "processSoundRemote(int, int, ZRValue) -> void" + head + counts + buffer}));
  for (auto i = d.end() - 3; i != d.end(); ++i) EXPECT_EQ(i->moduleName, "ZRSoundExtractor");

  // The outputs are the events the memory service knows, not the declared keys.
  sound->declareEvent("Sound/second");
  sound->declareMemoryKey("Sound/level");
  sound->declareEvent("Sound/first");
  const auto events = broker->getProxy("ZRMemory", 0)->call<Names>("getExtractorEvent", "Sound");
  EXPECT_EQ(events, Names({"Sound/second", "Sound/first"}));
  EXPECT_EQ(proxy->call<Names>("getOutputNames"), events);
}

TEST_F(SoundExtractorTest, ProcessRemoteHandsTheSamplesInPlaceThenThePresenceFlag) {
  auto probe = addSound("Probe");
  auto proxy = broker->getProxy("Probe", 0);
  const short samples[6] = {1, -2, 3, -4, 5, -32768};
  probe->sent = ZR::ZRValue(samples, sizeof samples);
  const ZR::ZRValue ts(12);  // passed on as it is
  proxy->call<void>("processRemote", 2, 3, ts, probe->sent);
  proxy->call<void>("processRemote", 4, 5, ts, "no samples");
  probe->forward = true;
  proxy->call<void>("processRemote", 2, 3, ts, probe->sent);
  // Called on its own, processSoundRemote gets the caller's buffer, not a flag.
  proxy->call<void>("processSoundRemote", 1, 6, probe->sent);
  probe->failProcess = true;
  const ZR::ZRError e = errorOf([&] { proxy->call<void>("processRemote", 2, 3, ts, probe->sent); });
  EXPECT_NE(std::string(e.what()).find("bad buffer"), std::string::npos) << e.what();
  EXPECT_EQ(probe->calls, Names({"process 2x3 in place 12", "processSoundRemote 2x3 null true",
                                 "process 4x5 null 12", "processSoundRemote 4x5 null false",
                                 "process 2x3 in place 12", "processSound 2x3 in place",
                                 "processSoundRemote 2x3 null true",
                                 "processSoundRemote 1x6 in place", "process 2x3 in place 12"}));
}

}  // namespace
