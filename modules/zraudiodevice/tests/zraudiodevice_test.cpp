#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sndfile.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <mutex>
#include <thread>

#include <vo/log.h>
#include <zraudiodevice/zraudiodevice.h>
#include <zrcommon/zrproxy.h>
#include <zrtest.h>

using ::testing::AllOf;
using ::testing::HasSubstr;
using zrtest::errorOf;

namespace {

using Options = ZR::ZRAudioDeviceOptions;
using Source = Options::Source;

struct Seen {
  int channels, samples, seconds, micros;
  const void* data;
  long long at() const { return seconds * 1000000LL + micros; }
};

// Copies what it is given, optionally slowly or by failing, like a sound extractor's intake.
class Sink : public ZR::ZRModule {
 public:
  Sink(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name, int delayMs = 0,
       bool fail = false)
      : ZRModule(broker, name), delayMs_(delayMs), fail_(fail) {
    functionName("processRemote", "Sink", "Takes a buffer.", 0);
    addParam("nbOfChannels", "");
    addParam("nbOfSamplesByChannel", "");
    addParam("timestamp", "");
    addParam("buffer", "");
    bindMethod(&Sink::processRemote);
  }
  void processRemote(const int& channels, const int& samples, const ZR::ZRValue& timestamp,
                     const ZR::ZRValue& buffer) {
    const auto* p = static_cast<const std::int16_t*>(buffer.GetBinary());
    std::function<void()> hook;
    {
      std::lock_guard<std::mutex> lock(mutex);
      seen.push_back({channels, samples, timestamp[0].toInt(), timestamp[1].toInt(), p});
      data.insert(data.end(), p, p + channels * samples);
      hook = onBuffer;
    }
    if (hook) hook();
    if (delayMs_) std::this_thread::sleep_for(std::chrono::milliseconds(delayMs_));
    if (fail_) throw ZR::ZRError("Sink", "processRemote", "deliberate failure");
  }
  std::mutex mutex;
  std::vector<Seen> seen;
  std::vector<std::int16_t> data;
  std::function<void()> onBuffer;

 private:
  int delayMs_;
  bool fail_;
};

// Stands in for the memory service: records the events raised.
class FakeMemory : public ZR::ZRModule {
 public:
  FakeMemory(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name)
      : ZRModule(broker, name) {
    functionName("raiseEvent", "FakeMemory", "Records an event.", 0);
    addParam("event", "");
    addParam("value", "");
    bindMethod(&FakeMemory::raiseEvent);
  }
  void raiseEvent(const std::string& event, const ZR::ZRValue& value) {
    std::lock_guard<std::mutex> lock(mutex);
    events.emplace_back(event, value);
  }
  std::mutex mutex;
  std::vector<std::pair<std::string, ZR::ZRValue>> events;
};

class AudioDeviceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/zraudiodevice-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
    broker_ = ZR::ZRBroker::createBroker("test", 4);
  }
  void TearDown() override {
    broker_->shutdown();
    std::filesystem::remove_all(dir_);
  }
  std::string path(const std::string& name) const { return dir_ + "/" + name; }

  static void writeSound(const std::string& file, int rate, int channels,
                         const std::vector<std::int16_t>& samples,
                         int format = SF_FORMAT_WAV | SF_FORMAT_PCM_16) {
    SF_INFO info{};
    info.samplerate = rate;
    info.channels = channels;
    info.format = format;
    SNDFILE* f = sf_open(file.c_str(), SFM_WRITE, &info);
    ASSERT_NE(f, nullptr) << sf_strerror(nullptr);
    sf_writef_short(f, samples.data(), static_cast<sf_count_t>(samples.size() / channels));
    sf_close(f);
  }
  static std::vector<std::int16_t> readSound(const std::string& file, SF_INFO& info) {
    SNDFILE* f = sf_open(file.c_str(), SFM_READ, &info);
    std::vector<std::int16_t> samples(static_cast<std::size_t>(info.frames * info.channels));
    if (f) sf_readf_short(f, samples.data(), info.frames);
    sf_close(f);
    return samples;
  }
  // Every sample differs from its neighbours, so a lost, repeated or swapped one shows.
  static std::vector<std::int16_t> pattern(std::size_t count) {
    std::vector<std::int16_t> v(count);
    for (std::size_t i = 0; i < count; ++i) v[i] = static_cast<std::int16_t>(i * 7919 % 65521);
    return v;
  }
  template <class T = Sink, class... A>
  boost::shared_ptr<T> make(const std::string& name, A... a) {
    return ZR::ZRModule::createModule<T>(broker_, name, a...);
  }
  boost::shared_ptr<ZR::ZRAudioDevice> device(const Options& o) {
    return ZR::ZRModule::createModule<ZR::ZRAudioDevice>(broker_, "ZRAudioDevice", o);
  }

  std::string dir_;
  boost::shared_ptr<ZR::ZRBroker> broker_;
};

