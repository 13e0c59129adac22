#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sndfile.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <functional>
#include <mutex>

#include <vo/log.h>
#include <zraudiodevice/zraudiodevice.h>
#include <zrmemory/zrmemory.h>
#include <zrproxies/zraudiodeviceproxy.h>
#include <zrtest.h>

#include "sink.h"

using ::testing::EndsWith;
using ::testing::HasSubstr;
using zrtest::errorOf;
using namespace std::chrono_literals;

namespace {

using Options = ZR::ZRAudioDeviceOptions;
using Source = Options::Source;
using Strings = std::vector<std::string>;

using zrtest::pattern;
using zrtest::Seen;
using zrtest::Sink;
using zrtest::writeSound;

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
    auto memory = make<ZR::ZRMemory>("ZRMemory");
    auto fast = make("Fast");
    auto slow = make("Slow");
    // Slow holds its first buffer until Fast has three: its queue of 2 is full, and the file
    // must wait for it rather than drop.
    zrtest::Signal three;
    fast->hook = [&](int n) {
      if (n == 3) three.notify();
    };
    slow->hook = [&](int n) {
      if (n == 1) three.waitFor();
    };
    Options o = Options::fromInput(file);
    o.samplesPerBuffer = 160;
    o.queueCapacity = 2;
    o.held = true;  // both from the first sample
    auto dev = device(o);
    EXPECT_EQ(dev->getSampleRate(), 16000);
    EXPECT_EQ(dev->getChannelCount(), channels);
    ZR::ZRAudioDeviceProxy proxy(broker_);
    proxy.startRecording(path("rec.wav"));
    proxy.subscribe("Fast");
    proxy.subscribe("Slow");
    proxy.release();
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
    EXPECT_EQ(proxy.getDeliveredBufferCount("Slow"), 7);
    EXPECT_EQ(proxy.getDroppedBufferCount("Slow"), 0);
    EXPECT_LE(dev->getDeliveryStats("Slow").mostQueued, 2);
    EXPECT_TRUE(proxy.isEndOfStream());
    EXPECT_FLOAT_EQ(memory->getData("ZRAudioDevice/EndOfStream").toFloat(), 1000.0f / 16000);

    EXPECT_EQ(proxy.stopRecording(), 1000);
    SF_INFO info{};
    SNDFILE* rec = sf_open(path("rec.wav").c_str(), SFM_READ, &info);
    std::vector<std::int16_t> back(samples.size() + channels);
    EXPECT_EQ(sf_readf_short(rec, back.data(), 1001), 1000);
    sf_close(rec);
    back.resize(samples.size());
    EXPECT_EQ(back, samples);
    for (const char* m : {"ZRAudioDevice", "Fast", "Slow", "ZRMemory"}) broker_->removeModule(m);
  }
}

TEST_F(AudioDeviceTest, ChannelsAreConvertedAndFilesResampled) {
  // Channel k of input frame i holds 100 (2k + 1) + i / 40: a slow ramp, so the resampler keeps it.
  const struct {
    int rate, in, out, tolerance;  // tolerance < 0: refused
  } cases[] = {{16000, 1, 2, 0}, {16000, 2, 1, 0}, {8000, 2, 1, 2}, {16000, 3, 2, -1}};
  for (const auto& c : cases) {
    const std::string name = std::to_string(c.in) + "to" + std::to_string(c.out) + "at" +
                             std::to_string(c.rate) + ".flac";
    SCOPED_TRACE(name);
    std::vector<std::int16_t> in;
    for (int i = 0; i < c.rate; ++i)
      for (int k = 0; k < c.in; ++k)
        in.push_back(static_cast<std::int16_t>(100 * (2 * k + 1) + i / 40));
    writeSound(path(name), c.rate, c.in, in, SF_FORMAT_FLAC | SF_FORMAT_PCM_16);
    Options o = Options::fromInput(path(name));
    o.sampleRate = 16000;
    o.channelCount = c.out;
    auto dev = device(o);
    auto sink = make("Sink");
    if (c.tolerance < 0) {
      EXPECT_THAT(errorOf([&] { dev->subscribe("Sink"); }).what(), HasSubstr("3 channels"));
    } else {
      EXPECT_EQ(dev->getSamplesPerBuffer(), 1600);  // 100 ms at the asked rate
      dev->subscribe("Sink");
      ASSERT_TRUE(dev->waitForEndOfStream(10000));
      const std::size_t n = sink->data.size();
      EXPECT_NEAR(static_cast<double>(n), 16000.0 * c.out, 16.0 * c.out);
      // Mono copied to every channel, channels averaged to mono; away from the edges.
      for (std::size_t j = 800; j + 800 < n; j += 997) {
        const int frame = static_cast<int>(j) / c.out * c.rate / 16000;
        EXPECT_NEAR(sink->data[j], (c.in == 1 ? 100 : 200) + frame / 40, c.tolerance) << j;
      }
    }
    for (const char* m : {"ZRAudioDevice", "Sink"}) broker_->removeModule(m);
  }
}

