// The transport between endpoints in one process, and against raw ZeroMQ peers that play a role
// (a busy callee, a silent one, another protocol version, a sender of garbage). Hosts in other
// processes, killed with SIGKILL, are libzrcommon's hosts_test.

#include <zrnet/zrtransport.h>

#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <stdexcept>

#include <gtest/gtest.h>
#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>
#include <zmq_addon.hpp>

#include "executors.h"
#include "wire.h"
#include "zrtest.h"

using namespace ZR;
using namespace ZR::net;
using zrtest::errorOf;

namespace {

thread_local bool onExecutor = false;
const auto kHeartbeat = zrtest::kHeartbeat;
const auto kHangGuard = std::chrono::seconds(10);  // far beyond any answer; only stops a hang

struct Pool {
  boost::asio::thread_pool pool{4};
  ZRTransportExecutors executor() {
    return zrtest::poolExecutors(pool, [](const std::function<void()>& task) {
      onExecutor = true;
      task();
      onExecutor = false;
    });
  }
};

ZRTransportOptions options(const std::string& host,
                           const std::string& listen = "tcp://127.0.0.1:0") {
  ZRTransportOptions o;
  o.hostName = host;
  o.listen = listen;
  o.heartbeat = kHeartbeat;
  return o;
}

ZRTransport::CallHandler noCalls() {
  return ZRTransport::answering(
      [](const ZRIncomingCall& c) -> ZRValue { throw ZRError(c.module, c.method, "no calls"); });
}

std::string describe(const ZRError& e) {
  return e.getModuleName() + "|" + e.getMethodName() + "|" + e.getDescription();
}

template <class T>
T ready(std::future<T>& f) {
  if (f.wait_for(kHangGuard) != std::future_status::ready) throw std::runtime_error("hung");
  return f.get();
}

ZRError errorOfFuture(std::future<ZRValue>& f) {
  return errorOf([&] { ready(f); });
}

TEST(Transport, CallsReturnResultsAndRebuildErrorsOnTheExecutor) {
  Pool pool;
  ZRTransport callee(
      options("B"),
      [](const ZRIncomingCall& c) -> ZRValue {
        if (!onExecutor) throw ZRError("test", c.method, "not on the executor");
        if (c.method == "echo") return c.args.at(0);
        if (c.method == "who") return ZRValue(c.caller + "@" + c.peerHost);
        if (c.method == "size") return ZRValue(static_cast<int>(c.args.at(0).getBinarySize()));
        if (c.method == "fail") throw ZRError("Calc", "fail", "boom");
        if (c.method == "std") throw std::runtime_error("bad");
        throw ZRError(c.module, c.method, "unknown");
      },
      pool.executor());
  ZRTransport caller(options("A", ""), noCalls(), pool.executor());
  EXPECT_EQ(caller.endpoint(), "");
  const std::string to = callee.endpoint();
  ASSERT_EQ(to.rfind("tcp://127.0.0.1:", 0), 0u) << to;

  std::vector<unsigned char> bytes(5000, 3);
  ZRValue nested;
  nested.arrayPush(ZRValue(bytes.data(), bytes.size()));
  nested.arrayPush(ZRValue());
  nested.arrayPush(-2.5f);
  for (const ZRValue& v : {ZRValue(7), ZRValue("text"), nested})
    EXPECT_EQ(caller.call(to, "M", "echo", {v}), v);
  ZRCallOptions asSomeone;
  asSomeone.caller = "Client";
  EXPECT_EQ(caller.call(to, "M", "who", {}, asSomeone), ZRValue("Client@A"));

  const std::vector<std::pair<std::string, std::string>> errors = {
      {"fail", "Calc|fail|boom"},
      {"std", "M|std|bad"},
      {"nothing", "M|nothing|unknown"},
  };
  for (const auto& [method, expected] : errors)
    EXPECT_EQ(describe(errorOf([&, m = method] { caller.call(to, "M", m, {}); })), expected);

  // A binary argument given away with the call: ZeroMQ's own thread lets the storage go once
  // sent, as no copy could.
  std::promise<std::string> releasedOn;
  auto kept = std::make_shared<std::vector<char>>(32768, 1);
  std::shared_ptr<const void> owner(kept->data(), [&releasedOn, kept](const void*) {
    char name[32] = {};
    pthread_getname_np(pthread_self(), name, sizeof name);
    releasedOn.set_value(name);
  });
  std::vector<ZRValue> args{ZRValue(kept->data(), kept->size(), std::move(owner))};
  auto sized = caller.callAsync(to, "M", "size", std::move(args));
  EXPECT_EQ(ready(sized), ZRValue(32768));
  auto name = releasedOn.get_future();
  EXPECT_EQ(ready(name).rfind("ZMQbg/", 0), 0u);

  // Nobody listens there: the call fails once the peer counts as dead.
  auto far = caller.callAsync("tcp://127.0.0.1:1", "Far", "x", {});
  EXPECT_EQ(describe(errorOfFuture(far)), "Far|x|module destroyed");
}

// A message made from sound carries its capture time across, on this host's clock at the
// other end, and its credit says how late it started there; a message without one says nothing.
TEST(Transport, AMessageOfSoundIsTimedFromItsCaptureToItsStart) {
  Pool pool;
  std::promise<std::int64_t> seenOne, seenTwo;
  ZRTransport callee(
      options("B"),
      [&](const ZRIncomingCall& c) -> ZRValue {
        (c.method == "one" ? seenOne : seenTwo).set_value(c.captureNs);
        return ZRValue();
      },
      pool.executor());
  ZRTransport caller(options("A", ""), noCalls(), pool.executor());
  std::mutex mutex;
  std::condition_variable credited;
  std::vector<std::pair<std::uint32_t, std::int64_t>> credits;
  caller.setCreditListener(
      [&](const std::string&, const std::string&, std::uint32_t n, std::int64_t delayNs) {
        std::lock_guard<std::mutex> lock(mutex);
        credits.emplace_back(n, delayNs);
        credited.notify_all();
      });
  auto creditCount = [&](std::size_t n) {
    std::unique_lock<std::mutex> lock(mutex);
    return credited.wait_for(lock, kHangGuard, [&] { return credits.size() >= n; });
  };
  // Captured a second ago: however the clocks are read, the delay is about a second.
  const std::int64_t second = 1000000000;
  const std::int64_t captured = std::chrono::duration_cast<std::chrono::nanoseconds>(
                                    std::chrono::steady_clock::now().time_since_epoch())
                                    .count() -
                                second;
  ZRSendOptions o;
  o.stream = "s";
  o.seq = 1;
  o.captureNs = captured;
  caller.send(callee.endpoint(), "M", "one", {}, o);
  auto one = seenOne.get_future();
  EXPECT_NEAR(static_cast<double>(ready(one)), static_cast<double>(captured), second / 10.0);
  ASSERT_TRUE(creditCount(1));
  o.seq = 2;
  o.captureNs = 0;
  caller.send(callee.endpoint(), "M", "two", {}, o);
  auto two = seenTwo.get_future();
  EXPECT_EQ(ready(two), 0);
  ASSERT_TRUE(creditCount(2));
  std::lock_guard<std::mutex> lock(mutex);
  EXPECT_EQ(credits[0].first, 1u);
  EXPECT_GT(credits[0].second, second - second / 10);
  EXPECT_EQ(credits[1], std::make_pair(std::uint32_t{1}, std::int64_t{0}));
}

TEST(Transport, CallsFromOneCallerToOneModuleKeepTheirOrder) {
  std::mutex mutex;
  std::map<std::string, std::vector<int>> seen;
  Pool pool;
  ZRTransport callee(
      options("B"),
      [&](const ZRIncomingCall& c) -> ZRValue {
        // The first call of each module is long: without ordering the next ones would overtake.
        if (c.args.at(0).toInt() < 2)
          for (volatile int k = 0; k < 2000000; k = k + 1) {
          }
        std::lock_guard<std::mutex> lock(mutex);
        seen[c.module].push_back(c.args.at(0));
        return ZRValue();
      },
      pool.executor());
  ZRTransport caller(options("A", ""), noCalls(), pool.executor());
  std::vector<std::future<ZRValue>> calls;
  // Every 7th carries a body large enough to be decoded off the I/O thread: the calls after it
  // wait for it all the same.
  const ZRValue large(std::string(40000, 'x'));
  for (int i = 0; i < 300; ++i) {
    std::vector<ZRValue> args{i};
    if (i % 7 == 3) args.push_back(large);
    calls.push_back(caller.callAsync(callee.endpoint(), i % 2 ? "M1" : "M2", "record", args));
  }
  for (auto& f : calls) ready(f);
  std::vector<int> odd, even;
  for (int i = 0; i < 300; ++i) (i % 2 ? odd : even).push_back(i);
  // Under the lock: the replies came through ZeroMQ, whose hand-offs a race detector cannot see.
  std::lock_guard<std::mutex> lock(mutex);
  EXPECT_EQ(seen["M1"], odd);
  EXPECT_EQ(seen["M2"], even);
}

// Both ends send and receive on the same sockets at once (a stream one way, its credits and
// calls' replies the other). With a heartbeat of an hour the loop's own timer never fires
// within the test, so no message may wait for it: each must wake the loop that takes it.
TEST(Transport, EveryMessageWakesItsLoopWithoutTheTimer) {
  for (const std::string& listen :
       {"ipc:///tmp/zrnet-wake-" + std::to_string(getpid()), std::string("tcp://127.0.0.1:0")}) {
    SCOPED_TRACE(listen);
    Pool pool;
    zrtest::Signal pushed;
    ZRTransportOptions o = options("B", listen);
    o.heartbeat = std::chrono::hours(1);
    ZRTransport callee(o, ZRTransport::answering([&](const ZRIncomingCall& c) -> ZRValue {
                         if (c.method == "push") pushed.notify();
                         return c.args.empty() ? ZRValue() : c.args[0];
                       }),
                       pool.executor());
    o.listen = "";
    ZRTransport caller(o, noCalls(), pool.executor());
    zrtest::Signal credits;
    caller.setCreditListener([&](const std::string&, const std::string&, std::uint32_t n,
                                 std::int64_t) { credits.notify(static_cast<int>(n)); });
    const std::vector<char> block(12800, 1);
    const int kMessages = 2000;
    for (int i = 1; i <= kMessages; ++i) {
      ZRSendOptions s;
      s.stream = "s";
      s.seq = static_cast<std::uint64_t>(i);
      caller.send(callee.endpoint(), "M", "push", {ZRValue(block.data(), block.size())}, s);
      if (i % 50 == 0) {
        auto echoed = caller.callAsync(callee.endpoint(), "M", "echo", {ZRValue(i)});
        ASSERT_EQ(ready(echoed), ZRValue(i));
      }
    }
    ASSERT_TRUE(pushed.waitFor(kMessages, kHangGuard));
    ASSERT_TRUE(credits.waitFor(kMessages, kHangGuard));
  }
}
TEST(Transport, ADeadlineFailsTheCallAndTheCalleeNeverRunsIt) {
  std::promise<void> entered, gate;
  std::shared_future<void> open = gate.get_future().share();
  std::atomic<int> lateRuns{0};
  Pool pool;  // its threads end before what they use
  // Neither loop would wake before its heartbeat: a call with a deadline must wake its caller's
  // loop to keep that deadline.
  ZRTransportOptions slow = options("B");
  slow.heartbeat = std::chrono::hours(1);
  ZRTransport callee(
      slow,
      [&](const ZRIncomingCall& c) -> ZRValue {
        if (c.method == "block") {
          entered.set_value();
          open.wait();
        }
        if (c.method == "late") ++lateRuns;
        return ZRValue(lateRuns.load());
      },
      pool.executor());
  slow.hostName = "A";
  slow.listen = "";
  ZRTransport caller(slow, noCalls(), pool.executor());
  auto blocked = caller.callAsync(callee.endpoint(), "M", "block", {});
  entered.get_future().wait();
  ZRCallOptions soon;
  soon.deadline = std::chrono::milliseconds(30);
  // (Three times: a loop busy at the time of the call takes it as a command, not asleep.)
  for (int i = 0; i < 3; ++i) {
    auto late = caller.callAsync(callee.endpoint(), "M", "late", {}, soon);
    if (late.wait_for(kHangGuard) != std::future_status::ready) {
      ADD_FAILURE() << "the deadline was not kept";
      break;
    }
    EXPECT_EQ(describe(errorOfFuture(late)), "M|late|deadline exceeded");
  }
  // Answered on the same connection after the cancel: the callee has the cancel by now.
  EXPECT_EQ(caller.call(callee.endpoint(), "Other", "count", {}), ZRValue(0));
  gate.set_value();
  EXPECT_EQ(ready(blocked), ZRValue(0));
  // The next call on the same module runs after where "late" stood: it was dropped.
  EXPECT_EQ(caller.call(callee.endpoint(), "M", "count", {}), ZRValue(0));
  EXPECT_EQ(lateRuns, 0);
}

// A raw ROUTER playing the callee.
struct RawCallee {
  zmq::context_t ctx;
  zmq::socket_t socket{ctx, zmq::socket_type::router};
  std::string endpoint;
  RawCallee() {
    socket.set(zmq::sockopt::rcvtimeo, static_cast<int>(kHangGuard.count() * 1000));
    socket.bind("tcp://127.0.0.1:*");
    endpoint = socket.get(zmq::sockopt::last_endpoint);
  }
  // The next message, its routing identity in `identity`.
  Message receive(std::string& identity) {
    Frames f;
    if (!zmq::recv_multipart(socket, std::back_inserter(f))) throw std::runtime_error("hung");
    identity = f[0].to_string();
    f.erase(f.begin());
    return decode(f);
  }
  void send(const std::string& identity, Frames frames) {
    frames.insert(frames.begin(), zmq::message_t(identity));
    zmq::send_multipart(socket, frames);
  }
};

Message helloFrom(const std::string& host) {
  Message h;
  h.type = MsgType::Hello;
  h.host = host;
  return h;
}

TEST(Transport, ABusyCalleeThatPingsLivesAndASilentOneDies) {
  zrtest::Signal lost;
  std::string lostEndpoint;
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  Pool pool;
  ZRTransport caller(options("A", ""), noCalls(), pool.executor());
  caller.setPeerLostListener([&, released](const std::string& e) {
    lostEndpoint = e;
    lost.notify();
    released.wait();
  });
  RawCallee raw;
  auto f = caller.callAsync(raw.endpoint, "M", "slow", {});
  std::string id;
  EXPECT_EQ(raw.receive(id).type, MsgType::Hello);
  raw.send(id, encode(helloFrom("raw")));
  Message call = raw.receive(id);
  ASSERT_EQ(call.type, MsgType::Call);
  EXPECT_EQ(call.module + "." + call.method, "M.slow");
  // Busy for 8 heartbeats of the caller, answering each: more than enough to be declared dead
  // were pings not counted.
  Message ping;
  ping.type = MsgType::Ping;
  for (int pings = 0; pings < 8;) {
    if (raw.receive(id).type != MsgType::Ping) continue;
    ++pings;
    raw.send(id, encode(ping));
  }
  Message reply;
  reply.type = MsgType::Reply;
  reply.id = call.id;
  reply.value = ZRValue(5);
  raw.send(id, encode(reply));
  EXPECT_EQ(ready(f), ZRValue(5));

  // Now silent: the next call fails, and the host is reported lost.
  auto g = caller.callAsync(raw.endpoint, "M", "again", {});
  EXPECT_EQ(describe(errorOfFuture(g)), "M|again|module destroyed");
  ASSERT_TRUE(lost.waitFor(1));
  EXPECT_EQ(lostEndpoint, raw.endpoint);
  // Until the listener has returned, a call there fails at once, connecting to nothing.
  auto late = caller.callAsync(raw.endpoint, "M", "late", {});
  EXPECT_EQ(describe(errorOfFuture(late)), "M|late|module destroyed");
  release.set_value();
  pool.pool.join();  // the listener returned, and said so to the transport
  // Then the endpoint is called afresh: one new connection (after what the old one left).
  auto fresh = caller.callAsync(raw.endpoint, "M", "fresh", {});
  int hellos = 0;
  for (Message m = raw.receive(id); m.type != MsgType::Call || m.method != "fresh";
       m = raw.receive(id)) {
    if (m.type != MsgType::Hello) continue;
    ++hellos;
    raw.send(id, encode(helloFrom("raw")));
  }
  EXPECT_EQ(hellos, 1);
}

Frames withVersion(Frames frames, std::uint8_t version) {
  static_cast<std::uint8_t*>(frames[0].data())[2] = version;
  return frames;
}

TEST(Transport, AnotherProtocolVersionIsRefusedNamingBothVersions) {
  Pool pool;
  const std::string mismatch =
      "protocol version mismatch: peer speaks version 1, this host speaks version 2";
  // Calling a host of version 1.
  ZRTransport caller(options("A", ""), noCalls(), pool.executor());
  RawCallee raw;
  auto f = caller.callAsync(raw.endpoint, "M", "m", {});
  std::string id;
  raw.receive(id);
  raw.send(id, withVersion(encode(helloFrom("raw")), 1));
  EXPECT_EQ(describe(errorOfFuture(f)), "M|m|" + mismatch);

  // Called by a client of version 1.
  ZRTransport callee(options("B"), noCalls(), pool.executor());
  zmq::context_t ctx;
  zmq::socket_t dealer(ctx, zmq::socket_type::dealer);
  dealer.set(zmq::sockopt::rcvtimeo, static_cast<int>(kHangGuard.count() * 1000));
  dealer.connect(callee.endpoint());
  Frames hello = withVersion(encode(helloFrom("old")), 1);
  zmq::send_multipart(dealer, hello);
  Frames answer;
  ASSERT_TRUE(zmq::recv_multipart(dealer, std::back_inserter(answer)));
  Message error = decode(answer);
  EXPECT_EQ(error.type, MsgType::Error);
  EXPECT_EQ(error.id, 0u);
  EXPECT_EQ(error.module + "|" + error.method + "|" + error.description, "zrnet|hello|" + mismatch);
}

TEST(Transport, AMalformedCallIsAnsweredWithItsErrorAndTheHostServesOn) {
  Pool pool;
  zrtest::LogCapture log("zrnet", vo::LogLevel_Warning);
  auto o = options("B");
  o.maxMessageSize = 4096;
  ZRTransport callee(
      o, [](const ZRIncomingCall& c) -> ZRValue { return c.args.at(0); }, pool.executor());
  zmq::context_t ctx;
  zmq::socket_t dealer(ctx, zmq::socket_type::dealer);
  dealer.set(zmq::sockopt::rcvtimeo, static_cast<int>(kHangGuard.count() * 1000));
  dealer.connect(callee.endpoint());
  auto exchange = [&](Frames out) {
    zmq::send_multipart(dealer, out);
    while (true) {
      Frames in;
      if (!zmq::recv_multipart(dealer, std::back_inserter(in))) throw std::runtime_error("hung");
      Message m = decode(in);
      if (m.type != MsgType::Ping) return m;
    }
  };
  EXPECT_EQ(exchange(encode(helloFrom("raw"))).host, "B");
  Message call;
  call.type = MsgType::Call;
  call.id = 9;
  call.module = "M";
  call.method = "m";
  Frames bad = encode(call);
  bad[2] = zmq::message_t("\x01", 1);  // arguments that are no array
  Message error = exchange(std::move(bad));
  EXPECT_EQ(error.type, MsgType::Error);
  EXPECT_EQ(error.id, 9u);
  EXPECT_EQ(error.module + "|" + error.method + "|" + error.description,
            "M|m|arguments are not an array");
  ASSERT_EQ(log.records().size(), 1u);
  EXPECT_EQ(log.records()[0].message,
            "dropped a malformed message from raw: arguments are not an array");
  call.id = 10;
  call.args = {ZRValue(4)};
  Message reply = exchange(encode(call));
  EXPECT_EQ(reply.type, MsgType::Reply);
  EXPECT_EQ(reply.id, 10u);
  EXPECT_EQ(reply.value, ZRValue(4));
  // Over the size limit: refused with a log line, and the caller is told which call.
  call.id = 11;
  call.args = {ZRValue(std::string(5000, 'x'))};
  Message tooBig = exchange(encode(call));
  EXPECT_EQ(tooBig.type, MsgType::Error);
  EXPECT_EQ(tooBig.id, 11u);
  EXPECT_EQ(tooBig.module + "|" + tooBig.method + "|" + tooBig.description,
            "M|m|message of 5045 bytes exceeds the maximum of 4096");
  EXPECT_EQ(log.count("dropped a malformed message from raw: message of 5045 bytes exceeds the "
                      "maximum of 4096"),
            1);
}

TEST(Transport, ShutdownFailsPendingCallsAtBothEnds) {
  std::promise<void> gate;
  std::shared_future<void> open = gate.get_future().share();
  std::atomic<int> entered{0};
  Pool pool;  // its threads end before what they use
  auto blocking = [&](const ZRIncomingCall&) -> ZRValue {
    ++entered;
    open.wait();
    return ZRValue();
  };
  auto callee = std::make_unique<ZRTransport>(options("B"), blocking, pool.executor());
  ZRTransport callerA(options("A", ""), noCalls(), pool.executor());
  ZRTransport callerC(options("C", ""), noCalls(), pool.executor());
  auto a = callerA.callAsync(callee->endpoint(), "M1", "wait", {});
  auto c = callerC.callAsync(callee->endpoint(), "M2", "wait", {});
  ASSERT_TRUE(zrtest::eventually([&] { return entered == 2; }));
  callerA.shutdown();  // the caller leaves
  EXPECT_EQ(describe(errorOfFuture(a)), "M1|wait|the host is shutting down");
  EXPECT_EQ(describe(errorOf([&] { callerA.call(callee->endpoint(), "M", "m", {}); })),
            "M|m|the host is shutting down");
  callee->shutdown();  // the callee leaves: its bye fails what waits on it
  EXPECT_EQ(describe(errorOfFuture(c)), "M2|wait|module destroyed");
  gate.set_value();
  callee.reset();
}

TEST(Transport, BeyondLoopbackNeedsCurveOrTheInsecureFlagAndCurveAdmitsOnlyAllowedKeys) {
  Pool pool;
  zrtest::LogCapture log("zrnet", vo::LogLevel_Warning);
  EXPECT_EQ(describe(errorOf([&] {
              ZRTransport t(options("X", "tcp://0.0.0.0:0"), noCalls(), pool.executor());
            })),
            "zrnet|listen|refusing to listen on tcp://0.0.0.0:0 beyond loopback without CURVE "
            "keys or the insecure flag");
  {
    auto o = options("X", "tcp://0.0.0.0:0");
    o.insecure = true;
    o.advertise = "tcp://public.example:7000";
    ZRTransport t(o, noCalls(), pool.executor());
    EXPECT_EQ(t.endpoint(), "tcp://public.example:7000");
    EXPECT_EQ(log.count("without encryption or authentication (insecure)"), 1);
  }

  const auto [serverPublic, serverSecret] = ZRTransport::generateKeyPair();
  const auto [goodPublic, goodSecret] = ZRTransport::generateKeyPair();
  const auto [badPublic, badSecret] = ZRTransport::generateKeyPair();
  auto so = options("S");
  so.curvePublicKey = serverPublic;
  so.curveSecretKey = serverSecret;
  so.allowedClientKeys = {goodPublic};
  ZRTransport server(
      so,
      [](const ZRIncomingCall& c) { return c.method == "key" ? ZRValue(c.peerKey) : c.args.at(0); },
      pool.executor());
  auto client = [&](const std::string& publicKey, const std::string& secretKey) {
    auto o = options("C", "");
    o.curvePublicKey = publicKey;
    o.curveSecretKey = secretKey;
    auto t = std::make_unique<ZRTransport>(o, noCalls(), pool.executor());
    if (!publicKey.empty()) t->setServerKey(server.endpoint(), serverPublic);
    return t;
  };
  EXPECT_EQ(client(goodPublic, goodSecret)->call(server.endpoint(), "M", "echo", {ZRValue(3)}),
            ZRValue(3));
  // The callee knows the key the caller proved it holds: what names and events are bound to.
  EXPECT_EQ(client(goodPublic, goodSecret)->call(server.endpoint(), "M", "key", {}),
            ZRValue(goodPublic));
  auto bad = client(badPublic, badSecret);
  EXPECT_EQ(describe(errorOf([&] { bad->call(server.endpoint(), "M", "echo", {ZRValue(3)}); })),
            "M|echo|module destroyed");
  EXPECT_GE(
      log.count("refused a client from 127.0.0.1: key " + badPublic + " is not on the allow-list"),
      1);
  auto plain = client("", "");
  EXPECT_EQ(describe(errorOf([&] { plain->call(server.endpoint(), "M", "echo", {ZRValue(3)}); })),
            "M|echo|module destroyed");
}

}  // namespace
