// Time the device can be trusted on: positions that count lost samples, gaps announced once and
// exactly, latency per subscriber, and the drift of a live source.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <mutex>

#include <zraudiodevice/zraudiodevice.h>
#include <zrcommon/zrservicenames.h>
#include <zrmemory/zrmemory.h>
#include <zrproxies/zrmemoryproxy.h>
#include <zrtest.h>

#include "sink.h"

namespace {

using Options = ZR::ZRAudioDeviceOptions;
using zrtest::errorOf;
using zrtest::Sink;

struct Gap {
  std::int64_t start = 0;
  int samples = 0;
  std::string cause, reason;
  bool operator==(const Gap& o) const {
    return start == o.start && samples == o.samples && cause == o.cause && reason == o.reason;
  }
};

// Hears "ZRAudioDevice/Gap" through the memory service, as any client would.
class GapWatcher : public ZR::ZRModule {
 public:
  GapWatcher(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name)
      : ZRModule(broker, name) {
    functionName("onEvent", "GapWatcher", "Receives an event.", 0);
    for (const char* p : {"event", "value", "subscriber"}) addParam(p, "An argument.");
    bindMethod(&GapWatcher::onEvent);
  }
  void onEvent(const std::string&, const ZR::ZRValue& value, const std::string&) {
    Gap g;
    for (const ZR::ZRValue& f : value.arrayElements()) {
      const std::string& key = f[0].toStringRef();
      if (key == "start") {
        EXPECT_TRUE(ZR::zrReadSample(f[1], g.start));
      }
      if (key == "samples") g.samples = f[1].toInt();
      if (key == "cause") g.cause = f[1].toStringRef();
      if (key == "reason") g.reason = f[1].toStringRef();
    }
    {
      std::lock_guard<std::mutex> lock(mutex);
      gaps.push_back(g);
    }
    heard.notify();
  }
  std::vector<Gap> all() {
    std::lock_guard<std::mutex> lock(mutex);
    return gaps;
  }
  std::mutex mutex;
  std::vector<Gap> gaps;
  zrtest::Signal heard;
};

// Raises an event from every buffer, as a sound extractor raises its results.
class Raiser : public ZR::ZRModule {
 public:
  Raiser(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name)
      : ZRModule(broker, name), memory_(broker) {
    functionName("processRemote", "Raiser", "Raises an event per buffer.", 0);
    for (const char* p : {"nbOfChannels", "nbOfSamplesByChannel", "timestamp", "buffer"})
      addParam(p, "");
    bindMethod(&Raiser::processRemote);
  }
  void processRemote(const int&, const int& samples, const ZR::ZRValue&, const ZR::ZRValue&) {
    memory_.raiseEvent("Raiser/Done", samples);
  }

 private:
  ZR::ZRMemoryProxy memory_;
};

class TimingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    broker_ = ZR::ZRBroker::createBroker("timing", 4);
    memory_ = ZR::ZRModule::createModule<ZR::ZRMemory>(broker_, "ZRMemory");
    watcher_ = ZR::ZRModule::createModule<GapWatcher>(broker_, "Watcher");
  }
  void TearDown() override { broker_->shutdown(); }

  boost::shared_ptr<ZR::ZRAudioDevice> device(const Options& o) {
    auto d = ZR::ZRModule::createModule<ZR::ZRAudioDevice>(broker_, "ZRAudioDevice", o);
    // Declared by the device, without a producer: hearing it subscribes nobody to the device.
    ZR::ZRMemoryProxy(broker_).subscribeToEvent(ZR::kGapEvent, "Watcher", "onEvent");
    return d;
  }
  boost::shared_ptr<Sink> sink(const std::string& name) {
    return ZR::ZRModule::createModule<Sink>(broker_, name);
  }

  boost::shared_ptr<ZR::ZRBroker> broker_;
  boost::shared_ptr<ZR::ZRMemory> memory_;
  boost::shared_ptr<GapWatcher> watcher_;
};

// Every buffer sits exactly where its timestamp says: seconds and microseconds from its sample
// index, sequence numbers without holes, capture times that never go back.
void expectConsistent(const std::vector<zrtest::Seen>& seen, int rate) {
  for (std::size_t i = 0; i < seen.size(); ++i) {
    const ZR::ZRAudioTimestamp& t = seen[i].ts;
    EXPECT_EQ(t.sequence, static_cast<std::int64_t>(i));
    EXPECT_EQ(seen[i].at(), t.sample * 1000000 / rate) << i;
    EXPECT_GT(t.realtimeNs, 1600000000LL * 1000000000LL);  // after 2020: a real-time clock
    if (i > 0) {
      EXPECT_GT(t.sample, seen[i - 1].ts.sample);
      EXPECT_GE(t.monotonicNs, seen[i - 1].ts.monotonicNs);
    }
  }
}