// RMS level in dBFS of the samples from the first quarter on (codecs start with a transient).
double levelDb(const std::vector<std::int16_t>& samples) {
  double sum = 0.0;
  const std::size_t from = samples.size() / 4;
  for (std::size_t i = from; i < samples.size(); ++i) sum += samples[i] * double(samples[i]);
  return 10.0 * std::log10(sum / double(samples.size() - from) / (32768.0 * 32768.0) + 1e-30);
}

TEST_F(AudioDeviceTest, EverySampleFormatComesInAtItsTrueLevel) {
  // A 1 kHz sine of amplitude 0.25 (-15.05 dBFS RMS), one second at 16 kHz, written in every
  // container and encoding the library writes, then read through the device as a user would.
  constexpr int kRate = 16000;
  const double expected = 20.0 * std::log10(0.25 / std::sqrt(2.0));
  std::vector<float> sine(kRate);
  for (std::size_t i = 0; i < sine.size(); ++i)
    sine[i] = 0.25f * static_cast<float>(std::sin(2.0 * M_PI * 1000.0 * double(i) / kRate));
  int majors = 0, subtypes = 0, read = 0, refused = 0;
  sf_command(nullptr, SFC_GET_FORMAT_MAJOR_COUNT, &majors, sizeof majors);
  sf_command(nullptr, SFC_GET_FORMAT_SUBTYPE_COUNT, &subtypes, sizeof subtypes);
  for (int a = 0; a < majors; ++a) {
    SF_FORMAT_INFO major{};
    major.format = a;
    sf_command(nullptr, SFC_GET_FORMAT_MAJOR, &major, sizeof major);
    for (int b = 0; b < subtypes; ++b) {
      SF_FORMAT_INFO sub{};
      sub.format = b;
      sf_command(nullptr, SFC_GET_FORMAT_SUBTYPE, &sub, sizeof sub);
      SF_INFO info{0, kRate, 1, major.format | sub.format, 0, 0};
      if (!sf_format_check(&info)) continue;
      const std::string file =
          path(std::to_string(a) + "_" + std::to_string(b) + "." + major.extension);
      SNDFILE* out = sf_open(file.c_str(), SFM_WRITE, &info);
      if (!out) continue;  // a combination it checks but cannot encode
      sf_writef_float(out, sine.data(), static_cast<sf_count_t>(sine.size()));
      sf_close(out);
      SF_INFO written{};
      if (SNDFILE* back = sf_open(file.c_str(), SFM_READ, &written)) {
        sf_close(back);
        if (written.frames == 0) continue;  // its encoder wrote nothing (12-bit DWVW)
      }
      SCOPED_TRACE(std::string(major.name) + ", " + sub.name);
      auto dev = device(Options::fromInput(file));
      auto sink = make("Sink");
      try {
        dev->subscribe("Sink");
      } catch (const ZR::ZRError& e) {
        // What it cannot read back (a header-less file, say) is refused, saying which file.
        EXPECT_THAT(e.getDescription(), HasSubstr("cannot open sound file \"" + file + "\""));
        ++refused;
        for (const char* m : {"ZRAudioDevice", "Sink"}) broker_->removeModule(m);
        continue;
      }
      ASSERT_TRUE(dev->waitForEndOfStream(10000));
      EXPECT_NEAR(levelDb(sink->data), expected, 0.5) << sink->data.size() << " samples";
      ++read;
      dev->unsubscribe("Sink");
      for (const char* m : {"ZRAudioDevice", "Sink"}) broker_->removeModule(m);
    }
  }
  EXPECT_GT(read, 100) << "formats read";
  EXPECT_LT(refused, 25) << "formats refused";

  // Floating point beyond full scale, resampled or not: clipped at full scale, said once.
  zrtest::LogCapture warnings("zraudiodevice", vo::LogLevel_Warning);
  for (const int rate : {kRate, 8000}) {
    const std::string loud = path("loud" + std::to_string(rate) + ".wav");
    SF_INFO info{0, rate, 1, SF_FORMAT_WAV | SF_FORMAT_DOUBLE, 0, 0};
    SNDFILE* out = sf_open(loud.c_str(), SFM_WRITE, &info);
    std::vector<double> twice(static_cast<std::size_t>(rate) / 2);
    for (std::size_t i = 0; i < twice.size(); ++i)
      twice[i] = 2.0 * std::sin(2.0 * M_PI * 200.0 * double(i) / rate);
    sf_writef_double(out, twice.data(), static_cast<sf_count_t>(twice.size()));
    sf_close(out);
    Options o = Options::fromInput(loud);
    o.sampleRate = kRate;
    auto dev = device(o);
    auto sink = make("Sink");
    dev->subscribe("Sink");
    ASSERT_TRUE(dev->waitForEndOfStream(10000));
    EXPECT_EQ(*std::max_element(sink->data.begin(), sink->data.end()), 32767) << rate;
    EXPECT_EQ(*std::min_element(sink->data.begin(), sink->data.end()), -32768) << rate;
    const auto records = warnings.take();
    ASSERT_EQ(records.size(), 1u) << rate;
    EXPECT_THAT(records[0].message, HasSubstr(loud + "\" holds samples beyond full scale"));
    EXPECT_THAT(records[0].file, EndsWith("zraudiosource.cpp"));  // where it was logged
    EXPECT_GT(records[0].line, 0);
    dev->unsubscribe("Sink");
    for (const char* m : {"ZRAudioDevice", "Sink"}) broker_->removeModule(m);
  }
}

