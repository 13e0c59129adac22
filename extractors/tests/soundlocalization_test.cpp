// SoundLocalization and its geometry on sound made here: plane waves from known directions with
// exact fractional delays, diffuse noise, silence, and channels swapped or dead, through the real
// memory service and audio device.

#include <cmath>
#include <cstdio>
#include <fstream>
#include <mutex>
#include <random>

#include <gtest/gtest.h>

#include <vo/log.h>
#include <zraudiodevice/zraudiodevice.h>
#include <zrcommon/zrservicenames.h>
#include <zrextractors/micarray.h>
#include <zrextractors/soundlocalization.h>
#include <zrextractors/zrextractorregistry.h>
#include <zrextractors/zrrecord.h>
#include <zrmemory/zrmemory.h>
#include <zrproxies/zrmemoryproxy.h>
#include <zrtest.h>

#include "../src/sourcetracker.h"

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr int kRate = 16000;
using Point = ZR::ZRMicArray::Point;

struct Source {
  double azimuth, elevation;  // degrees
  double level;               // rms, in 16-bit units
};

Point towards(double azimuth, double elevation) {
  const double a = azimuth * kPi / 180, e = elevation * kPi / 180;
  return {std::cos(e) * std::cos(a), std::cos(e) * std::sin(a), std::sin(e)};
}

// Interleaved samples: each source white noise arriving as a plane wave (windowed-sinc
// fractional delays), plus independent sensor noise of `floor` rms on every channel. The
// sources start after `quiet` seconds.
std::vector<short> planeWaves(const ZR::ZRMicArray& array, const std::vector<Source>& sources,
                              double seconds, double quiet = 0.5, double floor = 3.0,
                              unsigned seed = 7) {
  const int m = array.size(), n = static_cast<int>(seconds * kRate), start = quiet * kRate;
  std::vector<double> out(static_cast<std::size_t>(n) * m, 0.0);
  std::mt19937 rng(seed);
  std::normal_distribution<double> normal;
  constexpr int kHalf = 32;
  for (const Source& s : sources) {
    std::vector<double> dry(n + 200);
    for (double& v : dry) v = normal(rng) * s.level;
    const Point u = towards(s.azimuth, s.elevation);
    for (int c = 0; c < m; ++c) {
      const Point& r = array.mics()[c];
      const double delay =
          60.0 - (r[0] * u[0] + r[1] * u[1] + r[2] * u[2]) / ZR::ZRMicArray::kSpeedOfSound * kRate;
      const int whole = static_cast<int>(std::floor(delay));
      const double frac = delay - whole;
      double h[2 * kHalf];
      for (int k = -kHalf + 1; k <= kHalf; ++k) {
        const double t = k - frac;
        const double sinc = std::fabs(t) < 1e-9 ? 1.0 : std::sin(kPi * t) / (kPi * t);
        h[k + kHalf - 1] = sinc * (0.5 + 0.5 * std::cos(kPi * t / (kHalf + 1)));
      }
      for (int i = start; i < n; ++i) {
        double v = 0.0;
        for (int k = -kHalf + 1; k <= kHalf; ++k) {
          const int j = i + 100 - whole - k;
          if (j >= 0 && j < static_cast<int>(dry.size())) v += dry[j] * h[k + kHalf - 1];
        }
        out[static_cast<std::size_t>(i) * m + c] += v;
      }
    }
  }
  std::vector<short> pcm(out.size());
  for (std::size_t i = 0; i < out.size(); ++i)
    pcm[i] =
        static_cast<short>(std::clamp(std::lround(out[i] + normal(rng) * floor), -32768L, 32767L));
  return pcm;
}

// Spherically diffuse noise: independent noise from many directions at once.
std::vector<short> diffuse(const ZR::ZRMicArray& array, double seconds, double level) {
  std::vector<Source> all;
  for (int i = 0; i < 40; ++i) {
    const double z = 1.0 - 2.0 * (i + 0.5) / 40;
    all.push_back(
        {std::fmod(i * 137.508, 360.0) - 180.0, std::asin(z) * 180 / kPi, level / std::sqrt(40.0)});
  }
  return planeWaves(array, all, seconds, 0.0);
}

