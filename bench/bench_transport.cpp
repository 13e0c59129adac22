// The transport against raw ZeroMQ DEALER/ROUTER doing the same exchange with the same payload
// on the same transport: round trips of a few bytes and of 32 KB, and a one-way stream of
// 12.8 KB buffers (raw ZeroMQ with 64 KB frames too) with the CPU it costs both ends, over ipc
// and tcp loopback. Then what a host sees through the broker: a proxy round trip local and
// remote, the time from SIGKILL of a host to "module destroyed" at its caller, and the time for
// a host with 100 modules to join.

#include <benchmark/benchmark.h>

#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <future>
#include <mutex>
#include <thread>

#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>
#include <zmq_addon.hpp>

#include <zrcommon/zrbroker.h>
#include <zrcommon/zrmodule.h>
#include <zrcommon/zrproxy.h>
#include <zrnet/zrtransport.h>

#include "executors.h"

namespace {

std::string address(int kind) {
  return kind == 0 ? "ipc:///tmp/zrnet-bench-" + std::to_string(getpid())
                   : std::string("tcp://127.0.0.1:0");
}
const char* kindName(int kind) {
  return kind == 0 ? "ipc" : "tcp";
}

// Counts what arrives; waits for a number of arrivals.
struct Counter {
  std::mutex mutex;
  std::condition_variable cv;
  long count = 0;
  void add() {
    std::lock_guard<std::mutex> lock(mutex);
    ++count;
    cv.notify_all();
  }
  void waitFor(long n) {
    std::unique_lock<std::mutex> lock(mutex);
    cv.wait(lock, [&] { return count >= n; });
  }
};

struct ZrPair {
  boost::asio::thread_pool pool{2};
  Counter received;
  std::unique_ptr<ZR::ZRTransport> server, client;
  explicit ZrPair(int kind) {
    const ZR::ZRTransportExecutors executor = zrtest::poolExecutors(pool);
    ZR::ZRTransportOptions o;
    o.listen = address(kind);
    server = std::make_unique<ZR::ZRTransport>(
        o, ZR::ZRTransport::SyncHandler([this](const ZR::ZRIncomingCall& c) -> ZR::ZRValue {
          if (c.method == "push") {
            received.add();
            return ZR::ZRValue();
          }
          return c.args.at(0);
        }),
        executor);
    o.listen = "";
    client = std::make_unique<ZR::ZRTransport>(
        o, ZR::ZRTransport::SyncHandler([](const ZR::ZRIncomingCall&) { return ZR::ZRValue(); }),
        executor);
  }
  ~ZrPair() {
    client.reset();
    server.reset();
    pool.join();
  }
};

// Raw ZeroMQ: a ROUTER thread that echoes (or counts) what a DEALER sends.
struct RawPair {
  zmq::context_t ctx;
  zmq::socket_t router{ctx, zmq::socket_type::router}, dealer{ctx, zmq::socket_type::dealer};
  std::atomic<bool> stop{false};
  bool echo;
  Counter received;
  std::thread thread;
  RawPair(int kind, bool echoBack) : echo(echoBack) {
    std::string a = address(kind);
    if (kind == 1) a = "tcp://127.0.0.1:*";
    router.set(zmq::sockopt::rcvtimeo, 50);
    router.bind(a);
    dealer.connect(router.get(zmq::sockopt::last_endpoint));
    thread = std::thread([this] {
      while (!stop) {
        std::vector<zmq::message_t> frames;
        if (!zmq::recv_multipart(router, std::back_inserter(frames))) continue;
        if (echo)
          zmq::send_multipart(router, frames);
        else
          received.add();
      }
    });
  }
  ~RawPair() {
    stop = true;
    thread.join();
  }
};

void BM_RoundTripZr(benchmark::State& state) {
  const int kind = static_cast<int>(state.range(0));
  const std::size_t bytes = static_cast<std::size_t>(state.range(1));
  ZrPair pair(kind);
  const std::string to = pair.server->endpoint();
  std::vector<char> data(bytes, 1);
  ZR::ZRValue payload = bytes > 8 ? ZR::ZRValue(data.data(), bytes) : ZR::ZRValue(40);
  pair.client->call(to, "M", "echo", {payload});  // connected before timing
  for (auto _ : state) benchmark::DoNotOptimize(pair.client->call(to, "M", "echo", {payload}));
  state.SetLabel(std::string("zrnet ") + kindName(kind));
}

void BM_RoundTripRawZmq(benchmark::State& state) {
  const int kind = static_cast<int>(state.range(0));
  const std::size_t bytes = static_cast<std::size_t>(state.range(1));
  RawPair pair(kind, true);
  std::vector<char> data(bytes, 1);
  for (auto _ : state) {
    pair.dealer.send(zmq::buffer(data));
    zmq::message_t back;
    (void)pair.dealer.recv(back);
    benchmark::DoNotOptimize(back.data());
  }
  state.SetLabel(std::string("raw zmq ") + kindName(kind));
}

constexpr std::size_t kBuffer = 12800;  // 100 ms of 16 kHz x 4 channels x 16 bits
constexpr int kBatch = 100;

double processCpuSeconds() {
  rusage u{};
  getrusage(RUSAGE_SELF, &u);
  return static_cast<double>(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
         static_cast<double>(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

// Both ends are in this process: its CPU is what moving the bytes costs the two hosts together.
void countStream(benchmark::State& state, long sent, std::size_t size, double cpuBefore) {
  const double bytes = static_cast<double>(sent) * static_cast<double>(size);
  state.SetItemsProcessed(sent);
  state.SetBytesProcessed(static_cast<std::int64_t>(bytes));
  state.counters["cpu_s_per_GB"] = (processCpuSeconds() - cpuBefore) / (bytes / 1e9);
}

void BM_StreamZr(benchmark::State& state) {
  const int kind = static_cast<int>(state.range(0));
  ZrPair pair(kind);
  const std::string to = pair.server->endpoint();
  std::vector<char> data(kBuffer, 1);
  ZR::ZRValue buffer(data.data(), data.size());
  pair.client->call(to, "M", "echo", {ZR::ZRValue(1)});
  long sent = 0;
  const double cpu = processCpuSeconds();
  for (auto _ : state) {  // a batch, timed until the receiver has it all
    for (int i = 0; i < kBatch; ++i)
      pair.client->send(to, "M", "push", {ZR::ZRValue(4), ZR::ZRValue(1600), buffer});
    sent += kBatch;
    pair.received.waitFor(sent);
  }
  countStream(state, sent, kBuffer, cpu);
  state.SetLabel(std::string("zrnet ") + kindName(kind));
}

void BM_StreamRawZmq(benchmark::State& state) {
  const int kind = static_cast<int>(state.range(0));
  RawPair pair(kind, false);
  // Frames of one buffer, as the pipeline's messages carry them, or larger.
  const std::size_t size = static_cast<std::size_t>(state.range(1));
  std::vector<char> data(size, 1);
  long sent = 0;
  const double cpu = processCpuSeconds();
  for (auto _ : state) {
    for (int i = 0; i < kBatch; ++i) pair.dealer.send(zmq::buffer(data));
    sent += kBatch;
    pair.received.waitFor(sent);
  }
  countStream(state, sent, size, cpu);
  state.SetLabel(std::string("raw zmq ") + kindName(kind));
}

}  // namespace

// Arguments: transport (0 ipc, 1 tcp), payload bytes.
BENCHMARK(BM_RoundTripZr)->ArgsProduct({{0, 1}, {4, 32768}})->UseRealTime();
BENCHMARK(BM_RoundTripRawZmq)->ArgsProduct({{0, 1}, {4, 32768}})->UseRealTime();
BENCHMARK(BM_StreamZr)->Arg(0)->Arg(1)->UseRealTime();
BENCHMARK(BM_StreamRawZmq)
    ->ArgsProduct({{0, 1}, {static_cast<long>(kBuffer), 65536}})
    ->UseRealTime();

// ---- through the broker

namespace {

class Clock : public ZR::ZRModule {
 public:
  Clock(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name) : ZRModule(broker, name) {
    functionName("getCurrentPeriod", "Clock", "The current period.", 0);
    bindMethod(&Clock::getCurrentPeriod);
    functionName("hold", "Clock", "Never returns while the host lives.", 0);
    bindMethod(&Clock::hold);
  }
  int getCurrentPeriod() { return 100; }
  bool hold() {
    const char c = 'h';
    if (write(STDOUT_FILENO, &c, 1) != 1) return false;
    pause();
    return true;
  }
};

ZR::ZRBrokerOptions serving() {
  ZR::ZRBrokerOptions o;
  o.directory = "tcp://127.0.0.1:0";
  o.serveDirectory = true;
  return o;
}

ZR::ZRBrokerOptions joining(const std::string& directory) {
  ZR::ZRBrokerOptions o;
  o.directory = directory;
  return o;
}

// Arg 0: the module in the caller's broker; 1: in another broker, over tcp loopback.
void BM_ProxyRoundTrip(benchmark::State& state) {
  auto host = ZR::ZRBroker::createBroker("host", serving());
  auto clock = ZR::ZRModule::createModule<Clock>(host, "Clock");
  auto caller =
      state.range(0) ? ZR::ZRBroker::createBroker("caller", joining(host->endpoint())) : host;
  caller->session()->waitForService("Clock").wait();
  auto proxy = caller->getProxy("Clock");
  for (auto _ : state) benchmark::DoNotOptimize(proxy->call<int>("getCurrentPeriod"));
  state.SetLabel(state.range(0) ? "remote" : "local");
  clock.reset();
}

std::string self;  // this program, started again as a host

// From SIGKILL of a host, in the middle of a call, to "module destroyed" at the caller.
void BM_KillToModuleDestroyed(benchmark::State& state) {
  auto directory = ZR::ZRBroker::createBroker("directory", serving());
  auto caller = ZR::ZRBroker::createBroker("caller", joining(directory->endpoint()));
  for (auto _ : state) {
    state.PauseTiming();
    int out[2];
    if (pipe(out) != 0) state.SkipWithError("pipe");
    const pid_t pid = fork();
    if (pid == 0) {
      dup2(out[1], STDOUT_FILENO);
      execl(self.c_str(), self.c_str(), "--host", directory->endpoint().c_str(), nullptr);
      _exit(127);
    }
    close(out[1]);
    caller->session()->waitForService("Victim").wait();
    auto proxy = caller->getProxy("Victim");
    std::promise<std::chrono::steady_clock::time_point> failed;
    std::thread call([&] {
      try {
        proxy->call<bool>("hold");
      } catch (const ZR::ZRError&) {
      }
      failed.set_value(std::chrono::steady_clock::now());
    });
    char c;
    if (read(out[0], &c, 1) != 1) state.SkipWithError("the host did not start the call");
    close(out[0]);
    state.ResumeTiming();
    const auto killed = std::chrono::steady_clock::now();
    kill(pid, SIGKILL);
    const auto at = failed.get_future().get();
    state.SetIterationTime(std::chrono::duration<double>(at - killed).count());
    state.PauseTiming();
    call.join();
    waitpid(pid, nullptr, 0);
    // The next host takes the name once this one has left the directory.
    std::promise<void> gone;
    const unsigned long id = caller->session()->connectServiceRemoved([&](const std::string& name) {
      if (name == "Victim") gone.set_value();
    });
    if (caller->session()->hasService("Victim")) gone.get_future().wait();
    caller->session()->disconnectServiceRemoved(id);
    state.ResumeTiming();
  }
}

// From the start of a host with 100 modules to the last of them seen by another host.
void BM_HostWith100ModulesJoins(benchmark::State& state) {
  auto directory = ZR::ZRBroker::createBroker("directory", serving());
  int round = 0;
  for (auto _ : state) {
    const std::string prefix = "M" + std::to_string(round++) + "_";
    auto host = ZR::ZRBroker::createBroker("host", joining(directory->endpoint()));
    for (int i = 0; i < 100; ++i)
      ZR::ZRModule::createModule<Clock>(host, prefix + std::to_string(i));
    directory->session()->waitForService(prefix + "99").wait();
    state.PauseTiming();
    host->shutdown();
    state.ResumeTiming();
  }
}

BENCHMARK(BM_ProxyRoundTrip)->Arg(0)->Arg(1)->UseRealTime();
BENCHMARK(BM_KillToModuleDestroyed)->UseManualTime()->Iterations(5)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_HostWith100ModulesJoins)->UseRealTime()->Iterations(5)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  if (argc == 3 && std::string(argv[1]) == "--host") {
    // The host that BM_KillToModuleDestroyed kills.
    auto broker = ZR::ZRBroker::createBroker("victim", joining(argv[2]));
    auto module = ZR::ZRModule::createModule<Clock>(broker, "Victim");
    pause();
    return 0;
  }
  self = argv[0];
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
