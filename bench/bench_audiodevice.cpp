// Audio device delivery: one buffer of 4 channels x 1600 samples to 1 and to 10 in-process
// subscribers that do nothing. The "zero_copy" counter is the share of deliveries in which the
// subscriber's GetBinary() was the very block the device (or host) filled: 1 means no copy.
#include <benchmark/benchmark.h>

#include <atomic>
#include <string>
#include <vector>

#include <zraudiodevice/zraudiodevice.h>
#include <zrcommon/zrservicenames.h>

namespace {

const int kChannels = 4;
const int kSamples = 1600;

class NullSink : public ZR::ZRModule {
 public:
  NullSink(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name)
      : ZRModule(broker, name) {
    functionName("processRemote", "NullSink", "Looks at the buffer's address only.", 0);
    addParam("nbOfChannels", "");
    addParam("nbOfSamplesByChannel", "");
    addParam("timestamp", "");
    addParam("buffer", "");
    bindMethod(&NullSink::processRemote);
  }
  void processRemote(const int&, const int&, const ZR::ZRValue&, const ZR::ZRValue& buffer) {
    const void* p = buffer.GetBinary();
    last.store(p, std::memory_order_relaxed);
    calls.fetch_add(1, std::memory_order_relaxed);
    if (p == expected.load(std::memory_order_relaxed)) same.fetch_add(1, std::memory_order_relaxed);
  }
  std::atomic<const void*> last{nullptr}, expected{nullptr};
  std::atomic<long> calls{0}, same{0};
};

struct Rig {
  Rig(int subscribers, ZR::ZRAudioDeviceOptions options) {
    broker = ZR::ZRBroker::createBroker("bench");
    options.channelCount = kChannels;
    options.samplesPerBuffer = kSamples;
    device =
        ZR::ZRModule::createModule<ZR::ZRAudioDevice>(broker, ZR::kAudioDeviceServiceName, options);
    for (int i = 0; i < subscribers; ++i) {
      sinks.push_back(ZR::ZRModule::createModule<NullSink>(broker, "Sink" + std::to_string(i)));
    }
  }
  ~Rig() {
    unsubscribeAll();  // a device that goes away with subscribers warns about each
    sinks.clear();
    device.reset();
    broker->shutdown();
  }
  void subscribeAll() {
    for (auto& s : sinks) device->subscribe(s->getName());
  }
  void unsubscribeAll() {
    for (auto& s : sinks) device->unsubscribe(s->getName());
  }
  boost::shared_ptr<ZR::ZRBroker> broker;
  boost::shared_ptr<ZR::ZRAudioDevice> device;
  std::vector<boost::shared_ptr<NullSink>> sinks;
};

ZR::ZRAudioDeviceOptions hostFed() {
  ZR::ZRAudioDeviceOptions o;
  o.source = ZR::ZRAudioDeviceOptions::Source::Host;
  return o;
}

// items_per_second: buffers; per_subscriber: seconds per delivery to one subscriber.
void reportPerSubscriber(benchmark::State& state, long buffers, int subscribers) {
  state.SetItemsProcessed(buffers);
  state.counters["per_subscriber"] =
      benchmark::Counter(static_cast<double>(buffers) * subscribers,
                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

// One buffer at a time, all the way through: the device copies the host's samples once into a
// block of its own, every subscriber processes it, and the device is idle again.
void BM_DeliverRoundTrip(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  Rig rig(n, hostFed());
  rig.subscribeAll();
  std::vector<std::int16_t> samples(kChannels * kSamples, 7);
  long checks = 0, same = 0;
  for (auto _ : state) {
    const ZR::ZRValue filled = rig.device->deliver(samples.data(), kSamples);
    rig.device->waitUntilIdle(-1);
    for (auto& s : rig.sinks) {
      ++checks;
      same += s->last.load(std::memory_order_relaxed) == filled.GetBinary();
    }
  }
  reportPerSubscriber(state, static_cast<long>(state.iterations()), n);
  state.counters["zero_copy"] = checks ? static_cast<double>(same) / checks : 0.0;
}
BENCHMARK(BM_DeliverRoundTrip)->Arg(1)->Arg(10)->UseRealTime();

// Buffers back to back, as a file source produces them: deliveries overlap across subscribers'
// strands and the device runs ahead of them up to its queue capacity.
void BM_DeliverPipelined(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  Rig rig(n, hostFed());
  rig.subscribeAll();
  std::vector<std::int16_t> samples(kChannels * kSamples, 7);
  const ZR::ZRValue block(samples.data(), samples.size() * sizeof(std::int16_t));
  for (auto& s : rig.sinks) s->expected = block.GetBinary();
  for (auto _ : state) rig.device->deliver(block, kSamples);
  rig.device->waitUntilIdle(-1);
  long calls = 0, same = 0;
  for (auto& s : rig.sinks) {
    calls += s->calls;
    same += s->same;
  }
  reportPerSubscriber(state, static_cast<long>(state.iterations()), n);
  state.counters["zero_copy"] = calls ? static_cast<double>(same) / calls : 0.0;
}
BENCHMARK(BM_DeliverPipelined)->Arg(1)->Arg(10)->UseRealTime();

// The device's own capture thread: a silent source of 100 buffers, generated into pooled blocks
// and delivered with backpressure, from the first subscribe to the end of the stream.
void BM_CaptureThread100Buffers(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  ZR::ZRAudioDeviceOptions o;
  o.source = ZR::ZRAudioDeviceOptions::Source::Silence;
  o.durationSeconds = 100.0 * kSamples / 16000;
  o.held = true;  // every subscriber from the first buffer
  Rig rig(n, o);
  for (auto _ : state) {
    rig.subscribeAll();
    rig.device->release();
    rig.device->waitForEndOfStream(-1);
    rig.unsubscribeAll();
  }
  long calls = 0;
  for (auto& s : rig.sinks) calls += s->calls;
  reportPerSubscriber(state, static_cast<long>(state.iterations()) * 100, n);
  state.counters["all_delivered"] = calls == static_cast<long>(state.iterations()) * 100 * n;
}
BENCHMARK(BM_CaptureThread100Buffers)->Arg(1)->Arg(10)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
