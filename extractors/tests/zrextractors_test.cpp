// The stock extractors on the bundled sample and on hand-made buffers, through the real memory
// service and audio device.

#include <sndfile.h>

#include <cmath>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>

#include <gtest/gtest.h>

#include <vo/log.h>
#include <zraudiodevice/zraudiodevice.h>
#include <zrcommon/zrsamples.h>
#include <zrcommon/zrservicenames.h>
#include <zrextractors/soundlevel.h>
#include <zrextractors/voiceactivity.h>
#include <zrextractors/zrextractorregistry.h>
#include <zrextractors/zrrecord.h>
#include <zrmemory/zrmemory.h>
#include <zrproxies/zrmemoryproxy.h>

namespace {

// Keeps what the memory service delivers, by event name.
class Collector : public ZR::ZRModule {
 public:
  Collector(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name)
      : ZRModule(broker, name) {
    functionName("onEvent", "Collector", "Collects events.", 0);
    for (const char* param : {"event", "value", "id"}) addParam(param, "");
    bindMethod(&Collector::onEvent);
  }
  void onEvent(const std::string& event, const ZR::ZRValue& value, const std::string&) {
    std::lock_guard<std::mutex> lock(mutex);
    events[event].push_back(value);
  }
  auto of(const std::string& e) { return std::lock_guard<std::mutex>(mutex), events[e]; }
  std::mutex mutex;
  std::map<std::string, std::vector<ZR::ZRValue>> events;
};

float field(const ZR::ZRValue& record, const char* name, int channel = -1) {
  const ZR::ZRValue& v = *ZR::recordField(record, name);
  return channel < 0 ? v.toFloat() : v[channel].toFloat();
}

struct Pipeline {
  explicit Pipeline(const ZR::ZRAudioDeviceOptions& options) {
    vo::log::setLogLevel(vo::LogLevel_Error);
    memory = ZR::ZRModule::createModule<ZR::ZRMemory>(broker, ZR::kMemoryServiceName, 1 << 20);
    device =
        ZR::ZRModule::createModule<ZR::ZRAudioDevice>(broker, ZR::kAudioDeviceServiceName, options);
    device->hold();
    level = ZR::ZRModule::createModule<ZR::SoundLevel>(broker, "SoundLevel", 100);
    voice = ZR::ZRModule::createModule<ZR::VoiceActivity>(broker, "VoiceActivity");
    client = ZR::ZRModule::createModule<Collector>(broker, "client");
    ZR::ZRMemoryProxy m(broker);
    for (const char* e : {"SoundLevel/Levels", "SoundLevel/ThresholdCrossed",
                          "VoiceActivity/Segment", "VoiceActivity/SpeechDetected"})
      m.subscribeToEvent(e, "client", "onEvent");
    device->release();
  }
  void finish() {
    ASSERT_TRUE(device->waitForEndOfStream(30000));
    voice->flush();
    level->flush();
    ASSERT_TRUE(memory->waitForDeliveries(std::chrono::seconds(10)));
  }
  // Members go in reverse order: the modules, newest first, then the broker shuts down.
  struct Owner {
    ~Owner() { broker->shutdown(); }
    boost::shared_ptr<ZR::ZRBroker> broker = ZR::ZRBroker::createBroker("test");
  } owner;
  boost::shared_ptr<ZR::ZRBroker> broker = owner.broker;
  boost::shared_ptr<ZR::ZRMemory> memory;
  boost::shared_ptr<ZR::ZRAudioDevice> device;
  boost::shared_ptr<ZR::SoundLevel> level;
  boost::shared_ptr<ZR::VoiceActivity> voice;
  boost::shared_ptr<Collector> client;
};

// Buffers handed in by the test, at 16 kHz.
ZR::ZRAudioDeviceOptions hostSource(int channels) {
  ZR::ZRAudioDeviceOptions o;
  o.source = ZR::ZRAudioDeviceOptions::Source::Host;
  o.sampleRate = 16000;
  o.channelCount = channels;
  return o;
}

}  // namespace

