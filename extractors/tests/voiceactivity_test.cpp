// VoiceActivity on known-truth mixes made here from the bundled sample and synthesised noise,
// through the real memory service and audio device.

#include <sndfile.h>

#include <atomic>
#include <cmath>
#include <fstream>
#include <functional>
#include <mutex>
#include <random>
#include <sstream>

#include <gtest/gtest.h>

#include <vo/log.h>
#include <zraudiodevice/zraudiodevice.h>
#include <zrextractors/voiceactivity.h>
#include <zrextractors/zrrecord.h>
#include <zrmemory/zrmemory.h>
#include <zrproxies/zrmemoryproxy.h>

namespace {

using Segments = std::vector<std::pair<double, double>>;

class Collector : public ZR::ZRModule {
 public:
  Collector(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name)
      : ZRModule(broker, name) {
    functionName("onEvent", "Collector", "Collects segments.", 0);
    addParam("event", "");
    addParam("value", "");
    addParam("id", "");
    bindMethod(&Collector::onEvent);
  }
  void onEvent(const std::string&, const ZR::ZRValue& v, const std::string&) {
    std::lock_guard<std::mutex> lock(mutex);
    segments.emplace_back(ZR::recordField(v, "start")->toFloat(),
                          ZR::recordField(v, "end")->toFloat());
  }
  std::mutex mutex;
  Segments segments;
};

// The detector's segments for interleaved 16 kHz sound; precision < 0 keeps the default.
// `deliver` replaces plain delivery (for calls that go around the device).
Segments detect(const std::vector<short>& pcm, int channels, float precision = -1.0f,
                std::function<void(ZR::ZRBroker&)> deliver = nullptr) {
  auto broker = ZR::ZRBroker::createBroker("vad");
  auto memory = ZR::ZRModule::createModule<ZR::ZRMemory>(broker, "ZRMemory", 1 << 20);
  ZR::ZRAudioDeviceOptions o;
  o.source = ZR::ZRAudioDeviceOptions::Source::Host;
  o.sampleRate = 16000;
  o.channelCount = channels;
  auto device = ZR::ZRModule::createModule<ZR::ZRAudioDevice>(broker, "ZRAudioDevice", o);
  auto voice = ZR::ZRModule::createModule<ZR::VoiceActivity>(broker, "VoiceActivity");
  auto client = ZR::ZRModule::createModule<Collector>(broker, "client");
  ZR::ZRMemoryProxy(broker).subscribeToEvent("VoiceActivity/Segment", "client", "onEvent");
  if (precision >= 0.0f) voice->updatePrecision("client", precision);
  if (deliver) {
    deliver(*broker);
  } else {
    for (std::size_t i = 0; i < pcm.size(); i += 1600 * channels)
      device->deliver(
          &pcm[i],
          static_cast<int>(std::min<std::size_t>(1600 * channels, pcm.size() - i)) / channels);
  }
  device->endStream();
  EXPECT_TRUE(device->waitForEndOfStream(60000));
  voice->flush();
  EXPECT_TRUE(memory->waitForDeliveries(std::chrono::seconds(10)));
  Segments out = client->segments;
  client.reset();
  voice.reset();
  device.reset();
  memory.reset();
  broker->shutdown();
  return out;
}

struct Sample {
  std::vector<double> speech;  // the bundled sample, in [-1, 1)
  Segments truth;
};

const Sample& sample() {
  static const Sample s = [] {
    Sample s;
    SF_INFO info{};
    SNDFILE* f = sf_open(ZR_SAMPLE, SFM_READ, &info);
    EXPECT_TRUE(f && info.samplerate == 16000 && info.channels == 1);
    std::vector<short> pcm(static_cast<std::size_t>(info.frames));
    sf_readf_short(f, pcm.data(), info.frames);
    sf_close(f);
    for (short v : pcm) s.speech.push_back(v / 32768.0);
    std::ifstream csv(ZR_SAMPLE_SEGMENTS);
    std::string line;
    std::getline(csv, line);
    double a, b;
    char comma;
    while (std::getline(csv, line) && std::istringstream(line) >> a >> comma >> b)
      s.truth.emplace_back(a, b);
    return s;
  }();
  return s;
}

enum class Noise { White, Pink, Brown, Rising, Events };

// Unit-power noise of a kind (rising: 40 dB over its length; events: clicks, bursts and a bell
// in silence, at unit power while they sound).
std::vector<double> noise(Noise kind, std::size_t n, unsigned seed = 7) {
  std::mt19937 rng(seed);
  std::normal_distribution<double> g;
  std::vector<double> x(n, 0.0);
  double b0 = 0, b1 = 0, b2 = 0, brown = 0, sum = 0;
  for (std::size_t i = 0; i < n; ++i) {
    const double w = g(rng);
    b0 = 0.99765 * b0 + w * 0.0990460;  // pink: three leaky integrators
    b1 = 0.96300 * b1 + w * 0.2965164;
    b2 = 0.57000 * b2 + w * 1.0526913;
    const double pink = b0 + b1 + b2 + w * 0.1848;
    const double t = double(i) / 16000;
    switch (kind) {
      case Noise::White:
        x[i] = w;
        break;
      case Noise::Pink:
        x[i] = pink;
        break;
      case Noise::Brown:
        x[i] = brown = 0.998 * brown + w;
        break;
      case Noise::Rising:
        x[i] = pink * std::pow(10.0, (-40.0 + 40.0 * i / n) / 20);
        break;
      case Noise::Events: {
        const double cycle = std::fmod(t, 1.3), bell = std::fmod(t, 4.0);
        if (cycle < 0.004 || (cycle > 0.6 && cycle < 0.68)) x[i] = 2 * w;  // click, burst
        if (bell < 0.8)
          x[i] += 3 * std::exp(-bell * 6) *
                  (std::sin(2 * M_PI * 880 * t) + 0.5 * std::sin(2 * M_PI * 2350 * t));
      }
    }
    sum += x[i] * x[i];
  }
  if (kind != Noise::Events)
    for (double& v : x) v /= std::sqrt(sum / n);
  return x;
}

std::vector<short> pcm16(const std::vector<double>& x) {
  std::vector<short> out;
  for (double v : x)
    out.push_back(static_cast<short>(std::lround(std::clamp(v, -1.0, 0.99997) * 32768)));
  return out;
}

// The sample with noise at `snrDb` below the speech's power over its true segments.
std::vector<short> mix(Noise kind, double snrDb) {
  const Sample& s = sample();
  double speech = 0.0;
  std::size_t frames = 0;
  for (const auto& [a, b] : s.truth)
    for (std::size_t i = std::size_t(a * 16000); i < std::size_t(b * 16000); ++i, ++frames)
      speech += s.speech[i] * s.speech[i];
  const std::vector<double> n = noise(kind, s.speech.size());
  const double gain = std::sqrt(speech / frames / std::pow(10.0, snrDb / 10));
  std::vector<double> x(s.speech);
  for (std::size_t i = 0; i < x.size(); ++i) x[i] = 0.5 * (x[i] + gain * n[i]);  // headroom
  return pcm16(x);
}

// Frame F1 (10 ms frames) of `found` against `truth`.
double f1(const Segments& truth, const Segments& found, double seconds) {
  auto in = [](const Segments& s, double t) {
    return std::any_of(s.begin(), s.end(),
                       [t](const auto& p) { return p.first <= t && t < p.second; });
  };
  double tp = 0, fp = 0, fn = 0;
  for (double t = 0.005; t < seconds; t += 0.01) {
    const bool a = in(truth, t), b = in(found, t);
    tp += a && b;
    fp += b && !a;
    fn += a && !b;
  }
  return 2 * tp / (2 * tp + fp + fn);
}

}  // namespace

