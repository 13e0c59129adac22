// Subscribers on another host: two brokers in a network, each with its own transport.
#include <gtest/gtest.h>

#include <sndfile.h>
#include <unistd.h>

#include <filesystem>
#include <mutex>

#include <zraudiodevice/zraudiodevice.h>
#include <zrtest.h>

#include "sink.h"

namespace {

using Options = ZR::ZRAudioDeviceOptions;

using zrtest::Sink;

class RemoteSubscribersTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ZR::ZRBrokerOptions o;
    o.directory = "tcp://127.0.0.1:0";
    o.serveDirectory = true;
    o.heartbeat = zrtest::kHeartbeat;
    device_ = ZR::ZRBroker::createBroker("deviceHost", o);
    o.serveDirectory = false;
    o.directory = device_->endpoint();
    o.threads = 4;
    client_ = ZR::ZRBroker::createBroker("clientHost", o);
  }
  void TearDown() override {
    for (auto& s : sinks_) s->open();  // a failed test must not leave a call blocked
    client_->shutdown();
    device_->shutdown();
  }
  boost::shared_ptr<Sink> sink(const boost::shared_ptr<ZR::ZRBroker>& broker,
                               const std::string& name) {
    auto s = ZR::ZRModule::createModule<Sink>(broker, name);
    device_->session()->waitForService(name).wait();
    sinks_.push_back(s);
    return s;
  }
  boost::shared_ptr<ZR::ZRBroker> device_, client_;
  std::vector<boost::shared_ptr<Sink>> sinks_;
};

TEST_F(RemoteSubscribersTest, AFileReachesAnotherHostOnceLosslesslyAndInOrder) {
  char dir[] = "/tmp/zraudioremote-XXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  const std::string file = std::string(dir) + "/in.wav";
  const std::vector<std::int16_t> samples = zrtest::pattern(16000 * 3);
  zrtest::writeSound(file, 16000, 1, samples);

  Options o = Options::fromInput(file);
  o.samplesPerBuffer = 160;  // 300 buffers: many more than a stream's credits
  o.queueCapacity = 4;
  o.held = true;
  auto dev = ZR::ZRModule::createModule<ZR::ZRAudioDevice>(device_, "ZRAudioDevice", o);
  auto local = sink(device_, "Local");
  auto a = sink(client_, "RemoteA");
  auto b = sink(client_, "RemoteB");
  for (const char* m : {"Local", "RemoteA", "RemoteB"}) dev->subscribe(m);
  EXPECT_EQ(dev->getSubscribers(), (std::vector<std::string>{"Local", "RemoteA", "RemoteB"}));
  dev->release();
  ASSERT_TRUE(dev->waitForEndOfStream(20000));

  // The end of the stream comes once the other host has processed every buffer.
  for (Sink* s : {local.get(), a.get(), b.get()}) {
    std::lock_guard<std::mutex> lock(s->mutex);
    EXPECT_EQ(s->data, samples);
    ASSERT_EQ(s->seen.size(), 300u);
    for (std::size_t i = 0; i < s->seen.size(); ++i) {
      // The whole timestamp crosses the wire as the device wrote it.
      EXPECT_EQ(s->seen[i].at(), i * 10000LL);
      EXPECT_EQ(s->seen[i].ts.sample, static_cast<std::int64_t>(i) * 160);
      EXPECT_EQ(s->seen[i].ts.sequence, static_cast<std::int64_t>(i));
      EXPECT_EQ(s->seen[i].ts.monotonicNs, local->seen[i].ts.monotonicNs);
      EXPECT_EQ(s->seen[i].ts.realtimeNs, local->seen[i].ts.realtimeNs);
    }
  }
  // Sent once to the host: both of its modules read the very same received bytes.
  for (std::size_t i = 0; i < 300; ++i) EXPECT_EQ(a->seen[i].data, b->seen[i].data) << i;
  EXPECT_NE(a->seen[0].data, local->seen[0].data);
  EXPECT_EQ(dev->getDeliveredBufferCount("RemoteA"), 300);

  dev->unsubscribe("RemoteA");
  EXPECT_EQ(dev->getSubscribers(), (std::vector<std::string>{"Local", "RemoteB"}));
  dev->unsubscribe("RemoteB");
  dev->unsubscribe("Local");
  EXPECT_TRUE(dev->getSubscribers().empty());
  EXPECT_TRUE(dev->waitUntilStopped(20000));
  std::filesystem::remove_all(dir);
}