TEST(StockExtractors, FindTheKnownSegmentsAndMeasureLevelsOnTheSample) {
  Pipeline p(ZR::ZRAudioDeviceOptions::fromInput(ZR_SAMPLE));
  p.finish();

  // Levels, computed here independently over the same 100 ms windows, the last one partial.
  SF_INFO info{};
  SNDFILE* f = sf_open(ZR_SAMPLE, SFM_READ, &info);
  ASSERT_NE(f, nullptr);
  std::vector<short> samples(static_cast<std::size_t>(info.frames));  // mono
  sf_readf_short(f, samples.data(), info.frames);
  sf_close(f);
  const std::size_t window = static_cast<std::size_t>(info.samplerate) / 10;
  const auto levels = p.client->of("SoundLevel/Levels");
  ASSERT_EQ(levels.size(), (samples.size() + window - 1) / window);
  for (std::size_t w = 0; w < levels.size(); ++w) {
    double sum = 0.0;
    int peak = 0;
    const std::size_t end = std::min(samples.size(), (w + 1) * window);
    for (std::size_t i = w * window; i < end; ++i) {
      sum += double(samples[i]) * samples[i];
      peak = std::max(peak, std::abs(int(samples[i])));
    }
    const double rms = 20 * std::log10(std::sqrt(sum / double(end - w * window)) / 32768.0);
    EXPECT_NEAR(field(levels[w], "time"), w * 0.1, 1e-4);
    EXPECT_NEAR(field(levels[w], "rms", 0), rms, 0.01) << "window " << w;
    EXPECT_NEAR(field(levels[w], "peak", 0), 20 * std::log10(peak / 32768.0), 0.01);
  }

  // Segments, against the boundaries the sample was made with ("start,end" after a header).
  std::ifstream csv(ZR_SAMPLE_SEGMENTS);
  std::vector<std::pair<double, double>> known;
  char comma;
  csv.ignore(1 << 10, '\n');
  for (double s, e; csv >> s >> comma >> e;) known.emplace_back(s, e);
  const auto segments = p.client->of("VoiceActivity/Segment");
  ASSERT_EQ(segments.size(), known.size());
  for (std::size_t i = 0; i < known.size(); ++i) {
    EXPECT_NEAR(field(segments[i], "start"), known[i].first, 0.1) << "segment " << i;
    EXPECT_NEAR(field(segments[i], "end"), known[i].second, 0.1) << "segment " << i;
  }
  // Every segment opened and closed once, in order.
  const auto states = p.client->of("VoiceActivity/SpeechDetected");
  ASSERT_EQ(states.size(), 2 * known.size());
  for (std::size_t i = 0; i < states.size(); ++i)
    EXPECT_EQ(ZR::recordField(states[i], "speech")->toBool(), i % 2 == 0);
}

TEST(StockExtractors, SurviveOddBuffers) {
  Pipeline p(hostSource(3));
  p.level->setThreshold(-20.0f, 6.0f);
  // Silence, full-scale clipping on one channel, then one-sample buffers.
  std::vector<std::int16_t> buffer(1600 * 3, 0);
  p.device->deliver(buffer.data(), 1600);
  for (std::size_t i = 0; i < buffer.size(); i += 3) buffer[i] = (i / 3) % 2 ? 32767 : -32768;
  p.device->deliver(buffer.data(), 1600);
  for (int i = 0; i < 1600; ++i) p.device->deliver(&buffer[(i % 2) * 3], 1);
  p.device->endStream();
  p.finish();

  const auto levels = p.client->of("SoundLevel/Levels");
  ASSERT_EQ(levels.size(), 3u);
  for (int c = 0; c < 3; ++c) EXPECT_EQ(field(levels[0], "rms", c), ZR::SoundLevel::kFloorDb);
  for (std::size_t w = 1; w < 3; ++w) {
    EXPECT_NEAR(field(levels[w], "peak", 0) + field(levels[w], "rms", 0), 0.0f, 1e-3);
    EXPECT_EQ(field(levels[w], "rms", 1), ZR::SoundLevel::kFloorDb);
    EXPECT_NEAR(field(levels[w], "time"), 0.1 * w, 1e-4);
  }
  // Channel 0 went loud once and stayed loud.
  const auto crossings = p.client->of("SoundLevel/ThresholdCrossed");
  ASSERT_EQ(crossings.size(), 1u);
  EXPECT_EQ(ZR::recordField(crossings[0], "channel")->toInt(), 0);
  EXPECT_EQ(ZR::recordField(crossings[0], "state")->toStringRef(), "loud");
}