TEST_F(AudioDeviceTest, ALiveSourceDropsTheOldestBuffersOfASlowSubscriber) {
  zrtest::LogCapture warnings("zraudiodevice", vo::LogLevel_Warning);
  const std::vector<std::int16_t> samples = pattern(160);
  Options o;
  o.source = Source::Host;
  o.realtime = true;
  o.queueCapacity = 3;
  auto dev = device(o);
  auto slow = make("Slow");
  zrtest::Signal entered, go;
  slow->hook = [&](int n) {
    if (n == 1) entered.notify(), go.waitFor();
  };
  dev->subscribe("Slow");
  std::vector<ZR::ZRValue> sent{dev->deliver(samples.data(), 160)};
  ASSERT_TRUE(entered.waitFor());
  for (int i = 1; i <= 9; ++i) sent.push_back(dev->deliver(samples.data(), 160));  // never waits
  go.notify();
  ASSERT_TRUE(dev->waitUntilIdle(10000));
  EXPECT_EQ(dev->getDeliveryStats("Slow").dropped, 6);
  // The first (running then) and the three newest, with their own timestamps.
  const std::vector<std::size_t> kept{0, 7, 8, 9};
  ASSERT_EQ(slow->seen.size(), kept.size());
  for (std::size_t i = 0; i < kept.size(); ++i) {
    EXPECT_EQ(slow->seen[i].data, sent[kept[i]].GetBinary()) << i;
    EXPECT_EQ(slow->seen[i].at(), static_cast<long long>(kept[i]) * 10000);
  }
  dev->unsubscribe("Slow");
  EXPECT_EQ(warnings.takePlatformLines(),
            (zrtest::Lines{{3, "publish",
                            "ZRAudioDevice: subscriber \"Slow\" does not keep up: its oldest "
                            "buffer was dropped (1 dropped so far, 0 warnings held back)"}}));
}