// Keeps every Sources event.
class Collector : public ZR::ZRModule {
 public:
  Collector(boost::shared_ptr<ZR::ZRBroker> b, const std::string& name) : ZRModule(b, name) {
    functionName("onEvent", "Collector", "Collects events.", 0);
    bindMethod(&Collector::onEvent);
  }
  void onEvent(const std::string&, const ZR::ZRValue& v, const std::string&) {
    std::lock_guard<std::mutex> lock(mutex);
    periods.push_back(v);
  }
  std::mutex mutex;
  std::vector<ZR::ZRValue> periods;
};

struct Localised {
  std::vector<ZR::ZRValue> periods;
  std::int64_t analysed = 0;
};

// Runs `pcm` (interleaved, `channels` wide) through a SoundLocalization on `array`.
Localised localise(const std::string& array, const std::vector<short>& pcm, int channels,
                   float precision = -1.0f) {
  vo::log::setLogLevel(vo::LogLevel_Error);
  auto broker = ZR::ZRBroker::createBroker("loc");
  auto memory = ZR::ZRModule::createModule<ZR::ZRMemory>(broker, ZR::kMemoryServiceName, 1 << 20);
  ZR::ZRAudioDeviceOptions o;
  o.source = ZR::ZRAudioDeviceOptions::Source::Host;
  o.sampleRate = kRate;
  o.channelCount = channels;
  auto device =
      ZR::ZRModule::createModule<ZR::ZRAudioDevice>(broker, ZR::kAudioDeviceServiceName, o);
  auto loc = ZR::ZRModule::createModule<ZR::SoundLocalization>(broker, "SoundLocalization",
                                                               ZR::ZRMicArray::parse(array));
  auto client = ZR::ZRModule::createModule<Collector>(broker, "client");
  ZR::ZRMemoryProxy(broker).subscribeToEvent("SoundLocalization/Sources", "client", "onEvent");
  if (precision >= 0.0f) loc->updatePrecision("client", precision);
  for (std::size_t i = 0; i + 1600 * channels <= pcm.size(); i += 1600 * channels)
    device->deliver(&pcm[i], 1600);
  device->endStream();
  EXPECT_TRUE(device->waitForEndOfStream(60000));
  EXPECT_TRUE(memory->waitForDeliveries(std::chrono::seconds(10)));
  Localised run{client->periods, loc->analysedPeriods()};
  loc.reset();
  broker->shutdown();
  return run;
}

std::vector<std::vector<std::pair<int, double>>> sources(const Localised& run) {
  std::vector<std::vector<std::pair<int, double>>> out;
  for (const ZR::ZRValue& p : run.periods) {
    out.emplace_back();
    for (const ZR::ZRValue& s : ZR::recordField(p, "sources")->arrayElements())
      out.back().emplace_back(ZR::recordField(s, "id")->toInt(),
                              ZR::recordField(s, "azimuth")->toFloat());
  }
  return out;
}

double angleBetween(double a, double b, bool folded) {
  return folded ? std::fabs(a - b) : std::fabs(std::remainder(a - b, 360.0));
}