TEST_F(AudioDeviceTest, FileIsDeliveredExactlyToEverySubscriberAndRecorded) {
  for (int channels : {1, 2, 4}) {
    SCOPED_TRACE(channels);
    const std::string file = path("in" + std::to_string(channels) + ".wav");
    const std::vector<std::int16_t> samples = pattern(1000 * channels);  // 6 buffers of 160 + 40
    writeSound(file, 16000, channels, samples);
    auto memory = make<FakeMemory>("ZRMemory");
    auto fast = make("Fast");
    auto slow = make("Slow", 2);
    Options o = Options::fromInput(file);
    o.samplesPerBuffer = 160;
    o.queueCapacity = 2;  // the slow one holds the file back; nothing may be lost for it
    o.held = true;        // both from the first sample
    auto dev = device(o);
    EXPECT_EQ(dev->getSampleRate(), 16000);
    EXPECT_EQ(dev->getChannelCount(), channels);
    dev->startRecording(path("rec.wav"));
    auto proxy = broker_->getProxy("ZRAudioDevice");
    proxy->call<void>("subscribe", std::string("Fast"));
    proxy->call<void>("subscribe", std::string("Slow"));
    proxy->call<void>("subscribe", std::string("Slow"));  // twice is harmless
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    {
      std::lock_guard<std::mutex> lock(fast->mutex);
      EXPECT_TRUE(fast->seen.empty()) << "a held device delivers nothing before release";
    }
    proxy->call<void>("release");
    ASSERT_TRUE(dev->waitForEndOfStream(10000));

    EXPECT_EQ(fast->data, samples);
    EXPECT_EQ(slow->data, samples);
    ASSERT_EQ(fast->seen.size(), 7u);
    ASSERT_EQ(slow->seen.size(), 7u);
    for (std::size_t i = 0; i < 7; ++i) {
      const Seen& s = fast->seen[i];
      EXPECT_EQ(s.channels, channels);
      EXPECT_EQ(s.samples, i < 6 ? 160 : 40);
      EXPECT_EQ(s.at(), static_cast<long long>(i) * 10000);
      EXPECT_EQ(s.data, slow->seen[i].data) << "buffer " << i << " was copied per subscriber";
    }
    EXPECT_EQ(proxy->call<int>("getDeliveredBufferCount", std::string("Slow")), 7);
    EXPECT_EQ(proxy->call<int>("getDroppedBufferCount", std::string("Slow")), 0);
    EXPECT_TRUE(proxy->call<bool>("isEndOfStream"));
    ASSERT_EQ(memory->events.size(), 1u);
    EXPECT_EQ(memory->events[0].first, "ZRAudioDevice/EndOfStream");
    EXPECT_FLOAT_EQ(memory->events[0].second.toFloat(), 1000.0f / 16000);

    EXPECT_EQ(proxy->call<int>("stopRecording"), 1000);
    SF_INFO info{};
    EXPECT_EQ(readSound(path("rec.wav"), info), samples);
    EXPECT_EQ(info.samplerate, 16000);
    for (const char* m : {"ZRAudioDevice", "Fast", "Slow", "ZRMemory"}) broker_->removeModule(m);
  }
}

