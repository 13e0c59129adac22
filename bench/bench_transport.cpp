// The transport against raw ZeroMQ DEALER/ROUTER doing the same exchange with the same payload
// on the same transport: round trips of a few bytes and of 32 KB, and a one-way stream of
// 12.8 KB buffers, over ipc and tcp loopback.

#include <benchmark/benchmark.h>

#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>
#include <zmq_addon.hpp>

#include <zrnet/zrtransport.h>

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
    auto executor = [this](std::function<void()> t) { boost::asio::post(pool, std::move(t)); };
    ZR::ZRTransportOptions o;
    o.listen = address(kind);
    server = std::make_unique<ZR::ZRTransport>(
        o,
        [this](const ZR::ZRIncomingCall& c) -> ZR::ZRValue {
          if (c.method == "push") {
            received.add();
            return ZR::ZRValue();
          }
          return c.args.at(0);
        },
        executor);
    o.listen = "";
    client = std::make_unique<ZR::ZRTransport>(
        o, [](const ZR::ZRIncomingCall&) { return ZR::ZRValue(); }, executor);
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

constexpr std::size_t kBuffer = 12800;  // 10 ms of 16 kHz x 4 channels x 16 bits
constexpr int kBatch = 100;

void BM_StreamZr(benchmark::State& state) {
  const int kind = static_cast<int>(state.range(0));
  ZrPair pair(kind);
  const std::string to = pair.server->endpoint();
  std::vector<char> data(kBuffer, 1);
  ZR::ZRValue buffer(data.data(), data.size());
  pair.client->call(to, "M", "echo", {ZR::ZRValue(1)});
  long sent = 0;
  for (auto _ : state) {  // a batch, timed until the receiver has it all
    for (int i = 0; i < kBatch; ++i)
      pair.client->send(to, "M", "push", {ZR::ZRValue(4), ZR::ZRValue(1600), buffer});
    sent += kBatch;
    pair.received.waitFor(sent);
  }
  state.SetItemsProcessed(sent);
  state.SetBytesProcessed(sent * static_cast<long>(kBuffer));
  state.SetLabel(std::string("zrnet ") + kindName(kind));
}

void BM_StreamRawZmq(benchmark::State& state) {
  const int kind = static_cast<int>(state.range(0));
  RawPair pair(kind, false);
  std::vector<char> data(kBuffer, 1);
  long sent = 0;
  for (auto _ : state) {
    for (int i = 0; i < kBatch; ++i) pair.dealer.send(zmq::buffer(data));
    sent += kBatch;
    pair.received.waitFor(sent);
  }
  state.SetItemsProcessed(sent);
  state.SetBytesProcessed(sent * static_cast<long>(kBuffer));
  state.SetLabel(std::string("raw zmq ") + kindName(kind));
}

}  // namespace

// Arguments: transport (0 ipc, 1 tcp), payload bytes.
BENCHMARK(BM_RoundTripZr)->ArgsProduct({{0, 1}, {4, 32768}})->UseRealTime();
BENCHMARK(BM_RoundTripRawZmq)->ArgsProduct({{0, 1}, {4, 32768}})->UseRealTime();
BENCHMARK(BM_StreamZr)->Arg(0)->Arg(1)->UseRealTime();
BENCHMARK(BM_StreamRawZmq)->Arg(0)->Arg(1)->UseRealTime();

BENCHMARK_MAIN();
