// A second client's round trips to a host while a hostile peer works on it: quiet, while a peer
// that never reads its replies piles them up, while a peer sends decode bombs (16 Mi one-byte
// array elements) back to back, and while it sends the most values a message may hold (1 Mi),
// back to back. Reports the p50 and p99 of the round trips.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include <boost/asio/thread_pool.hpp>
#include <zmq_addon.hpp>

#include <zrnet/zrtransport.h>

#include "executors.h"
#include "wire.h"

namespace {

using Clock = std::chrono::steady_clock;

ZR::net::Frames callFrames(std::uint64_t id, const std::string& method, std::string body) {
  ZR::net::Message m;
  m.type = ZR::net::MsgType::Call;
  m.id = id;
  m.module = "M";
  m.method = method;
  ZR::net::Frames f = ZR::net::encode(m);
  if (!body.empty()) f[2] = zmq::message_t(body.data(), body.size());
  return f;
}

void hello(zmq::socket_t& s) {
  ZR::net::Message m;
  m.type = ZR::net::MsgType::Hello;
  m.host = "hostile";
  ZR::net::Frames f = ZR::net::encode(m);
  zmq::send_multipart(s, f);
}

void BM_SecondClientRoundTrip(benchmark::State& state) {
  const int scenario = static_cast<int>(state.range(0));
  boost::asio::thread_pool pool{2};
  const std::string big(64 * 1024, 'x');
  ZR::ZRTransportOptions o;
  o.hostName = "host";
  ZR::ZRTransport server(
      o, ZR::ZRTransport::SyncHandler([&](const ZR::ZRIncomingCall& c) -> ZR::ZRValue {
        return c.method == "big" ? ZR::ZRValue(big) : ZR::ZRValue(1);
      }),
      zrtest::poolExecutors(pool));
  o.listen = "";
  o.hostName = "good";
  ZR::ZRTransport client(
      o, ZR::ZRTransport::SyncHandler([](const ZR::ZRIncomingCall&) { return ZR::ZRValue(); }),
      zrtest::poolExecutors(pool));
  client.call(server.endpoint(), "M", "echo", {});

  zmq::context_t ctx;
  zmq::socket_t hostile(ctx, zmq::socket_type::dealer);
  hostile.set(zmq::sockopt::linger, 0);
  std::atomic<bool> stop{false};
  std::thread bomber;
  if (scenario == 1) {  // reads nothing: its replies pile up at the host
    hostile.set(zmq::sockopt::rcvhwm, 1);
    hostile.set(zmq::sockopt::rcvbuf, 4096);
    hostile.connect(server.endpoint());
    hello(hostile);
    for (std::uint64_t id = 1; id <= 1000; ++id) {
      ZR::net::Frames f = callFrames(id, "big", "");
      zmq::send_multipart(hostile, f);
    }
  } else if (scenario >= 2) {  // decode bombs, back to back, reading the answers
    hostile.set(zmq::sockopt::rcvtimeo, 1000);
    hostile.connect(server.endpoint());
    hello(hostile);
    // 16 Mi one-byte elements (refused), or just under the values a message may hold (taken).
    std::string bomb = "\x91\xdd";
    const std::uint32_t n = scenario == 2 ? 16u << 20 : (1u << 20) - 2;
    for (int shift = 24; shift >= 0; shift -= 8) bomb += static_cast<char>((n >> shift) & 0xff);
    bomb.append(n, '\0');
    bomber = std::thread([&, bomb] {
      std::uint64_t id = 1;
      while (!stop) {
        ZR::net::Frames f = callFrames(id++, "echo", bomb);
        zmq::send_multipart(hostile, f);
        ZR::net::Frames in;
        do {
          in.clear();
          if (!zmq::recv_multipart(hostile, std::back_inserter(in))) break;
        } while (!stop && in.size() > 0 &&
                 static_cast<const std::uint8_t*>(in[0].data())[3] !=
                     static_cast<std::uint8_t>(ZR::net::MsgType::Error) &&
                 static_cast<const std::uint8_t*>(in[0].data())[3] !=
                     static_cast<std::uint8_t>(ZR::net::MsgType::Reply));
      }
    });
  }
  std::vector<double> latencies;
  for (auto _ : state) {
    const auto start = Clock::now();
    benchmark::DoNotOptimize(client.call(server.endpoint(), "M", "echo", {}));
    latencies.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
  }
  stop = true;
  if (bomber.joinable()) bomber.join();
  std::sort(latencies.begin(), latencies.end());
  state.counters["p50_us"] = latencies[latencies.size() / 2];
  state.counters["p99_us"] = latencies[std::min(latencies.size() - 1, latencies.size() * 99 / 100)];
  const char* labels[] = {"quiet", "stuck peer", "decode bombs", "largest messages"};
  state.SetLabel(labels[scenario]);
}

}  // namespace

BENCHMARK(BM_SecondClientRoundTrip)
    ->Arg(0)
    ->Arg(1)
    ->Arg(2)
    ->Arg(3)
    ->Iterations(2000)
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);

BENCHMARK_MAIN();
