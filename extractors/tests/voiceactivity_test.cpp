// VoiceActivity on mixes of the bundled sample and noise made here, through the real services.

#include <sndfile.h>

#include <array>
#include <cmath>
#include <fstream>
#include <functional>
#include <mutex>
#include <random>

#include <gtest/gtest.h>

#include <vo/log.h>
#include <zraudiodevice/zraudiodevice.h>
#include <zrextractors/voiceactivity.h>
#include <zrmemory/zrmemory.h>
#include <zrproxies/zrmemoryproxy.h>
#include <zrtest.h>

namespace {

using Segments = std::vector<std::pair<double, double>>;

class Collector : public ZR::ZRModule {
 public:
  Collector(boost::shared_ptr<ZR::ZRBroker> b, const std::string& name) : ZRModule(b, name) {
    functionName("onEvent", "Collector", "Collects segments.", 0);
    bindMethod(&Collector::onEvent);
  }
  void onEvent(const std::string&, const ZR::ZRValue& v, const std::string&) {
    std::lock_guard<std::mutex> lock(mutex);
    segments.emplace_back(v[0][1].toFloat(), v[1][1].toFloat());  // [["start", s], ["end", s]]
  }
  std::mutex mutex;
  Segments segments;
};

// The segments found in interleaved 16 kHz sound (whole 100 ms buffers), with the subscriber's
// precision unless < 0; `deliver`, when given, replaces delivery through the device.
Segments detect(const std::vector<short>& pcm, int channels, float precision = -1.0f,
                std::function<void(ZR::ZRBroker&)> deliver = nullptr) {
  vo::log::setLogLevel(vo::LogLevel_Error);
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
  if (deliver) deliver(*broker);
  for (std::size_t i = 0; !deliver && i < pcm.size(); i += 1600 * channels)
    device->deliver(&pcm[i], 1600);
  device->endStream();
  EXPECT_TRUE(device->waitForEndOfStream(60000));
  voice->flush();
  EXPECT_TRUE(memory->waitForDeliveries(std::chrono::seconds(10)));
  const Segments out = client->segments;
  voice.reset();  // before the device it listens to
  broker->shutdown();
  return out;
}

// The bundled sample in [-1, 1), and its true segments.
const std::pair<std::vector<double>, Segments>& sample() {
  static const auto loaded = [] {
    std::pair<std::vector<double>, Segments> s;
    SF_INFO info{};
    SNDFILE* f = sf_open(ZR_SAMPLE, SFM_READ, &info);
    EXPECT_TRUE(f && info.samplerate == 16000 && info.channels == 1);
    s.first.resize(static_cast<std::size_t>(info.frames));
    sf_readf_double(f, s.first.data(), info.frames);
    sf_close(f);
    std::ifstream csv(ZR_SAMPLE_SEGMENTS);
    double a, b;
    char comma;
    for (csv.ignore(100, '\n'); csv >> a >> comma >> b;) s.second.emplace_back(a, b);
    return s;
  }();
  return loaded;
}

enum class Noise { White, Pink, Brown, Rising, Events, Babble };
// Noise of unit power (rising by 40 dB; babble: the sample at six offsets), or events: a click
// and a short buzz every 1.3 s and a bell every 4 s at about unit power, over hiss 40 dB down.
std::vector<double> noise(Noise kind, std::size_t n, unsigned seed = 7) {
  std::mt19937 rng(seed);
  std::normal_distribution<double> g;
  std::vector<double> x(n, 0.0);
  double b0 = 0, b1 = 0, b2 = 0, brown = 0, sum = 0;
  for (std::size_t i = 0; i < n; ++i) {
    const double w = g(rng), t = double(i) / 16000, cycle = std::fmod(t, 1.3),
                 bell = std::fmod(t, 4.0);
    b0 = 0.99765 * b0 + w * 0.0990460;  // pink: three leaky integrators
    b1 = 0.96300 * b1 + w * 0.2965164;
    b2 = 0.57000 * b2 + w * 1.0526913;
    brown = 0.998 * brown + w;
    const double pink = b0 + b1 + b2 + w * 0.1848;
    const double buzz = cycle > 0.7 && cycle < 0.78 ? 4 * std::fmod(t * 150, 1.0) - 2 : 0.0;
    const double event = (cycle < 0.004 ? 2 * w : 0.01 * w) + buzz +
                         (bell < 0.4 ? 4 * std::exp(-bell * 6) * std::sin(2 * M_PI * 880 * t) : 0);
    const double rising = pink * std::pow(10.0, (-40.0 + 40.0 * i / n) / 20);
    x[i] = std::array<double, 6>{w, pink, brown, rising, event, 0.0}[static_cast<int>(kind)];
    for (std::size_t k = 1; k <= 6 && kind == Noise::Babble; ++k)
      x[i] += sample().first[(i + k * 23000) % sample().first.size()];
    sum += x[i] * x[i];
  }
  for (double& v : x) v /= kind == Noise::Events ? 1.0 : std::sqrt(sum / n);
  return x;
}

std::vector<short> pcm16(const std::vector<double>& x, double gain = 1.0) {
  std::vector<short> out;
  for (double v : x) out.push_back(short(std::clamp(v * gain * 32768, -32768.0, 32767.0)));
  return out;
}

// The sample with noise `snrDb` below the speech's power over its true segments.
std::vector<short> mix(Noise kind, double snrDb) {
  const auto& [speech, truth] = sample();
  double power = 0.0, count = 0.0;
  for (const auto& [a, b] : truth)
    for (std::size_t i = std::size_t(a * 16000); i < std::size_t(b * 16000); ++i, ++count)
      power += speech[i] * speech[i];
  const std::vector<double> n = noise(kind, speech.size());
  const double gain = std::sqrt(power / count / std::pow(10.0, snrDb / 10));
  std::vector<double> x(speech.size() / 1600 * 1600);
  for (std::size_t i = 0; i < x.size(); ++i) x[i] = 0.5 * (speech[i] + gain * n[i]);  // headroom
  return pcm16(x);
}

double f1(const Segments& found) {  // of 10 ms frames, against the sample's truth
  auto in = [](const Segments& s, double t) {
    return std::any_of(s.begin(), s.end(),
                       [t](const auto& p) { return p.first <= t && t < p.second; });
  };
  double tp = 0, fp = 0, fn = 0, tn = 0;
  for (double t = 0.005; t < sample().first.size() / 16000.0; t += 0.01)
    ++(in(sample().second, t) ? (in(found, t) ? tp : fn) : (in(found, t) ? fp : tn));
  return 2 * tp / (2 * tp + fp + fn);
}

}  // namespace