TEST(MicArray, ShapesFilesAndRefusals) {
  const ZR::ZRMicArray c4 = ZR::ZRMicArray::parse("circular4-r32mm");
  ASSERT_EQ(c4.size(), 4);
  EXPECT_NEAR(c4.mics()[0][0], 0.032, 1e-9);  // mic 0 on +x, then counter-clockwise
  EXPECT_NEAR(c4.mics()[1][1], 0.032, 1e-9);
  EXPECT_EQ(c4.kind(), ZR::ZRMicArray::Kind::Planar);
  EXPECT_NEAR(c4.axis()[2], 1.0, 1e-9);
  const ZR::ZRMicArray l4 = ZR::ZRMicArray::parse("linear4-d40mm");
  EXPECT_EQ(l4.kind(), ZR::ZRMicArray::Kind::Linear);
  EXPECT_NEAR(l4.mics()[0][0], -0.06, 1e-9);
  EXPECT_NEAR(l4.aperture(), 0.12, 1e-9);
  EXPECT_EQ(ZR::ZRMicArray::parse("circular7-r43.5mm").size(), 7);
  for (const std::string& s : ZR::ZRMicArray::typicalShapes())
    EXPECT_NO_THROW(ZR::ZRMicArray::parse(s));

  const std::string path = ::testing::TempDir() + "/loc_array.json";
  std::ofstream(path)
      << R"({"name": "tetra", "mics": [[0.02, 0, 0], [-0.02, 0, 0], [0, 0.02, 0.01], [0, -0.02, 0.01], [0, 0, 0.03]]})";
  const ZR::ZRMicArray tetra = ZR::ZRMicArray::parse(path);
  EXPECT_EQ(tetra.name(), "tetra");
  EXPECT_EQ(tetra.kind(), ZR::ZRMicArray::Kind::Volumetric);
  EXPECT_EQ(ZR::ZRMicArray::parse(tetra.toJson()).mics(), tetra.mics());

  auto refused = [](const std::string& shape) {
    return zrtest::errorOf([&] { ZR::ZRMicArray::parse(shape); }).getDescription();
  };
  EXPECT_NE(refused("triangle3-r20mm").find("circularN-rXmm"), std::string::npos);
  EXPECT_NE(refused("/nonexistent/array.json").find("cannot read"), std::string::npos);
  EXPECT_NE(refused("{\"mics\": [[0, 0, 0], [0.1").find("not valid JSON"), std::string::npos);
  EXPECT_NE(refused(R"({"mics": [[0, 0, 0], [0.0005, 0, 0], [0.05, 0, 0]]})").find("mics 0 and 1"),
            std::string::npos);
  EXPECT_NE(refused(R"({"mics": [[0, 0, 0], [32, 0, 0]]})").find("metres"), std::string::npos);
  EXPECT_NE(refused(R"({"mics": [[0, 0, 0]]})").find("at least 2"), std::string::npos);
  EXPECT_NE(refused(R"({"mics": [[0, 0, 0], [0, 0, 0.05]]})").find("vertical"), std::string::npos);
  EXPECT_NE(refused(R"({"mics": [[0, 0, 0], ["a", 0, 0]]})").find("no number"), std::string::npos);

  const std::string mismatch = zrtest::errorOf([&] { c4.checkFor(6, kRate); }).getDescription();
  EXPECT_NE(mismatch.find("4 mics"), std::string::npos) << mismatch;
  EXPECT_NE(mismatch.find("6 channel"), std::string::npos) << mismatch;
  const ZR::ZRMicArray tiny = ZR::ZRMicArray::parse("linear2-d5mm");
  EXPECT_NE(zrtest::errorOf([&] { tiny.checkFor(2, 8000); }).getDescription().find("too small"),
            std::string::npos);
  EXPECT_NO_THROW(tiny.checkFor(2, 48000));
}