TEST_F(AudioDeviceTest, FileIsResampledAndItsChannelsConverted) {
  std::vector<std::int16_t> stereo(8000 * 2);
  for (std::size_t i = 0; i < stereo.size(); ++i) stereo[i] = (i % 2) ? 300 : 100;
  writeSound(path("stereo8k.flac"), 8000, 2, stereo, SF_FORMAT_FLAC | SF_FORMAT_PCM_16);
  writeSound(path("mono.wav"), 16000, 1, pattern(500));
  writeSound(path("three.wav"), 16000, 3, pattern(300));

  Options o = Options::fromInput(path("stereo8k.flac"));
  o.sampleRate = 16000;
  o.channelCount = 1;
  auto dev = device(o);
  EXPECT_EQ(dev->getSamplesPerBuffer(), 1600);  // 100 ms at the asked rate
  auto sink = make("Sink");
  dev->subscribe("Sink");
  ASSERT_TRUE(dev->waitForEndOfStream(10000));
  EXPECT_NEAR(static_cast<double>(sink->data.size()), 16000.0, 16.0);
  EXPECT_NEAR(sink->data[8000], 200, 2);  // the two channels averaged, through the converter
  broker_->removeModule("ZRAudioDevice");

  o = Options::fromInput(path("mono.wav"));
  o.channelCount = 2;
  dev = device(o);
  auto dup = make("Dup");
  dev->subscribe("Dup");
  ASSERT_TRUE(dev->waitForEndOfStream(10000));
  ASSERT_EQ(dup->data.size(), 1000u);
  const std::vector<std::int16_t> mono = pattern(500);
  for (std::size_t i = 0; i < 500; ++i) {
    EXPECT_EQ(dup->data[2 * i], mono[i]);
    EXPECT_EQ(dup->data[2 * i + 1], mono[i]);
  }
  broker_->removeModule("ZRAudioDevice");

  o = Options::fromInput(path("three.wav"));
  o.channelCount = 2;
  dev = device(o);
  // 3 to 2 channels is not supported.
  EXPECT_THAT(errorOf([&] { dev->subscribe("Dup"); }).what(), HasSubstr("3 channels"));
}

TEST_F(AudioDeviceTest, LiveSourceDropsForTheSlowSubscriberOnly) {
  zrtest::LogCapture warnings("zraudiodevice", vo::LogLevel_Warning);
  Options o = Options::fromInput("tone:440");
  o.realtime = true;
  o.samplesPerBuffer = 160;  // 10 ms
  o.queueCapacity = 8;       // 80 ms of slack for the fast one on a busy machine
  o.durationSeconds = 0.4;   // 40 buffers
  auto dev = device(o);
  dev->hold();
  auto fast = make("Fast");
  auto slow = make("Slow", 50);
  const auto start = std::chrono::steady_clock::now();
  dev->subscribe("Fast");
  dev->subscribe("Slow");
  dev->release();
  ASSERT_TRUE(dev->waitForEndOfStream(10000));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(380));

  const ZR::ZRAudioDeliveryStats f = dev->getDeliveryStats("Fast");
  const ZR::ZRAudioDeliveryStats s = dev->getDeliveryStats("Slow");
  EXPECT_EQ(f.delivered, 40);
  EXPECT_EQ(f.dropped, 0);
  EXPECT_GT(s.dropped, 10);
  EXPECT_EQ(s.delivered + s.dropped, 40);
  EXPECT_GE(warnings.count("\"Slow\" does not keep up"), 1);
  EXPECT_LE(warnings.count("\"Slow\" does not keep up"), 2) << "warnings are rate-limited";
  EXPECT_EQ(warnings.count("\"Fast\""), 0);
  // Live timestamps also count from the first sample, and advance by exactly one buffer.
  EXPECT_EQ(fast->seen[0].at(), 0);
  for (std::size_t i = 1; i < fast->seen.size(); ++i)
    EXPECT_EQ(fast->seen[i].at() - fast->seen[i - 1].at(), 10000);
}