TEST(VoiceActivity, FindsSpeechInNoiseOfEveryKindAndInvertedStereoAndNothingInNoiseAlone) {
  const struct {
    Noise kind;
    double snrDb, floor;
  } cases[] = {{Noise::White, 10, 0.9},  {Noise::Pink, 10, 0.9},   {Noise::Brown, 10, 0.9},
               {Noise::Rising, 10, 0.9}, {Noise::Events, 10, 0.9}, {Noise::Babble, 10, 0.92},
               {Noise::White, 0, 0.75},  {Noise::Pink, 0, 0.75},   {Noise::Brown, 0, 0.75}};
  for (const auto& c : cases) {
    const Segments found = detect(mix(c.kind, c.snrDb), 1);
    EXPECT_GE(f1(found), c.floor) << "noise " << int(c.kind) << " at " << c.snrDb << " dB";
    for (const auto& [a, b] : found)
      EXPECT_GE(b - a, ZR::VoiceActivity::kMinSegmentMs / 1000.0 - 1e-3);
  }
  // Higher precision, more sensitive: more speech found where it is hard to hear.
  double more = 0.0;
  for (float p : {1.0f, 0.0f})
    for (const auto& [a, b] : detect(mix(Noise::Pink, -5), 1, p)) more += p > 0 ? b - a : a - b;
  EXPECT_GT(more, 0.3);
  // Pure noise rising from -60 to -20 dBFS, pure events over faint hiss: no speech.
  EXPECT_TRUE(detect(pcm16(noise(Noise::Rising, 20 * 16000, 3), 0.1), 1).empty());
  EXPECT_TRUE(detect(pcm16(noise(Noise::Events, 12 * 16000, 3), 0.1), 1).empty());
  const auto& x = sample().first;  // speech from the first sample on: its first phrase whole
  const Segments first = detect(pcm16({x.begin() + 12800, x.begin() + x.size() / 1600 * 1600}), 1);
  EXPECT_NEAR(first.empty() ? 0.0 : first[0].second, sample().second[0].second - 0.8, 0.2);
  std::vector<short> stereo;  // one channel inverted: nothing may cancel
  for (short v : mix(Noise::Pink, 20)) stereo.insert(stereo.end(), {v, static_cast<short>(-v)});
  EXPECT_GE(f1(detect(stereo, 2)), 0.95);
}

TEST(VoiceActivity, IgnoresBuffersWhoseCountsDoNotFitAndSaysSoNowAndThen) {
  zrtest::LogCapture warnings("zrextractors.VoiceActivity", vo::LogLevel_Warning);
  const std::vector<short> pcm = mix(Noise::White, 20);
  const std::pair<int, int> unfit[] = {{1, 1601},   {2, 1600},    {0, 1600},         {1, 0},
                                       {-1, -1600}, {1, 1 << 30}, {1 << 16, 1 << 16}};
  const Segments found = detect(pcm, 1, -1.0f, [&](ZR::ZRBroker& broker) {
    auto voice = broker.getProxy("VoiceActivity", 0);
    for (std::size_t i = 0; i < pcm.size(); i += 1600) {
      const ZR::ZRValue buffer(&pcm[i], 3200);  // 1600 samples: mix() makes whole buffers
      ZR::ZRValue ts;                           // [seconds, microseconds]
      ts.arraySetSize(2);
      ts[0] = static_cast<int>(i / 16000);
      ts[1] = static_cast<int>(i % 16000 * 1000000 / 16000);
      for (const auto& [channels, samples] : unfit)
        voice->call<void>("processRemote", channels, samples, ts, buffer);
      voice->call<void>("processRemote", 1, 16, ts, ZR::ZRValue());
      voice->call<void>("processRemote", 1, 16, ts, ZR::ZRValue(std::string("not sound")));
      voice->call<void>("processRemote", 1, 1600, ts, buffer);  // the only one that fits
    }
  });
  EXPECT_NEAR(warnings.records().size(), 5.5, 4.5);  // hundreds ignored, 1 to 10 lines said so
  EXPECT_GE(f1(found), 0.95);                        // the fitting buffers, all there and alone
}
