// Cost of handing one audio buffer to a sound extractor: the processRemote dispatch (called
// directly, and through a proxy as the audio device does) against a bare virtual call of
// processSound. 4 channels x 1600 samples, i.e. 100 ms at 16 kHz.

#include <cstdint>
#include <vector>

#include <benchmark/benchmark.h>

#include <vo/log.h>
#include <zrcommon/zrbroker.h>
#include <zrcommon/zrmodule.h>
#include <zrcommon/zrproxy.h>
#include <zrcommon/zrservicenames.h>
#include <zrmemory/zrmemory.h>
#include <zrsoundextractor/zrsoundextractor.h>

namespace {

constexpr int kChannels = 4;
constexpr int kSamples = 1600;

class Sink : public ZR::ZRSoundExtractor {
 public:
  using ZRSoundExtractor::ZRSoundExtractor;
  void processSound(int, int, const short* buffer) override { benchmark::DoNotOptimize(buffer); }
};

struct Setup {
  Setup() {
    // No device here: the extractor's warning about it is expected.
    vo::log::setLogLevel(vo::LogLevel_Error);
    broker = ZR::ZRBroker::createBroker("bench", 1);
    ZR::ZRModule::createModule<ZR::ZRMemory>(broker, ZR::kMemoryServiceName);
    sink = ZR::ZRModule::createModule<Sink>(broker, "Sink");
    proxy = broker->getProxy("Sink", 0);
    std::vector<std::int16_t> samples(kChannels * kSamples, 1);
    args.resize(4);
    args[0] = kChannels;
    args[1] = kSamples;
    args[2].arraySetSize(2);
    args[2][0] = 1;
    args[2][1] = 0;
    args[3] = ZR::ZRValue(samples.data(), samples.size() * sizeof(std::int16_t));
  }
  ~Setup() {
    sink.reset();
    proxy.reset();
    broker->shutdown();
  }
  boost::shared_ptr<ZR::ZRBroker> broker;
  boost::shared_ptr<Sink> sink;
  boost::shared_ptr<ZR::ZRProxy> proxy;
  std::vector<ZR::ZRValue> args;  // channels, samples, timestamp, buffer
};

Setup& setup() {
  static Setup s;
  return s;
}

void BM_VirtualProcessSound(benchmark::State& state) {
  // Through the base, so the compiler cannot resolve the override.
  ZR::ZRSoundExtractor* extractor = setup().sink.get();
  benchmark::DoNotOptimize(extractor);
  const short* samples = static_cast<const short*>(setup().args[3].GetBinary());
  for (auto _ : state) extractor->processSound(kChannels, kSamples, samples);
}
BENCHMARK(BM_VirtualProcessSound);

void BM_ProcessRemoteDirect(benchmark::State& state) {
  ZR::ZRSoundExtractor* extractor = setup().sink.get();
  benchmark::DoNotOptimize(extractor);
  const std::vector<ZR::ZRValue>& a = setup().args;
  for (auto _ : state) extractor->processRemote(kChannels, kSamples, a[2], a[3]);
}
BENCHMARK(BM_ProcessRemoteDirect);

void BM_ProcessRemoteThroughProxy(benchmark::State& state) {
  ZR::ZRProxy& proxy = *setup().proxy;
  const std::vector<ZR::ZRValue>& a = setup().args;
  for (auto _ : state)
    benchmark::DoNotOptimize(proxy.metaCall("processRemote", a.data(), a.size()));
}
BENCHMARK(BM_ProcessRemoteThroughProxy);

}  // namespace

BENCHMARK_MAIN();