TEST_F(AudioDeviceTest, HostBuffersAreSharedAndFailingOrGoneSubscribersDoNotStopOthers) {
  zrtest::LogCapture warnings("zraudiodevice", vo::LogLevel_Warning);
  Options o;
  o.source = Source::Host;
  o.channelCount = 4;
  auto dev = device(o);
  auto good = make("Good");
  auto bad = make("Bad", 0, true);
  auto gone = make("Gone");
  for (const char* m : {"Good", "Bad", "Gone"}) dev->subscribe(m);
  gone.reset();
  broker_->removeModule("Gone");

  const std::vector<std::int16_t> samples = pattern(4 * 1600);
  const ZR::ZRValue block(samples.data(), samples.size() * 2);
  for (int i = 0; i < 5; ++i) dev->deliver(block, 1600);
  const ZR::ZRValue filled = dev->deliver(samples.data(), 1600);
  ASSERT_TRUE(dev->waitUntilIdle(10000));

  ASSERT_EQ(good->seen.size(), 6u);
  for (int i = 0; i < 5; ++i) EXPECT_EQ(good->seen[i].data, block.GetBinary());
  EXPECT_EQ(good->seen[5].data, filled.GetBinary());
  EXPECT_EQ(bad->seen[5].data, filled.GetBinary());
  EXPECT_EQ(dev->getDeliveryStats("Bad").failed, 6);
  EXPECT_EQ(dev->getDeliveryStats("Good").delivered, 6);
  EXPECT_EQ(warnings.count("deliberate failure"), 1) << "one warning a second at most";
  EXPECT_EQ(warnings.count("\"Gone\" is gone"), 1);
  EXPECT_EQ(dev->getSubscribers(), (std::vector<std::string>{"Bad", "Good"}));

  EXPECT_THROW(dev->deliver(block, 1599), ZR::ZRError);  // size does not match
  dev->endStream();
  EXPECT_TRUE(dev->waitForEndOfStream(10000));
  EXPECT_THROW(dev->deliver(block, 1600), ZR::ZRError);
}

TEST_F(AudioDeviceTest, ErrorsAreClearAndLeaveTheDeviceUsable) {
  auto bad = [&](std::function<void(Options&)> change, const std::string& expected) {
    Options o = Options::fromInput("tone:440");
    change(o);
    EXPECT_THAT(errorOf([&] { device(o); }).what(), HasSubstr(expected));
    EXPECT_FALSE(broker_->hasModule("ZRAudioDevice"));
  };
  bad([](Options& o) { o.sampleRate = 0; }, "sample rate must be positive");
  bad([](Options& o) { o.samplesPerBuffer = 0; }, "samples per buffer must be positive");
  bad([](Options& o) { o.channelCount = 33; }, "between 1 and 32");
  bad([](Options& o) { o.queueCapacity = 0; }, "queue capacity");
  bad([](Options& o) { o.frequency = 9000; }, "below half the sample rate");
  EXPECT_THROW(Options::fromInput("tone:4x0"), ZR::ZRError);
  EXPECT_THROW(Options::fromInput(""), ZR::ZRError);
  EXPECT_EQ(Options::fromInput("mic:hw:1").path, "hw:1");
  EXPECT_EQ(Options::fromInput("-").source, Source::RawPcm);

  const std::string missing = path("later.wav");
  auto dev = device(Options::fromInput(missing));
  auto sink = make("Sink");
  EXPECT_THAT(errorOf([&] { dev->subscribe("Sink"); }).getDescription(),
              AllOf(HasSubstr(missing), HasSubstr("No such file")));
  EXPECT_TRUE(dev->getSubscribers().empty());
  EXPECT_THROW(dev->subscribe("Nobody"), ZR::ZRError);
  EXPECT_THROW(dev->subscribe("ZRAudioDevice"), ZR::ZRError);       // has no processRemote
  EXPECT_THROW(dev->startRecording(path("rec.wav")), ZR::ZRError);  // format not known yet
  dev->unsubscribe("Nobody");

  writeSound(missing, 16000, 1, pattern(100));
  dev->subscribe("Sink");
  ASSERT_TRUE(dev->waitForEndOfStream(10000));
  EXPECT_EQ(sink->data, pattern(100));
  broker_->removeModule("ZRAudioDevice");

  dev = device(Options::fromInput("mic:zr_no_such_capture_device"));
  EXPECT_THROW(dev->subscribe("Sink"), ZR::ZRError);
  EXPECT_THROW(dev->startRecording(path("no/such/dir/rec.wav")), ZR::ZRError);
  EXPECT_FALSE(dev->isCapturing());
}