TEST_F(RemoteSubscribersTest, ALiveSourceNeverWaitsForASlowHost) {
  Options o;
  o.source = Options::Source::Host;
  o.realtime = true;  // live: drop the oldest
  o.queueCapacity = 2;
  auto dev = ZR::ZRModule::createModule<ZR::ZRAudioDevice>(device_, "ZRAudioDevice", o);
  auto local = sink(device_, "Local");
  auto slow = sink(client_, "Slow");
  slow->shut = true;
  dev->subscribe("Local");
  dev->subscribe("Slow");
  std::vector<std::int16_t> samples(160);
  for (int n = 0; n < 100; ++n) {
    samples[0] = static_cast<std::int16_t>(n);
    dev->deliver(samples.data(), 160);
    ASSERT_TRUE(local->received.waitFor(n + 1));  // the local one keeps up; the slow host can't
  }
  EXPECT_GT(dev->getDroppedBufferCount("Slow"), 0);
  EXPECT_EQ(dev->getDroppedBufferCount("Local"), 0);
  slow->open();
  dev->endStream();
  ASSERT_TRUE(dev->waitForEndOfStream(20000));
  std::lock_guard<std::mutex> lock(slow->mutex);
  EXPECT_LT(slow->seen.size(), 100u);
  // Across the wire too, a buffer says where it sits: its sequence tells what was dropped.
  for (std::size_t i = 1; i < slow->seen.size(); ++i) {
    EXPECT_GT(slow->seen[i].ts.sequence, slow->seen[i - 1].ts.sequence);
    EXPECT_EQ(slow->seen[i].ts.sample, slow->seen[i].ts.sequence * 160);
  }
  EXPECT_EQ(slow->seen.back().ts.sequence + 1,
            static_cast<std::int64_t>(slow->seen.size()) + dev->getDroppedBufferCount("Slow"));
  for (std::size_t i = 1; i < slow->seen.size(); ++i)
    EXPECT_LT(slow->seen[i - 1].at(), slow->seen[i].at());
  EXPECT_EQ(slow->seen.back().at(), 99 * 10000LL);  // the newest is never the one dropped
  // Its latency is measured on its host, to the start of each message there: the slow host
  // held its first ones back for as long as the whole stream lasted.
  ZR::ZRAudioLatency latency;
  ASSERT_TRUE(dev->getLatencyFigures("Slow", latency));
  EXPECT_GT(latency.count, 0);
  EXPECT_LE(latency.count, static_cast<std::int64_t>(slow->seen.size()));
  ZR::ZRAudioLatency quick;
  ASSERT_TRUE(dev->getLatencyFigures("Local", quick));
  EXPECT_GT(latency.maxMs, quick.p50Ms);
}

TEST_F(RemoteSubscribersTest, AHostThatLeavesMidStreamTakesItsSubscribersAlong) {
  Options o = Options::fromInput("tone");
  o.queueCapacity = 2;
  auto dev = ZR::ZRModule::createModule<ZR::ZRAudioDevice>(device_, "ZRAudioDevice", o);
  auto stuck = sink(client_, "Stuck");
  stuck->shut = true;
  dev->subscribe("Stuck");
  ASSERT_TRUE(stuck->received.waitFor(1));
  ASSERT_TRUE(dev->waitUntilHeldBack(20000));  // credits spent, the source waits for them
  stuck->open();
  client_->shutdown();  // says bye: the stream's sends fail instead of waiting for credits
  EXPECT_TRUE(dev->waitUntilStopped(20000));
  // The source stops once nobody is left to deliver to; the departed subscriber is reaped apart.
  EXPECT_TRUE(zrtest::eventually([&] { return dev->getSubscribers().empty(); }));
}

}  // namespace