TEST(SourceTracker, KeepsIdsThroughMovesAndPausesAndEndsAfterTheHold) {
  ZR::SourceTracker tracker(false);
  auto seen = [&](std::vector<std::pair<double, float>> directions) {
    std::vector<ZR::SourceObservation> o;
    for (const auto& [azimuth, coherence] : directions)
      o.push_back({{}, azimuth, 10.0, coherence, 1.0f, -30.0f, 1.0f});
    return tracker.update(o, 0.1, 2);
  };
  EXPECT_TRUE(seen({{170.0, 0.4f}}).empty()) << "one period is not yet a source";
  int id = 0;
  for (int i = 1; i < 10; ++i) {  // moving at 30 deg/s, across the -180/180 seam
    const double azimuth = std::remainder(170.0 + 3.0 * i, 360.0);
    const auto out = seen({{azimuth, 0.4f}});
    ASSERT_EQ(out.size(), 1u) << i;
    if (i == 1) id = out[0].id;
    EXPECT_EQ(out[0].id, id);
    EXPECT_LT(angleBetween(out[0].azimuth, azimuth, false), 5.0) << i;
    EXPECT_GT(out[0].azimuth, -180.0);
    EXPECT_LE(out[0].azimuth, 180.0);
  }
  // Its own bins (the localizer's peak near its candidate) keep it only when they agree.
  const auto own = [&](float purity) {
    ZR::SourceObservation o{{}, 200.0, 10.0, 0.4f, purity, -30.0f, 1.0f, 0};
    EXPECT_EQ(tracker.candidates(2).size(), 1u);
    return tracker.update({o}, 0.1, 2);
  };
  ASSERT_EQ(own(0.8f).size(), 1u);
  const int held = static_cast<int>(std::lround(tracker.reportHold / 0.1));
  EXPECT_EQ(own(0.05f).size(), 1u) << "bins that do not agree are not the source";
  for (int i = 1; i < held; ++i) EXPECT_EQ(seen({}).size(), 1u) << "held through a pause " << i;
  EXPECT_TRUE(seen({}).empty()) << "and ended after it";
  EXPECT_TRUE(seen({{60.0, 0.15f}}).empty()) << "weak sound starts nothing";
  EXPECT_TRUE(seen({{60.0, 0.15f}}).empty());
  const auto clear = seen({{-90.0, 0.7f}});
  ASSERT_EQ(clear.size(), 1u) << "very clear sound is a source at once";
  EXPECT_NE(clear[0].id, id);

  ZR::SourceTracker line(true);  // a line array's angles do not wrap
  line.update({{{}, 179.0, 0.0, 0.4f, 1.0f, -30.0f, 1.0f}}, 0.1, 2);
  const auto folded = line.update({{{}, 178.0, 0.0, 0.4f, 1.0f, -30.0f, 1.0f}}, 0.1, 2);
  ASSERT_EQ(folded.size(), 1u);
  EXPECT_LE(folded[0].azimuth, 180.0);
  EXPECT_GE(folded[0].azimuth, 170.0);
  // Near its axis a line tells angles apart poorly: one talker's directions scatter over tens of
  // degrees there, and are still one source.
  ZR::SourceTracker axis(true);
  for (int i = 0; i < 10; ++i) {
    const auto out = axis.update({{{}, i % 2 ? 35.0 : 5.0, 0.0, 0.4f, 1.0f, -30.0f, 1.0f}}, 0.1, 2);
    if (i == 0) continue;
    ASSERT_EQ(out.size(), 1u) << i;
    EXPECT_GT(out[0].azimuth, 5.0);
    EXPECT_LT(out[0].azimuth, 35.0);
  }
}

// Every shape, sources all around (and above a plane): the reported azimuth within 1 degree.
TEST(SoundLocalization, AnechoicSourcesAtKnownDirections) {
  for (const std::string shape : {"circular4-r32mm", "circular6-r46mm", "linear4-d40mm"}) {
    const ZR::ZRMicArray array = ZR::ZRMicArray::parse(shape);
    const bool linear = array.kind() == ZR::ZRMicArray::Kind::Linear;
    const std::vector<double> azimuths =
        linear ? std::vector<double>{0.0, 30.0, 75.0, 90.0, 128.0, 180.0}
               : std::vector<double>{-150.0, -90.0, -20.0, 0.0, 47.0, 135.0, 180.0};
    for (double azimuth : azimuths) {
      const double elevation = linear ? 0.0 : 20.0;
      const Localised run =
          localise(shape, planeWaves(array, {{azimuth, elevation, 3000}}, 2.0), array.size());
      const auto found = sources(run);
      ASSERT_GT(found.size(), 15u);
      std::vector<double> errors;
      for (std::size_t p = 8; p < found.size(); ++p) {  // once the source is there
        ASSERT_EQ(found[p].size(), 1u) << shape << " " << azimuth << " period " << p;
        errors.push_back(angleBetween(found[p][0].second, azimuth, linear));
        EXPECT_EQ(found[p][0].first, found[8][0].first) << "one source keeps its id";
      }
      std::sort(errors.begin(), errors.end());
      EXPECT_LT(errors[errors.size() / 2], 1.0) << shape << " at " << azimuth;
      EXPECT_LT(errors.back(), 3.0) << shape << " at " << azimuth;
      for (std::size_t p = 0; p < 4; ++p) EXPECT_TRUE(found[p].empty()) << "before the source";
    }
  }
}

