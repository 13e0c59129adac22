// The pipeline across hosts: a 10-minute, 16 kHz, 4-channel file through SoundLevel with the
// audio device in another process, against the same pipeline in one process; and the latency of
// a live source's buffers to 1, 10 and 50 subscribers on another host.
//
//   bench_pipeline_remote                     (spawns itself as the device's host)
#include <benchmark/benchmark.h>

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <mutex>
#include <random>
#include <thread>

#include <zraudiodevice/zraudiodevice.h>
#include <zrcommon/zrservicenames.h>
#include <zrextractors/zrextractorregistry.h>
#include <zrmemory/zrmemory.h>
#include <zrproxies/zrmemoryproxy.h>

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;
const int kRate = 16000, kChannels = 4, kSeconds = 600;

// Counts SoundLevel's results and tells when the stream ended.
class Client : public ZR::ZRModule {
 public:
  Client(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name) : ZRModule(broker, name) {
    functionName("onEvent", "Client", "Receives one event.", 0);
    addParam("eventName", "");
    addParam("value", "");
    addParam("subscriberIdentifier", "");
    bindMethod(&Client::onEvent);
  }
  void onEvent(const std::string& event, const ZR::ZRValue&, const std::string&) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (event == ZR::kEndOfStreamEvent)
      ended_ = true;
    else
      ++results_;
    changed_.notify_all();
  }
  long waitForEnd() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return ended_; });
    ended_ = false;
    const long n = results_;
    results_ = 0;
    return n;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool ended_ = false;
  long results_ = 0;
};

std::string inputFile() {
  const std::string path = "/tmp/zr_bench_remote_10min_4ch.wav";
  if (std::ifstream(path).good()) return path;
  const std::uint32_t frames = kRate * kSeconds, bytes = frames * kChannels * 2;
  std::ofstream out(path, std::ios::binary);
  auto u32 = [&](std::uint32_t v) { out.write(reinterpret_cast<const char*>(&v), 4); };
  auto u16 = [&](std::uint16_t v) { out.write(reinterpret_cast<const char*>(&v), 2); };
  out.write("RIFF", 4);
  u32(36 + bytes);
  out.write("WAVEfmt ", 8);
  u32(16);
  u16(1);
  u16(kChannels);
  u32(kRate);
  u32(kRate * kChannels * 2);
  u16(kChannels * 2);
  u16(16);
  out.write("data", 4);
  u32(bytes);
  std::minstd_rand random(7);
  std::vector<std::int16_t> block(kRate * kChannels);
  for (int s = 0; s < kSeconds; ++s) {
    for (auto& v : block) v = static_cast<std::int16_t>(static_cast<int>(random() % 20000) - 10000);
    out.write(reinterpret_cast<const char*>(block.data()),
              static_cast<std::streamsize>(block.size() * 2));
  }
  return path;
}

ZR::ZRAudioDeviceOptions deviceOptions() {
  ZR::ZRAudioDeviceOptions o = ZR::ZRAudioDeviceOptions::fromInput(inputFile());
  o.held = true;
  return o;
}

// The device's host: joins the directory, serves the file until its standard input closes.
int deviceHost(const std::string& directory) {
  ZR::ZRBrokerOptions o;
  o.directory = directory;
  auto broker = ZR::ZRBroker::createBroker("deviceHost", o);
  auto device = ZR::ZRModule::createModule<ZR::ZRAudioDevice>(broker, ZR::kAudioDeviceServiceName,
                                                              deviceOptions());
  std::cout << "ready" << std::endl;
  char c;
  while (read(STDIN_FILENO, &c, 1) > 0) {
  }
  device.reset();
  broker->shutdown();
  return 0;
}

struct Child {
  pid_t pid = -1;
  int input = -1;
  explicit Child(const std::string& directory) {
    int in[2], out[2];
    if (pipe(in) || pipe(out)) throw std::runtime_error("pipe");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, in[1]);
    posix_spawn_file_actions_addclose(&actions, out[0]);
    std::string self = "/proc/self/exe";
    std::vector<char*> argv{self.data(), const_cast<char*>("--device-host"),
                            const_cast<char*>(directory.c_str()), nullptr};
    if (posix_spawn(&pid, "/proc/self/exe", &actions, nullptr, argv.data(), environ))
      throw std::runtime_error("spawn");
    posix_spawn_file_actions_destroy(&actions);
    close(in[0]);
    close(out[1]);
    input = in[1];
    char line[16] = {};
    if (read(out[0], line, 6) != 6) throw std::runtime_error("the device host did not start");
    close(out[0]);
  }
  ~Child() {
    close(input);
    int status;
    waitpid(pid, &status, 0);
  }
};