TEST(VoiceActivity, FindsTheSpeechInNoiseOfEveryKindAboveItsFloor) {
  vo::log::setLogLevel(vo::LogLevel_Error);
  const double seconds = sample().speech.size() / 16000.0;
  const struct {
    Noise kind;
    double snrDb, floor;
  } cases[] = {{Noise::White, 10, 0.9},  {Noise::Pink, 10, 0.9},   {Noise::Brown, 10, 0.9},
               {Noise::Rising, 10, 0.9}, {Noise::Events, 10, 0.9}, {Noise::White, 0, 0.75},
               {Noise::Pink, 0, 0.75},   {Noise::Brown, 0, 0.75}};
  for (const auto& c : cases) {
    const Segments found = detect(mix(c.kind, c.snrDb), 1);
    EXPECT_GE(f1(sample().truth, found, seconds), c.floor)
        << "noise " << int(c.kind) << " at " << c.snrDb << " dB";
    for (const auto& [a, b] : found)
      EXPECT_GE(b - a, ZR::VoiceActivity::kMinSegmentMs / 1000.0 - 1e-3);
  }
  // Higher precision, more sensitive: more speech found where it is hard to hear.
  const std::vector<short> hard = mix(Noise::Pink, -5);
  auto length = [](const Segments& s) {
    double sum = 0;
    for (const auto& [a, b] : s) sum += b - a;
    return sum;
  };
  EXPECT_GT(length(detect(hard, 1, 1.0f)), length(detect(hard, 1, 0.0f)) + 0.3);
}

