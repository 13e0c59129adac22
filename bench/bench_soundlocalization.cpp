// SoundLocalization alone on 6 channels at 16 kHz (circular6-r46mm), buffers of 100 ms handed
// straight to process(), at the lowest, default and highest precision. The sound is two talkers'
// worth of noise bursts from two directions over a diffuse-ish floor, so that every stage runs
// (peaks, refinement, tracking). Counters: "x_realtime", seconds of sound per second of the
// analysing thread's CPU (the target is 300 or more on one core); "cpu_pct_live", the share of
// one core the extractor takes on a live 6-channel stream (100 / x_realtime).

#include <cmath>
#include <cstdint>
#include <ctime>
#include <random>
#include <vector>

#include <benchmark/benchmark.h>

#include <vo/log.h>
#include <zrcommon/zrbroker.h>
#include <zrcommon/zrservicenames.h>
#include <zrextractors/micarray.h>
#include <zrextractors/soundlocalization.h>
#include <zrmemory/zrmemory.h>

namespace {

constexpr int kRate = 16000;
constexpr int kChannels = 6;

// 10 s: two sources (integer delays are enough for timing) taking turns and overlapping.
std::vector<short> makeSound(const ZR::ZRMicArray& array) {
  const int n = 10 * kRate;
  std::vector<short> pcm(static_cast<std::size_t>(n) * kChannels);
  std::mt19937 rng(3);
  std::normal_distribution<double> normal;
  const double az[2] = {0.6, -2.1};
  std::vector<double> a(n + 64), b(n + 64);
  for (std::size_t i = 0; i < a.size(); ++i) a[i] = normal(rng), b[i] = normal(rng);
  for (int c = 0; c < kChannels; ++c) {
    const auto& r = array.mics()[c];
    const int da = 32 - static_cast<int>(std::lround(
                            (r[0] * std::cos(az[0]) + r[1] * std::sin(az[0])) / 343.0 * kRate));
    const int db = 32 - static_cast<int>(std::lround(
                            (r[0] * std::cos(az[1]) + r[1] * std::sin(az[1])) / 343.0 * kRate));
    for (int i = 0; i < n; ++i) {
      const double t = static_cast<double>(i) / kRate;
      const double ga = std::fmod(t, 3.0) < 2.0 ? 2000.0 : 0.0;
      const double gb = std::fmod(t + 1.0, 4.0) < 2.5 ? 1500.0 : 0.0;
      pcm[static_cast<std::size_t>(i) * kChannels + c] =
          static_cast<short>(ga * a[i + da] + gb * b[i + db] + 30.0 * normal(rng));
    }
  }
  return pcm;
}

void SoundLocalization6ch16k(benchmark::State& state) {
  vo::log::setLogLevel(vo::LogLevel_Error);  // no audio device here: its warning is expected
  auto broker = ZR::ZRBroker::createBroker("bench", 1);
  ZR::ZRModule::createModule<ZR::ZRMemory>(broker, ZR::kMemoryServiceName);
  const ZR::ZRMicArray array = ZR::ZRMicArray::parse("circular6-r46mm");
  auto loc = ZR::ZRModule::createModule<ZR::SoundLocalization>(broker, "SoundLocalization", array);
  loc->xUpdateParameters(100, static_cast<float>(state.range(0)) / 100.0f);
  const std::vector<short> pcm = makeSound(array);
  constexpr int kBuffer = 1600;
  std::int64_t delivered = 0;
  timespec start{}, end{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &start);
  for (auto _ : state) {
    for (std::size_t i = 0; i + kBuffer * kChannels <= pcm.size();
         i += kBuffer * kChannels, delivered += kBuffer) {
      ZR::ZRValue ts;
      ts.arraySetSize(2);
      ts[0] = static_cast<int>(delivered / kRate);
      ts[1] = static_cast<int>(delivered % kRate * 62.5);
      loc->process(kChannels, kBuffer, &pcm[i], ts);
    }
  }
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &end);
  const double seconds = static_cast<double>(delivered) / kRate;
  const double cpu = static_cast<double>(end.tv_sec - start.tv_sec) +
                     static_cast<double>(end.tv_nsec - start.tv_nsec) * 1e-9;
  state.counters["x_realtime"] = benchmark::Counter(seconds, benchmark::Counter::kIsRate);
  state.counters["cpu_pct_live"] = 100.0 * cpu / seconds;
  loc.reset();
  broker->shutdown();
}
// Precision in hundredths: lowest, default, highest.
BENCHMARK(SoundLocalization6ch16k)->Arg(0)->Arg(50)->Arg(100)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