TEST(SoundLocalization, TwoSimultaneousSourcesBothFound) {
  const ZR::ZRMicArray array = ZR::ZRMicArray::parse("circular6-r46mm");
  // Nearly as loud as each other, and one 3.5 dB below the other (its bins are fewer).
  for (const double quieter : {2500.0, 2000.0}) {
    const auto found = sources(localise(
        "circular6-r46mm", planeWaves(array, {{-60, 10, 3000}, {75, 10, quieter}}, 3.0), 6));
    int both = 0, periods = 0;
    for (std::size_t p = 10; p < found.size(); ++p, ++periods) {
      bool a = false, b = false;
      for (const auto& [id, az] : found[p]) {
        a = a || angleBetween(az, -60, false) < 3.0;
        b = b || angleBetween(az, 75, false) < 3.0;
      }
      both += a && b;
      EXPECT_LE(found[p].size(), 2u);
    }
    EXPECT_GE(both, periods * 9 / 10) << both << " of " << periods << " at " << quieter;
  }
}

TEST(SoundLocalization, SilenceAndDiffuseNoiseGiveNoSource) {
  const ZR::ZRMicArray array = ZR::ZRMicArray::parse("circular4-r32mm");
  const std::vector<short> silence(static_cast<std::size_t>(kRate) * 3 * 4, 0);
  for (const auto& pcm :
       {silence, diffuse(array, 6.0, 2000), planeWaves(array, {}, 4.0, 0.0, 300)}) {
    const auto found = sources(localise("circular4-r32mm", pcm, 4));
    ASSERT_GT(found.size(), 25u);
    for (std::size_t p = 0; p < found.size(); ++p) EXPECT_TRUE(found[p].empty()) << "period " << p;
  }
}

TEST(SoundLocalization, ChannelCheckNamesSwappedAndDeadChannels) {
  const ZR::ZRMicArray array = ZR::ZRMicArray::parse("circular6-r46mm");
  auto warnings = [&](std::vector<short> pcm, int swapA, int swapB, int dead) {
    for (std::size_t i = 0; i < pcm.size(); i += 6) {
      std::swap(pcm[i + swapA], pcm[i + swapB]);
      if (dead >= 0) pcm[i + dead] = 0;
    }
    zrtest::LogCapture log("zrextractors.SoundLocalization", vo::LogLevel_Warning);
    localise("circular6-r46mm", pcm, 6);
    std::string all;
    for (const auto& r : log.records()) all += r.message + "\n";
    return all;
  };
  std::vector<short> pcm;
  for (double az : {20.0, 140.0, -100.0}) {  // a talker moving from place to place
    const auto part = planeWaves(array, {{az, 15, 3000}}, 2.0, 0.2);
    pcm.insert(pcm.end(), part.begin(), part.end());
  }
  EXPECT_EQ(warnings(pcm, 0, 0, -1), "");
  const std::string swapped = warnings(pcm, 1, 2, -1);
  EXPECT_NE(swapped.find("channels 1 and 2 look swapped"), std::string::npos) << swapped;
  const std::string dead = warnings(pcm, 0, 0, 4);
  EXPECT_NE(dead.find("channel 4 looks dead"), std::string::npos) << dead;
  EXPECT_EQ(dead.find("do not fit"), std::string::npos) << dead;
}