TEST_F(AudioDeviceTest, HostBuffersAreSharedAndFailingOrGoneSubscribersDoNotStopOthers) {
  zrtest::LogCapture warnings("zraudiodevice", vo::LogLevel_Warning);
  Options o;
  o.source = Source::Host;
  o.channelCount = 4;
  auto dev = device(o);
  auto good = make("Good");
  auto bad = make("Bad", true);
  auto gone = make("Gone");
  for (const char* m : {"Good", "Bad", "Gone"}) dev->subscribe(m);
  gone.reset();
  broker_->removeModule("Gone");

  const std::vector<std::int16_t> samples = pattern(4 * 1600);
  const ZR::ZRValue block(samples.data(), samples.size() * 2);
  for (int i = 0; i < 3; ++i) dev->deliver(block, 1600);
  ASSERT_TRUE(dev->waitUntilIdle(10000));
  dev->subscribe("Good");  // a second subscribe: no second stream, the counts go on
  for (int i = 0; i < 2; ++i) dev->deliver(block, 1600);
  const ZR::ZRValue filled = dev->deliver(samples.data(), 1600);
  ASSERT_TRUE(dev->waitUntilIdle(10000));

  ASSERT_EQ(good->seen.size(), 6u);
  for (int i = 0; i < 5; ++i) EXPECT_EQ(good->seen[i].data, block.GetBinary());
  EXPECT_EQ(good->seen[5].data, filled.GetBinary());
  EXPECT_EQ(dev->getDeliveryStats("Bad").failed, 6);
  EXPECT_EQ(dev->getDeliveryStats("Bad").delivered, 0) << "a failed delivery is no delivery";
  EXPECT_EQ(dev->getSubscribers(), (Strings{"Bad", "Good"}));
  zrtest::Lines lines = warnings.takePlatformLines();
  std::sort(lines.begin(), lines.end());  // from two strands
  EXPECT_EQ(
      lines,
      (zrtest::Lines{
          {3, "deliver",
           "ZRAudioDevice: \"processRemote\" of \"Bad\" failed on the buffer at 0.000 s: "
           "Bad::processRemote: Sink::processRemote: deliberate failure (0 warnings held back)"},
          {3, "deliver",
           "ZRAudioDevice: subscriber \"Gone\" is gone; it is "
           "unsubscribed"}}));

  EXPECT_THROW(dev->deliver(block, 1599), ZR::ZRError);  // size does not match
  dev->endStream();
  EXPECT_TRUE(dev->waitForEndOfStream(10000));
  EXPECT_THROW(dev->deliver(block, 1600), ZR::ZRError);

  // Going away with modules still subscribed: one line for each.
  dev.reset();
  broker_->removeModule("ZRAudioDevice");
  const std::string tail =
      "\" is still subscribed; its later unsubscribe from \"ZRAudioDevice\" "
      "will fail";
  EXPECT_EQ(
      warnings.takePlatformLines(),
      (zrtest::Lines{{3, "~ZRAudioDevice", "ZRAudioDevice: going away while \"Bad" + tail},
                     {3, "~ZRAudioDevice", "ZRAudioDevice: going away while \"Good" + tail}}));
}

