// Memory events across processes: a producer in one process raises numbered events into the
// memory service of a second, which delivers them to subscribers in 1 or 10 more. The producer
// raises as a file pipeline does (its raises belong to lossless deliveries, a few of which are
// unfinished at a time), so nothing is dropped and the rate is what the path sustains.
//
//   bench_events_remote                 (spawns itself as each host)
#include <benchmark/benchmark.h>

#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>

#include <zrcommon/detail/zrdeliverycontext.h>
#include <zrcommon/zrbroker.h>
#include <zrcommon/zrmodule.h>
#include <zrcommon/zrservicenames.h>
#include <zrmemory/zrmemory.h>
#include <zrproxies/zrmemoryproxy.h>

#include "../tests/support/zrhostprocess.h"

namespace {

using Clock = std::chrono::steady_clock;
const char* const kEvent = "Producer/Count";
const int kEvents = 200000;
const int kChunk = 1000;  // events of one delivery (a file's buffer raises a few)
const int kChunksUnderWay = 8;

// Raises `n` numbered events when asked, `kChunk` per lossless delivery, at most
// `kChunksUnderWay` deliveries unfinished.
class Producer : public ZR::ZRModule {
 public:
  Producer(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name)
      : ZRModule(broker, name), memory_(broker) {
    functionName("burst", "Producer", "Raises numbered events.", 0);
    addParam("n", "How many.");
    bindMethod(&Producer::burst);
    // The memory service tells a producer of its events' subscribers; this one raises on demand.
    functionName("subscribe", "Producer", "Takes note of a subscriber.", 0);
    addParam("module", "Subscriber.");
    bindMethod(&Producer::subscribe);
    functionName("unsubscribe", "Producer", "Takes note of a subscriber gone.", 0);
    addParam("module", "Subscriber.");
    bindMethod(&Producer::subscribe);
    memory_.declareEvent(kEvent, name);
  }
  void subscribe(const std::string&) {}
  void burst(const int& n) {
    for (int sent = 0; sent < n; sent += kChunk) {
      {
        std::unique_lock<std::mutex> lock(mutex_);
        room_.wait(lock, [&] { return underWay_ < kChunksUnderWay; });
        ++underWay_;
      }
      auto done = std::make_shared<ZR::detail::ZRCompletion>([this] {
        std::lock_guard<std::mutex> lock(mutex_);
        --underWay_;
        room_.notify_all();
      });
      ZR::detail::ZRDeliveryScope scope({true, std::move(done)});
      for (int i = sent; i < std::min(n, sent + kChunk); ++i)
        memory_.raiseEvent(kEvent, ZR::ZRValue(i));
    }
    std::unique_lock<std::mutex> lock(mutex_);
    room_.wait(lock, [&] { return underWay_ == 0; });
  }

 private:
  ZR::ZRMemoryProxy memory_;
  std::mutex mutex_;
  std::condition_variable room_;
  int underWay_ = 0;
};

// Counts the events; prints "got N" at every multiple of kEvents.
class Subscriber : public ZR::ZRModule {
 public:
  Subscriber(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name)
      : ZRModule(broker, name) {
    functionName("onEvent", "Subscriber", "Counts one event.", 0);
    for (const char* p : {"eventName", "value", "subscriberIdentifier"}) addParam(p, "");
    bindMethod(&Subscriber::onEvent);
  }
  void onEvent(const std::string&, const ZR::ZRValue& value, const std::string&) {
    if (value.toInt() != expected_ % kEvents) ++disorder_;
    if (++expected_ % kEvents == 0) {
      std::printf("got %ld disorder %ld\n", expected_, disorder_);
      std::fflush(stdout);
    }
  }

 private:
  long expected_ = 0, disorder_ = 0;
};

// One host of the benchmark, as a process of its own: serves until its standard input closes.
int host(const std::string& role, const std::string& directory, const std::string& name) {
  ZR::ZRBrokerOptions o;
  o.directory = directory;
  auto broker = ZR::ZRBroker::createBroker(role + name, o);
  boost::shared_ptr<ZR::ZRModuleCore> module;
  if (role == "memory")
    module = ZR::ZRModule::createModule<ZR::ZRMemory>(broker, ZR::kMemoryServiceName);
  else if (role == "producer") {
    broker->session()->waitForService(ZR::kMemoryServiceName).wait();
    module = ZR::ZRModule::createModule<Producer>(broker, name);
  } else
    module = ZR::ZRModule::createModule<Subscriber>(broker, name);
  std::cout << "serving" << std::endl;
  char c;
  while (read(STDIN_FILENO, &c, 1) > 0) {
  }
  module.reset();
  broker->shutdown();
  return 0;
}

using Process = std::unique_ptr<zrtest::HostProcess>;

Process spawn(const std::string& role, const std::string& directory, const std::string& name) {
  auto p = std::make_unique<zrtest::HostProcess>(
      "/proc/self/exe", std::vector<std::string>{"--host", role, directory, name});
  p->waitFor("serving");
  return p;
}

void BM_RemoteEvents(benchmark::State& state) {
  const int subscribers = static_cast<int>(state.range(0));
  ZR::ZRBrokerOptions o;
  o.directory = "tcp://127.0.0.1:0";
  o.serveDirectory = true;
  auto broker = ZR::ZRBroker::createBroker("bench", o);
  const std::string directory = broker->endpoint();
  Process memoryHost = spawn("memory", directory, "");
  Process producerHost = spawn("producer", directory, "Producer");
  std::vector<Process> subscriberHosts;
  for (int i = 0; i < subscribers; ++i)
    subscriberHosts.push_back(spawn("subscriber", directory, "sub" + std::to_string(i)));
  broker->session()->waitForService("Producer").wait();
  auto producer = broker->getProxy("Producer");
  ZR::ZRMemoryProxy memory(broker);
  for (int i = 0; i < subscribers; ++i) {
    broker->session()->waitForService("sub" + std::to_string(i)).wait();
    memory.subscribeToEvent(kEvent, "sub" + std::to_string(i), "onEvent");
  }
  long round = 0;
  for (auto _ : state) {
    ++round;
    const auto start = Clock::now();
    producer->call<void>("burst", kEvents);
    for (auto& s : subscriberHosts)
      if (s->waitFor("got " + std::to_string(round * kEvents) + " disorder 0",
                     std::chrono::minutes(2)) == "")
        state.SkipWithError("lost or disordered events");
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
  }
  state.counters["events_per_s"] =
      benchmark::Counter(static_cast<double>(kEvents) * static_cast<double>(state.iterations()),
                         benchmark::Counter::kIsRate);
  state.counters["deliveries_per_s"] = benchmark::Counter(
      static_cast<double>(kEvents) * subscribers * static_cast<double>(state.iterations()),
      benchmark::Counter::kIsRate);
  state.counters["dropped"] = memory.getDroppedEventCount("sub0");
  for (auto& s : subscriberHosts) s->finish();
  producerHost->finish();
  memoryHost->finish();
  broker->shutdown();
}
BENCHMARK(BM_RemoteEvents)
    ->Arg(1)
    ->Arg(10)
    ->UseManualTime()
    ->Iterations(3)
    ->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  if (argc == 5 && std::string(argv[1]) == "--host") return host(argv[2], argv[3], argv[4]);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