TEST(SoundLocalization, RefusesAMismatchedOrMissingArray) {
  vo::log::setLogLevel(vo::LogLevel_Silent);
  auto broker = ZR::ZRBroker::createBroker("loc-refuse");
  ZR::ZRModule::createModule<ZR::ZRMemory>(broker, ZR::kMemoryServiceName, 1 << 20);
  ZR::ZRAudioDeviceOptions o;
  o.source = ZR::ZRAudioDeviceOptions::Source::Host;
  o.sampleRate = kRate;
  o.channelCount = 6;
  ZR::ZRModule::createModule<ZR::ZRAudioDevice>(broker, ZR::kAudioDeviceServiceName, o);
  const ZR::ZRExtractorRegistry registry = ZR::ZRExtractorRegistry::withStockExtractors();
  auto four = registry.create("SoundLocalization", broker, "Four", {{"array", "circular4-r32mm"}});
  auto none = registry.create("SoundLocalization", broker, "None");
  const ZR::ZRError mismatch = zrtest::errorOf(
      [&] { broker->getProxy("Four", 0)->call<void>("subscribe", std::string("c")); });
  EXPECT_NE(std::string(mismatch.what()).find("4 mics but the audio device delivers 6"),
            std::string::npos)
      << mismatch.what();
  const ZR::ZRError missing = zrtest::errorOf(
      [&] { broker->getProxy("None", 0)->call<void>("subscribe", std::string("c")); });
  EXPECT_NE(std::string(missing.what()).find("no microphone array"), std::string::npos);
  // Configured later, remotely: it runs.
  broker->getProxy("None", 0)->call<void>("setArray", std::string("circular6-r46mm"));
  EXPECT_NE(broker->getProxy("None", 0)->call<std::string>("getArray").find("circular6"),
            std::string::npos);

  // The registry hands options only to types that take them, and refuses the others.
  EXPECT_TRUE(registry.accepts("SoundLocalization", "array"));
  EXPECT_FALSE(registry.accepts("SoundLevel", "array"));
  EXPECT_EQ(registry.optionsFor("SoundLevel", {{"array", "x"}}).size(), 0u);
  EXPECT_NE(
      std::string(zrtest::errorOf([&] {
                    registry.create("SoundLevel", broker, "L", {{"array", "circular4-r32mm"}});
                  }).what())
          .find("takes no option \"array\""),
      std::string::npos);
  EXPECT_NE(std::string(zrtest::errorOf([&] {
                          registry.create("SoundLocalization", broker, "S", {{"sources", "nine"}});
                        }).what())
                .find("1 to 8"),
            std::string::npos);
  four.reset();
  none.reset();
  broker->shutdown();
}

TEST(SoundLocalization, NoSubscriberNoWork) {
  vo::log::setLogLevel(vo::LogLevel_Error);
  auto broker = ZR::ZRBroker::createBroker("loc-idle");
  auto memory = ZR::ZRModule::createModule<ZR::ZRMemory>(broker, ZR::kMemoryServiceName, 1 << 20);
  ZR::ZRAudioDeviceOptions o;
  o.source = ZR::ZRAudioDeviceOptions::Source::Host;
  o.sampleRate = kRate;
  o.channelCount = 4;
  auto device =
      ZR::ZRModule::createModule<ZR::ZRAudioDevice>(broker, ZR::kAudioDeviceServiceName, o);
  auto loc = ZR::ZRModule::createModule<ZR::SoundLocalization>(
      broker, "SoundLocalization", ZR::ZRMicArray::parse("circular4-r32mm"));
  auto client = ZR::ZRModule::createModule<Collector>(broker, "client");
  const std::vector<short> pcm(1600 * 4, 100);
  auto deliver = [&](int buffers) {
    for (int i = 0; i < buffers; ++i) device->deliver(pcm.data(), 1600);
    EXPECT_TRUE(device->waitUntilIdle(20000));
  };
  deliver(5);  // nobody listens: the device does not even run for it
  EXPECT_EQ(loc->analysedPeriods(), 0);
  ZR::ZRMemoryProxy proxy(broker);
  proxy.subscribeToEvent("SoundLocalization/Sources", "client", "onEvent");
  deliver(5);
  EXPECT_EQ(loc->analysedPeriods(), 5);
  proxy.unsubscribeToEvent("SoundLocalization/Sources", "client");
  deliver(5);
  EXPECT_EQ(loc->analysedPeriods(), 5);
  EXPECT_TRUE(memory->waitForDeliveries(std::chrono::seconds(10)));
  loc.reset();
  broker->shutdown();
}

}  // namespace