TEST_F(TimingTest, InjectedGapsMovePositionsAndAreAnnouncedOnceExactlyFromAFileAndALiveSource) {
  char dir[] = "/tmp/zraudiotiming-XXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  const std::string file = std::string(dir) + "/in.wav";
  const std::vector<std::int16_t> samples = zrtest::pattern(16000);
  zrtest::writeSound(file, 16000, 1, samples);

  for (const bool live : {false, true}) {
    SCOPED_TRACE(live ? "live tone" : "file");
    Options o = live ? Options::fromInput("tone:440") : Options::fromInput(file);
    if (live) {
      o.sampleRate = 16000;
      o.realtime = true;
      o.durationSeconds = 1.0;
    }
    o.samplesPerBuffer = 160;
    o.held = true;
    // The second gap starts inside a buffer; the third runs past the end of the stream.
    o.injectedGaps = {{8000, 160}, {1000, 500}, {15900, 1000}};
    auto dev = device(o);
    auto s = sink("S");
    dev->subscribe("S");
    dev->release();
    ASSERT_TRUE(dev->waitForEndOfStream(20000));
    ASSERT_TRUE(watcher_->heard.waitFor(live ? 6 : 3));

    const std::vector<Gap> gaps = watcher_->all();
    const std::vector<Gap> expected = {{1000, 500, "capture", "injected"},
                                       {8000, 160, "capture", "injected"},
                                       {15900, 100, "capture", "injected"}};
    ASSERT_EQ(gaps.size(), live ? 6u : 3u);
    EXPECT_EQ(std::vector<Gap>(gaps.end() - 3, gaps.end()), expected);
    EXPECT_EQ(dev->lostSamples(), 760);
    EXPECT_EQ(dev->getLostSampleCount(), 760);

    std::lock_guard<std::mutex> lock(s->mutex);
    expectConsistent(s->seen, 16000);
    // What arrived is the input without the gaps, each sample at its own position.
    std::int64_t next = 0, total = 0;
    std::vector<std::int64_t> jumps;
    for (const zrtest::Seen& b : s->seen) {
      if (b.ts.sample != next) jumps.push_back(b.ts.sample - next);
      for (int i = 0; !live && i < b.samples; ++i)
        ASSERT_EQ(s->data[total + i], samples[b.ts.sample + i]) << b.ts.sample + i;
      next = b.ts.sample + b.samples;
      total += b.samples;
    }
    EXPECT_EQ(jumps, (std::vector<std::int64_t>{500, 160}));
    EXPECT_EQ(next, 15900);
    EXPECT_EQ(total, 15900 - 660);
    EXPECT_EQ(s->seen[6].ts.sample + s->seen[6].samples, 1000);  // cut short at the gap
    dev->unsubscribe("S");
    broker_->removeModule("S");
    broker_->removeModule("ZRAudioDevice");
  }
  std::filesystem::remove_all(dir);
}