TEST_F(AudioDeviceTest, RawPcmFromAPipeAndStoppingASilentOne) {
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  Options o = Options::fromInput("fd:" + std::to_string(fds[0]));
  o.channelCount = 2;
  o.samplesPerBuffer = 100;
  auto dev = device(o);
  auto sink = make("Sink");
  dev->subscribe("Sink");
  const std::vector<std::int16_t> samples = pattern(2 * 450);
  // Odd chunk sizes split samples and frames across reads.
  const auto* bytes = reinterpret_cast<const char*>(samples.data());
  for (std::size_t at = 0, n = 0; at < samples.size() * 2; at += n) {
    n = std::min<std::size_t>(333, samples.size() * 2 - at);
    ASSERT_EQ(write(fds[1], bytes + at, n), static_cast<ssize_t>(n));
  }
  close(fds[1]);
  ASSERT_TRUE(dev->waitForEndOfStream(10000));
  EXPECT_EQ(sink->data, samples);
  EXPECT_EQ(sink->seen.back().samples, 50);
  dev->unsubscribe("Sink");
  close(fds[0]);

  ASSERT_EQ(pipe(fds), 0);
  broker_->removeModule("ZRAudioDevice");
  dev = device(Options::fromInput("fd:" + std::to_string(fds[0])));
  dev->subscribe("Sink");
  EXPECT_TRUE(dev->isCapturing());
  const auto start = std::chrono::steady_clock::now();
  dev->unsubscribe("Sink");  // nothing ever comes down the pipe
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
  EXPECT_FALSE(dev->isCapturing());
  close(fds[0]);
  close(fds[1]);
}

TEST_F(AudioDeviceTest, SubscribersMayUnsubscribeFromTheirOwnDeliveryAndRestart) {
  Options o = Options::fromInput("noise");  // endless, as fast as the subscriber takes it
  o.samplesPerBuffer = 64;
  auto dev = device(o);
  auto sink = make("Sink");
  std::atomic<int> buffers{0};
  sink->onBuffer = [&] {
    if (++buffers == 3)
      broker_->getProxy("ZRAudioDevice")->call<void>("unsubscribe", std::string("Sink"));
  };
  dev->subscribe("Sink");
  EXPECT_TRUE(zrtest::eventually([&] { return !dev->isCapturing(); }));
  EXPECT_TRUE(dev->getSubscribers().empty());

  {
    std::lock_guard<std::mutex> lock(sink->mutex);
    sink->onBuffer = nullptr;
  }
  auto slow = make("Slow", 20);
  dev->subscribe("Slow");
  EXPECT_TRUE(dev->isCapturing());
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  // Destroyed while capturing and delivering: stops and joins without waiting for the queue.
  dev.reset();
  broker_->removeModule("ZRAudioDevice");

  // Kept by its host past the broker's shutdown, still capturing: the deliveries stop with the
  // pool, and the device goes away cleanly afterwards.
  dev = device(o);
  dev->subscribe("Sink");
  broker_->shutdown();
  EXPECT_TRUE(zrtest::eventually([&] { return !dev->isCapturing(); }));
  dev.reset();
}

}  // namespace