// One run of the file through SoundLevel; the device may be here or on the other host.
void runPipeline(benchmark::State& state, const boost::shared_ptr<ZR::ZRBroker>& broker) {
  auto registry = ZR::ZRExtractorRegistry::withStockExtractors();
  auto memory = ZR::ZRModule::createModule<ZR::ZRMemory>(broker, ZR::kMemoryServiceName, 1 << 20);
  registry.create("SoundLevel", broker, "SoundLevel");
  auto client = ZR::ZRModule::createModule<Client>(broker, "client");
  broker->session()->waitForService(ZR::kAudioDeviceServiceName).wait();
  auto device = broker->getProxy(ZR::kAudioDeviceServiceName);
  ZR::ZRMemoryProxy m(broker);
  const std::vector<std::string> events = m.getExtractorEvent("SoundLevel");
  long results = 0;
  for (auto _ : state) {
    m.subscribeToEvent(ZR::kEndOfStreamEvent, "client", "onEvent");
    for (const auto& e : events) m.subscribeToEvent(e, "client", "onEvent");
    const auto start = Clock::now();
    device->call<void>("release");
    results = client->waitForEnd();
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
    for (const auto& e : events) m.unsubscribeToEvent(e, "client");
    m.unsubscribeToEvent(ZR::kEndOfStreamEvent, "client");
  }
  state.counters["x_realtime"] = benchmark::Counter(
      kSeconds * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
  state.counters["results"] = static_cast<double>(results);
  client.reset();
  memory.reset();
  broker->shutdown();
}

void BM_SoundLevelInProcess(benchmark::State& state) {
  auto broker = ZR::ZRBroker::createBroker("one");
  auto device = ZR::ZRModule::createModule<ZR::ZRAudioDevice>(broker, ZR::kAudioDeviceServiceName,
                                                              deviceOptions());
  runPipeline(state, broker);
}
BENCHMARK(BM_SoundLevelInProcess)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);

void BM_SoundLevelDeviceInAnotherProcess(benchmark::State& state) {
  ZR::ZRBrokerOptions o;
  o.directory = "tcp://127.0.0.1:0";
  o.serveDirectory = true;
  auto broker = ZR::ZRBroker::createBroker("extractorHost", o);
  Child child(broker->endpoint());
  runPipeline(state, broker);
}
BENCHMARK(BM_SoundLevelDeviceInAnotherProcess)
    ->UseManualTime()
    ->Iterations(3)
    ->Unit(benchmark::kMillisecond);

// Receives a live buffer and keeps how long it took since the producer stamped it.
class LatencySink : public ZR::ZRModule {
 public:
  LatencySink(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name,
              std::vector<double>* out, std::mutex* mutex)
      : ZRModule(broker, name), out_(out), mutex_(mutex) {
    functionName("processRemote", "LatencySink", "Takes a buffer.", 0);
    for (const char* p : {"nbOfChannels", "nbOfSamplesByChannel", "timestamp", "buffer"})
      addParam(p, "");
    bindMethod(&LatencySink::processRemote);
  }
  void processRemote(const int&, const int&, const ZR::ZRValue&, const ZR::ZRValue& buffer) {
    std::int64_t stamp;
    std::memcpy(&stamp, buffer.GetBinary(), sizeof stamp);
    const double us = static_cast<double>(Clock::now().time_since_epoch().count() - stamp) / 1e3;
    std::lock_guard<std::mutex> lock(*mutex_);
    out_->push_back(us);
  }

 private:
  std::vector<double>* out_;
  std::mutex* mutex_;
};

void BM_LiveLatencyToRemoteSubscribers(benchmark::State& state) {
  const int subscribers = static_cast<int>(state.range(0));
  ZR::ZRBrokerOptions o;
  o.directory = "tcp://127.0.0.1:0";
  o.serveDirectory = true;
  auto deviceHost = ZR::ZRBroker::createBroker("deviceHost", o);
  o.serveDirectory = false;
  o.directory = deviceHost->endpoint();
  auto sinkHost = ZR::ZRBroker::createBroker("sinkHost", o);
  ZR::ZRAudioDeviceOptions d;
  d.source = ZR::ZRAudioDeviceOptions::Source::Host;
  d.realtime = true;
  auto device =
      ZR::ZRModule::createModule<ZR::ZRAudioDevice>(deviceHost, ZR::kAudioDeviceServiceName, d);
  std::mutex mutex;
  std::vector<double> latencies;
  std::vector<boost::shared_ptr<LatencySink>> sinks;
  for (int i = 0; i < subscribers; ++i) {
    const std::string name = "sink" + std::to_string(i);
    sinks.push_back(ZR::ZRModule::createModule<LatencySink>(sinkHost, name, &latencies, &mutex));
    deviceHost->session()->waitForService(name).wait();
    device->subscribe(name);
  }
  std::vector<std::int16_t> samples(160);  // 10 ms at 16 kHz
  auto next = Clock::now();
  for (auto _ : state) {
    next += std::chrono::milliseconds(10);
    std::this_thread::sleep_until(next);  // a live source's pace
    const std::int64_t stamp = Clock::now().time_since_epoch().count();
    std::memcpy(samples.data(), &stamp, sizeof stamp);
    device->deliver(samples.data(), 160);
  }
  device->endStream();
  device->waitForEndOfStream(10000);
  std::vector<double> l;
  {
    std::lock_guard<std::mutex> lock(mutex);
    l = latencies;
  }
  std::sort(l.begin(), l.end());
  if (!l.empty()) {
    state.counters["p50_us"] = l[l.size() / 2];
    state.counters["p99_us"] = l[std::min(l.size() - 1, l.size() * 99 / 100)];
    state.counters["max_us"] = l.back();
  }
  state.counters["dropped"] = device->getDroppedBufferCount("sink0");
  sinks.clear();
  device.reset();
  sinkHost->shutdown();
  deviceHost->shutdown();
}
BENCHMARK(BM_LiveLatencyToRemoteSubscribers)
    ->Arg(1)
    ->Arg(10)
    ->Arg(50)
    ->Iterations(500)
    ->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  if (argc == 3 && std::string(argv[1]) == "--device-host") return deviceHost(argv[2]);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