TEST_F(AudioDeviceTest, ErrorsAreClearAndLeaveTheDeviceUsableRawPcmComesWholeFromAPipe) {
  const std::vector<std::pair<std::function<void(Options&)>, std::string>> bad{
      {[](Options& o) { o.sampleRate = 0; }, "the sample rate must be positive, not 0"},
      {[](Options& o) { o.samplesPerBuffer = 0; },
       "the samples per buffer must be positive, not 0"},
      {[](Options& o) { o.channelCount = 33; },
       "the channel count must be between 1 and 32, not 33"},
      {[](Options& o) { o.queueCapacity = 0; }, "the queue capacity must be at least 1, not 0"},
      {[](Options& o) { o.frequency = 9000; },
       "the tone frequency must be above 0 and below half the sample rate (8000 Hz), not "
       "9000.000000"},
  };
  for (const auto& [change, text] : bad) {
    Options o = Options::fromInput("tone:440");
    change(o);
    EXPECT_EQ(errorOf([&] { device(o); }).what(), "ZRAudioDevice::ZRAudioDevice: " + text);
    EXPECT_FALSE(broker_->hasModule("ZRAudioDevice"));
  }
  EXPECT_THROW(Options::fromInput("tone:4x0"), ZR::ZRError);
  EXPECT_THROW(Options::fromInput(""), ZR::ZRError);
  EXPECT_EQ(Options::fromInput("mic:hw:1").path, "hw:1");
  EXPECT_EQ(Options::fromInput("-").source, Source::RawPcm);

  const std::string missing = path("later.wav");
  auto dev = device(Options::fromInput(missing));
  auto sink = make("Sink");
  EXPECT_THAT(errorOf([&] { dev->subscribe("Sink"); }).getDescription(),
              ::testing::AllOf(HasSubstr(missing), HasSubstr("No such file")));
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
  broker_->removeModule("ZRAudioDevice");

  // Raw PCM in odd chunk sizes, which split samples and frames across reads.
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  Options o = Options::fromInput("fd:" + std::to_string(fds[0]));
  o.channelCount = 2;
  o.samplesPerBuffer = 100;
  dev = device(o);
  sink->data.clear();
  dev->subscribe("Sink");
  const std::vector<std::int16_t> samples = pattern(2 * 450);
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
  broker_->removeModule("ZRAudioDevice");

  ASSERT_EQ(pipe(fds), 0);
  dev = device(Options::fromInput("fd:" + std::to_string(fds[0])));
  dev->subscribe("Sink");
  EXPECT_TRUE(dev->isCapturing());
  dev->unsubscribe("Sink");  // nothing ever comes down the pipe: must not wait for it
  EXPECT_FALSE(dev->isCapturing());
  close(fds[0]);
  close(fds[1]);
}

TEST_F(AudioDeviceTest, SubscribersMayUnsubscribeFromTheirOwnDeliveryAndRestart) {
  Options o = Options::fromInput("noise");  // endless, as fast as the subscriber takes it
  o.samplesPerBuffer = 64;
  auto dev = device(o);
  auto sink = make("Sink");
  zrtest::Signal left;
  sink->hook = [&](int n) {
    if (n != 3) return;
    ZR::ZRAudioDeviceProxy(broker_).unsubscribe("Sink");
    left.notify();
  };
  dev->subscribe("Sink");
  ASSERT_TRUE(left.waitFor());
  EXPECT_FALSE(dev->isCapturing());
  EXPECT_TRUE(dev->getSubscribers().empty());

  // Destroyed while capturing and delivering: stops and joins without waiting for the queue.
  zrtest::Signal delivering;
  auto other = make("Other");
  other->hook = [&](int n) {
    if (n == 1) delivering.notify();
  };
  dev->subscribe("Other");
  ASSERT_TRUE(delivering.waitFor());
  dev.reset();
  broker_->removeModule("ZRAudioDevice");

  // Kept by its host past the broker's shutdown, still capturing: the deliveries stop with the
  // pool, and the device goes away cleanly afterwards.
  {
    std::lock_guard<std::mutex> lock(sink->mutex);
    sink->hook = nullptr;
  }
  dev = device(o);
  dev->subscribe("Sink");
  broker_->shutdown();
  EXPECT_TRUE(dev->waitUntilStopped(10000));
  dev.reset();
}

}  // namespace
