// Time figures of the audio device against measurements of the benchmark's own.
//
// Drift: a synthetic live source whose clock runs +100 ppm fast, 10 ms buffers, for 60 s; the
// counters give the device's estimate, its error against the truth and its own uncertainty.
//
// Latency: a live source fed by the benchmark every 10 ms (so that it knows when each buffer
// was captured), 10 subscribers that note when each "processRemote" starts; per subscriber, the
// p99 the device reports (what zr top shows) against the p99 of those notes over the same last
// 1000 deliveries. The counter "worst_p99_diff_ms" is the largest disagreement.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <zraudiodevice/zraudiodevice.h>
#include <zrcommon/zraudiotimestamp.h>
#include <zrcommon/zrservicenames.h>
#include <zrmemory/zrmemory.h>

namespace {

using Clock = std::chrono::steady_clock;

std::int64_t nowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
      .count();
}

// Notes the clock at the start of each delivery, by the buffer's sequence number.
class StampSink : public ZR::ZRModule {
 public:
  StampSink(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name)
      : ZRModule(broker, name) {
    functionName("processRemote", "StampSink", "Notes when a buffer arrives.", 0);
    for (const char* p : {"nbOfChannels", "nbOfSamplesByChannel", "timestamp", "buffer"})
      addParam(p, "");
    bindMethod(&StampSink::processRemote);
  }
  void processRemote(const int&, const int&, const ZR::ZRValue& timestamp, const ZR::ZRValue&) {
    const std::int64_t at = nowNs();
    ZR::ZRAudioTimestamp t;
    ZR::ZRAudioTimestamp::read(timestamp, t);
    std::lock_guard<std::mutex> lock(mutex);
    arrived[t.sequence] = at;
  }
  std::mutex mutex;
  std::map<std::int64_t, std::int64_t> arrived;
};

void BM_DriftOfASkewedLiveSource(benchmark::State& state) {
  const double skew = 100.0;
  for (auto _ : state) {
    auto broker = ZR::ZRBroker::createBroker("bench");
    ZR::ZRAudioDeviceOptions o = ZR::ZRAudioDeviceOptions::fromInput("tone:440");
    o.sampleRate = 16000;
    o.samplesPerBuffer = 160;
    o.realtime = true;
    o.clockSkewPpm = skew;
    o.durationSeconds = static_cast<double>(state.range(0));
    auto device =
        ZR::ZRModule::createModule<ZR::ZRAudioDevice>(broker, ZR::kAudioDeviceServiceName, o);
    auto sink = ZR::ZRModule::createModule<StampSink>(broker, "Sink");
    device->subscribe("Sink");
    device->waitForEndOfStream(-1);
    const ZR::ZRAudioDrift d = device->getDriftEstimate();
    state.counters["estimate_ppm"] = d.ppm;
    state.counters["error_ppm"] = d.ppm - skew;
    state.counters["uncertainty_ppm"] = d.uncertaintyPpm;
    state.counters["buffers"] = static_cast<double>(d.points);
    device->unsubscribe("Sink");
    broker->shutdown();
  }
}
BENCHMARK(BM_DriftOfASkewedLiveSource)->Arg(60)->Iterations(1)->Unit(benchmark::kSecond);

double p99(std::vector<double> v) {
  const auto k = static_cast<std::size_t>(std::ceil(0.99 * static_cast<double>(v.size()))) - 1;
  std::nth_element(v.begin(), v.begin() + static_cast<std::ptrdiff_t>(k), v.end());
  return v[k];
}

void BM_LatencyAgreesWithAnIndependentMeasurement(benchmark::State& state) {
  const int subscribers = 10, frames = 160, rate = 16000, buffers = 1500;
  for (auto _ : state) {
    auto broker = ZR::ZRBroker::createBroker("bench", 4);
    ZR::ZRAudioDeviceOptions o;
    o.source = ZR::ZRAudioDeviceOptions::Source::Host;
    o.sampleRate = rate;
    o.samplesPerBuffer = frames;
    o.realtime = true;  // live: nobody waits for a subscriber
    auto device =
        ZR::ZRModule::createModule<ZR::ZRAudioDevice>(broker, ZR::kAudioDeviceServiceName, o);
    std::vector<boost::shared_ptr<StampSink>> sinks;
    for (int i = 0; i < subscribers; ++i) {
      sinks.push_back(ZR::ZRModule::createModule<StampSink>(broker, "Sink" + std::to_string(i)));
      device->subscribe("Sink" + std::to_string(i));
    }
    // The benchmark is the sound card: a buffer is complete when it is handed over, so its
    // first sample was captured one buffer earlier.
    std::vector<std::int64_t> captured(buffers);
    std::vector<std::int16_t> samples(frames);
    const auto start = Clock::now();
    for (int n = 0; n < buffers; ++n) {
      std::this_thread::sleep_until(start + std::chrono::milliseconds(10 * (n + 1)));
      captured[n] = nowNs() - std::int64_t{frames} * 1000000000 / rate;
      device->deliver(samples.data(), frames);
    }
    device->waitUntilIdle(-1);
    double worst = 0, p99Sum = 0;
    for (int i = 0; i < subscribers; ++i) {
      std::vector<double> mine;
      {
        std::lock_guard<std::mutex> lock(sinks[i]->mutex);
        for (const auto& [seq, at] : sinks[i]->arrived)
          if (seq >= buffers - 1000) mine.push_back(static_cast<double>(at - captured[seq]) / 1e6);
      }
      ZR::ZRAudioLatency l;
      device->getLatencyFigures("Sink" + std::to_string(i), l);
      worst = std::max(worst, std::fabs(l.p99Ms - p99(mine)));
      p99Sum += l.p99Ms;
    }
    state.counters["device_p99_ms"] = p99Sum / subscribers;
    state.counters["worst_p99_diff_ms"] = worst;
    for (int i = 0; i < subscribers; ++i) device->unsubscribe("Sink" + std::to_string(i));
    broker->shutdown();
  }
}
BENCHMARK(BM_LatencyAgreesWithAnIndependentMeasurement)->Iterations(1)->Unit(benchmark::kSecond);

}  // namespace

BENCHMARK_MAIN();