TEST(VoiceActivity, FindsNothingInRisingNoiseOrSoundEvents) {
  vo::log::setLogLevel(vo::LogLevel_Error);
  std::vector<double> rising = noise(Noise::Rising, 20 * 16000, 3);
  for (double& v : rising) v *= 0.1;  // -60 to -20 dBFS
  EXPECT_TRUE(detect(pcm16(rising), 1).empty());
  std::vector<double> events = noise(Noise::Events, 12 * 16000, 3),
                      hiss = noise(Noise::White, events.size(), 4);
  for (std::size_t i = 0; i < events.size(); ++i) events[i] = 0.1 * events[i] + 0.001 * hiss[i];
  EXPECT_TRUE(detect(pcm16(events), 1).empty());
}

TEST(VoiceActivity, HearsInvertedStereoChannelsAsOne) {
  vo::log::setLogLevel(vo::LogLevel_Error);
  const std::vector<short> mono = mix(Noise::Pink, 20);
  std::vector<short> stereo;
  for (short v : mono) stereo.insert(stereo.end(), {v, static_cast<short>(-v)});
  const Segments a = detect(mono, 1), b = detect(stereo, 2);
  ASSERT_EQ(a.size(), sample().truth.size());
  ASSERT_EQ(b.size(), a.size());
  for (std::size_t i = 0; i < a.size(); ++i) {
    EXPECT_NEAR(b[i].first, a[i].first, 0.02);
    EXPECT_NEAR(b[i].second, a[i].second, 0.02);
  }
}

TEST(VoiceActivity, IgnoresBuffersWhoseCountsDoNotFitAndSaysSoNowAndThen) {
  vo::log::setLogLevel(vo::LogLevel_Error);
  std::atomic<int> warnings{0};
  vo::log::addHandler("vad", [&](const vo::log::Record& r) {
    if (r.category == "extractors.voiceactivity" && r.level == vo::LogLevel_Warning) ++warnings;
  });
  const std::vector<short> pcm = mix(Noise::White, 20);
  const Segments found = detect(pcm, 1, -1.0f, [&](ZR::ZRBroker& broker) {
    auto voice = broker.getProxy("VoiceActivity", 0);
    for (std::size_t i = 0; i < pcm.size(); i += 1600) {
      const int n = static_cast<int>(std::min<std::size_t>(1600, pcm.size() - i));
      const ZR::ZRValue buffer(&pcm[i], n * sizeof(short));
      ZR::ZRValue ts;  // [seconds, microseconds]
      ts.arraySetSize(2);
      ts[0] = static_cast<int>(i / 16000);
      ts[1] = static_cast<int>(i % 16000 * 1000000 / 16000);
      for (const auto& [channels, samples] : std::initializer_list<std::pair<int, int>>{
               {1, n + 1}, {2, n}, {0, n}, {1, 0}, {-1, -n}, {1, 1 << 30}, {1 << 16, 1 << 16}})
        voice->call<void>("processRemote", channels, samples, ts, buffer);
      voice->call<void>("processRemote", 1, 16, ts, ZR::ZRValue());
      voice->call<void>("processRemote", 1, 16, ts, ZR::ZRValue(std::string("not sound")));
      voice->call<void>("processRemote", 1, n, ts, buffer);  // the only one that fits
    }
  });
  vo::log::removeHandler("vad");
  // Hundreds ignored, a few lines said so.
  EXPECT_GE(warnings.load(), 1);
  EXPECT_LE(warnings.load(), 10);
  // Nothing of the ignored buffers reached the detector: the fitting ones alone give the truth.
  ASSERT_EQ(found.size(), sample().truth.size());
  for (std::size_t i = 0; i < found.size(); ++i) {
    EXPECT_NEAR(found[i].first, sample().truth[i].first, 0.1);
    EXPECT_NEAR(found[i].second, sample().truth[i].second, 0.1);
  }
}