TEST(StockExtractors, SoundLevelAndVoiceActivityStartEachRunAfresh) {
  Pipeline p(hostSource(1));
  p.level->setThreshold(-20.0f, 6.0f);
  std::vector<std::int16_t> loud(1600, 16000);
  ZR::ZRMemoryProxy m(p.broker);
  const char* events[] = {"SoundLevel/Levels", "SoundLevel/ThresholdCrossed"};
  for (int run = 0; run < 2; ++run) {
    if (run) {  // the last subscriber leaves, so SoundLevel stops, and comes back
      // ... at its new first subscriber's period, not the one it ran with.
      p.level->updatePeriod("client", 50);
      for (const char* e : events) m.unsubscribeToEvent(e, "client");
      for (const char* e : events) m.subscribeToEvent(e, "client", "onEvent");
    }
    p.device->deliver(loud.data(), 1600);
    p.device->deliver(loud.data(), 800);  // half a window, which the next run must not finish
    ASSERT_TRUE(p.device->waitUntilIdle(5000));
    ASSERT_TRUE(p.memory->waitForDeliveries(std::chrono::seconds(10)));
  }
  // Each run went loud at its start, and its first window was whole.
  EXPECT_EQ(p.client->of("SoundLevel/ThresholdCrossed").size(), 2u);
  const auto levels = p.client->of("SoundLevel/Levels");
  ASSERT_EQ(levels.size(), 2u);
  EXPECT_NEAR(field(levels[1], "time"), 0.15, 1e-4);
}

TEST(StockExtractors, SoundLevelWindowsWhatFitsWithTheLatestPeriod) {
  Pipeline p(hostSource(1));
  std::vector<std::int16_t> buffer(1600, 1000);
  p.device->deliver(buffer.data(), 1600);  // one 100 ms window
  ASSERT_TRUE(p.device->waitUntilIdle(5000));
  p.level->updatePeriod("client", 40);
  p.device->deliver(buffer.data(), 1600);  // 100 ms more: 40 ms windows from here on
  // Counts past the binary, zero, negative, overflowing; an empty, missing or non-binary value:
  // never read (ASan), never a window.
  const ZR::ZRValue binary(buffer.data(), 320), empty(buffer.data(), 0), none, number(5);
  ZR::ZRValue ts;
  ts.arraySetSize(2);
  ts[0] = ts[1] = 0;
  const struct {
    int channels, samples;
    const ZR::ZRValue& buffer;
  } bad[] = {{1, 161, binary}, {2, 100, binary},   {0, 160, binary},
             {1, 0, binary},   {-1, -160, binary}, {65536, 65536, binary},
             {1, 160, empty},  {1, 160, none},     {1, 160, number}};
  auto proxy = p.broker->getProxy("SoundLevel", 0);
  for (const auto& b : bad) proxy->call<void>("processRemote", b.channels, b.samples, ts, b.buffer);
  EXPECT_EQ(p.level->ignoredBuffers(), 9);
  // Outside any call the pointer cannot be sized: the host's own buffers are trusted.
  EXPECT_TRUE(ZR::samplesFit(2, 100, buffer.data()) && !ZR::samplesFit(2, 100, nullptr));
  p.device->endStream();
  p.finish();
  std::vector<float> times;
  for (const ZR::ZRValue& l : p.client->of("SoundLevel/Levels")) times.push_back(field(l, "time"));
  // The last 20 ms are a partial window, published at the end.
  const std::vector<float> expected{0.0f, 0.10f, 0.14f, 0.18f};
  ASSERT_EQ(times.size(), expected.size());
  for (std::size_t i = 0; i < times.size(); ++i) EXPECT_NEAR(times[i], expected[i], 1e-4);
}

TEST(StockExtractors, RegistryCreatesStockTypesWithTheirDefaultPeriod) {
  auto broker = ZR::ZRBroker::createBroker("test");
  ZR::ZRModule::createModule<ZR::ZRMemory>(broker, ZR::kMemoryServiceName);
  auto level = ZR::ZRExtractorRegistry::withStockExtractors(250).create("SoundLevel", broker, "L");
  EXPECT_EQ(boost::dynamic_pointer_cast<ZR::SoundLevel>(level)->getDefaultPeriod(), 250);
  EXPECT_TRUE(broker->hasModule("L"));
  level.reset();
  broker->shutdown();
}