TEST_F(TimingTest, AStalledSubscriberOfALiveSourceHasEachDroppedBufferAnnouncedAndMeasured) {
  Options o = Options::fromInput("tone:440");
  o.sampleRate = 16000;
  o.realtime = true;
  o.durationSeconds = 1.0;
  o.samplesPerBuffer = 160;
  o.queueCapacity = 2;
  o.held = true;
  auto dev = device(o);
  auto fast = sink("Fast");
  auto stalled = sink("Stalled");
  stalled->shut = true;  // its first delivery waits until it is opened
  ZR::ZRModule::createModule<Raiser>(broker_, "Raiser");
  dev->subscribe("Raiser");
  dev->subscribe("Fast");
  dev->subscribe("Stalled");
  dev->release();
  ASSERT_TRUE(watcher_->heard.waitFor(5));  // five of its buffers dropped meanwhile
  stalled->open();
  ASSERT_TRUE(dev->waitForEndOfStream(20000));

  // Whoever else fell behind on a loaded machine has its own gaps, under its own name.
  const auto dropped = dev->getDeliveryStats("Stalled").dropped;
  std::int64_t allDropped = 0;
  for (const char* m : {"Fast", "Stalled", "Raiser"})
    allDropped += dev->getDeliveryStats(m).dropped;
  ASSERT_TRUE(watcher_->heard.waitFor(static_cast<int>(allDropped)));
  std::vector<Gap> gaps = watcher_->all();
  ASSERT_EQ(static_cast<std::int64_t>(gaps.size()), allDropped);
  gaps.erase(
      std::remove_if(gaps.begin(), gaps.end(), [](const Gap& g) { return g.cause != "Stalled"; }),
      gaps.end());
  ASSERT_EQ(static_cast<std::int64_t>(gaps.size()), dropped);
  std::map<std::int64_t, int> announced;  // start -> samples
  for (const Gap& g : gaps) {
    EXPECT_EQ(g.reason, "queue full");
    EXPECT_TRUE(announced.emplace(g.start, g.samples).second) << "announced twice: " << g.start;
  }
  // What it received and what was announced lost tile the stream: every buffer once.
  std::lock_guard<std::mutex> lock(stalled->mutex);
  std::int64_t next = 0;
  std::size_t i = 0;
  while (next < 16000) {
    if (i < stalled->seen.size() && stalled->seen[i].ts.sample == next) {
      next += stalled->seen[i++].samples;
    } else {
      auto g = announced.find(next);
      ASSERT_NE(g, announced.end()) << "samples from " << next << " neither came nor were lost";
      next += g->second;
      announced.erase(g);
    }
  }
  EXPECT_EQ(i, stalled->seen.size());
  EXPECT_TRUE(announced.empty());
  // The sequence tells the subscriber itself how many buffers it missed.
  EXPECT_EQ(stalled->seen.back().ts.sequence + 1,
            static_cast<std::int64_t>(stalled->seen.size()) + dropped);

  ZR::ZRAudioLatency l;
  ASSERT_TRUE(dev->getLatencyFigures("Fast", l));
  EXPECT_EQ(l.count, dev->getDeliveryStats("Fast").delivered);
  EXPECT_LE(0.0, l.p50Ms);
  EXPECT_LE(l.p50Ms, l.p99Ms);
  EXPECT_LE(l.p99Ms, l.maxMs);
  ASSERT_TRUE(dev->getLatencyFigures("Stalled", l));
  EXPECT_EQ(l.count, static_cast<std::int64_t>(stalled->seen.size()));
  const ZR::ZRValue remote = broker_->getProxy("ZRAudioDevice", 0)
                                 ->call<ZR::ZRValue>("getLatency", std::string("Stalled"));
  ASSERT_EQ(remote.getSize(), 4);
  EXPECT_FLOAT_EQ(remote[2].toFloat(), static_cast<float>(l.maxMs));
  // A result is raised after its delivery started: each is at least as late as its delivery.
  ZR::ZRAudioLatency delivered;
  ASSERT_TRUE(dev->getLatencyFigures("Raiser", delivered));
  const ZR::ZRValue raised = memory_->getEventLatency("Raiser/Done");
  ASSERT_EQ(raised.getSize(), 4);
  EXPECT_EQ(raised[3].toInt(), delivered.count);
  EXPECT_GE(raised[0].toFloat(), static_cast<float>(delivered.p50Ms) * 0.999f);
  EXPECT_GE(raised[2].toFloat(), static_cast<float>(delivered.maxMs) * 0.999f);
  EXPECT_EQ(memory_->getEventLatency(ZR::kGapEvent).getSize(), 0);  // raised from no delivery
  EXPECT_THAT(errorOf([&] { dev->getLatency("Nobody"); }).getDescription(),
              ::testing::HasSubstr("never subscribed"));
}

TEST_F(TimingTest, ASkewedLiveSourceShowsItsDriftAndBadOptionsAreRefused) {
  Options o = Options::fromInput("noise");
  o.sampleRate = 16000;
  o.realtime = true;
  o.durationSeconds = 2.0;
  o.samplesPerBuffer = 160;
  o.clockSkewPpm = 50000;  // 5 % fast: far beyond what a loaded machine's jitter can fake
  auto dev = device(o);
  EXPECT_EQ(dev->getDrift().getSize(), 0);  // nothing yet
  auto s = sink("S");
  dev->subscribe("S");
  ASSERT_TRUE(dev->waitForEndOfStream(20000));
  const ZR::ZRAudioDrift d = dev->getDriftEstimate();
  ASSERT_TRUE(d.known);
  EXPECT_NEAR(d.ppm, 50000, 15000);
  EXPECT_GT(d.uncertaintyPpm, 0);
  EXPECT_EQ(d.points, 200);
  EXPECT_EQ(dev->getDrift().getSize(), 3);
  dev->unsubscribe("S");

  auto refused = [&](Options bad) {
    return errorOf([&] { ZR::ZRAudioDevice(broker_, "Bad", bad); }).getDescription();
  };
  Options fileSkew = Options::fromInput("tone");
  fileSkew.clockSkewPpm = 10;  // not paced
  EXPECT_THAT(refused(fileSkew), ::testing::HasSubstr("paces at real time"));
  Options mic = Options::fromInput("mic");
  mic.realtime = true;
  mic.clockSkewPpm = 10;
  EXPECT_THAT(refused(mic), ::testing::HasSubstr("not a microphone"));
  Options gap = Options::fromInput("tone");
  gap.injectedGaps = {{100, 0}};
  EXPECT_THAT(refused(gap), ::testing::HasSubstr("injected gap"));
}

}  // namespace
