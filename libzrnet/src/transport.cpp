#include <zrnet/zrtransport.h>

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <thread>

#include <zmq_addon.hpp>

#include <vo/log.h>

#include "wire.h"

namespace ZR {

using namespace net;

namespace {

using Clock = std::chrono::steady_clock;

#define ZRNET_LOG(level) vo::log::LogStream(level, __FILE__, __func__, "zrnet", __LINE__)

const char* const kModuleDestroyed = "module destroyed";
const Clock::duration kConnectTime = std::chrono::seconds(2);
// How long a silent caller's name is remembered, should it speak again.
const Clock::duration kForgetTime = std::chrono::seconds(60);

// ZeroMQ wants "*" for "any free port".
std::string bindAddress(const std::string& address) {
  if (address.rfind("tcp://", 0) == 0 && address.size() > 2 &&
      address.compare(address.size() - 2, 2, ":0") == 0)
    return address.substr(0, address.size() - 1) + "*";
  return address;
}

// Sends without blocking; false when the socket cannot take the message now (the frames are
// then left as they were).
bool trySend(zmq::socket_t& socket, Frames& frames) {
  for (std::size_t i = 0; i < frames.size(); ++i) {
    auto flags = zmq::send_flags::dontwait;
    if (i + 1 < frames.size()) flags = flags | zmq::send_flags::sndmore;
    if (!socket.send(frames[i], flags)) {
      if (i == 0) return false;
      // ZeroMQ takes the parts of a message all together once it took the first.
      throw ZRError("zrnet", "send", "a message was cut short");
    }
  }
  return true;
}

// True for addresses that only this machine can reach.
bool isLocalOnly(const std::string& address) {
  if (address.rfind("tcp://", 0) != 0)
    return address.rfind("ipc://", 0) == 0 || address.rfind("inproc://", 0) == 0;
  const std::string host = address.substr(6, address.rfind(':') - 6);
  return host.rfind("127.", 0) == 0 || host == "localhost" || host == "[::1]" || host == "lo";
}

}  // namespace

struct ZRTransport::Impl : std::enable_shared_from_this<Impl> {
  Impl(ZRTransportOptions o, CallHandler h, Executor e)
      : options(std::move(o)), handler(std::move(h)), executor(std::move(e)) {}

  // ---- set at construction, read by all
  const ZRTransportOptions options;
  const CallHandler handler;
  const Executor executor;
  std::string advertised;
  zmq::context_t context{1};
  int wakeFd = -1;
  std::thread io;
  std::mutex joinMutex;

  // ---- shared with other threads
  std::mutex mutex;
  std::deque<std::function<void()>> commands;
  bool stopping = false;
  PeerListener peerLost;
  CreditListener creditListener;
  // Incoming calls from one connection to one module wait here for the one before them.
  std::mutex laneMutex;
  std::map<std::string, std::deque<std::function<void()>>> lanes;

  // ---- owned by the I/O thread
  struct Pending {
    std::shared_ptr<std::promise<ZRValue>> promise;
    std::string module, method;
    Clock::time_point deadline = Clock::time_point::max();
  };
  struct Peer {  // a host we call
    std::string endpoint;
    std::unique_ptr<zmq::socket_t> socket;
    std::deque<Frames> outbox;
    std::map<std::uint64_t, Pending> pending;
    Clock::time_point lastReceived, lastPing;
    bool greeted = false;
  };
  struct Remote {  // a host that calls us, by routing identity
    std::string host;
    Clock::time_point lastReceived, lastPing;
    std::map<std::uint64_t, std::shared_ptr<std::atomic<bool>>> running;  // cancel flags
  };
  std::unique_ptr<zmq::socket_t> router;
  std::unique_ptr<zmq::socket_t> zap;             // authenticates CURVE clients
  std::unique_ptr<zmq::socket_t> monitor;         // the router's connections coming and going
  int connections = 0;                            // open on the router, by `monitor`
  std::map<std::string, std::string> serverKeys;  // by endpoint; shared: under `mutex`
  std::deque<Frames> routerOutbox;                // identity frame first
  std::map<std::string, std::unique_ptr<Peer>> peers;
  // Endpoints found dead whose peer-lost listener has not returned yet.
  std::set<std::string> unreported;
  std::map<std::string, Remote> remotes;
  // Credits granted since the last flush, by connection and stream: one message for them all.
  std::map<std::pair<std::string, std::string>, std::uint32_t> credits;
  std::uint64_t nextId = 1, nextSeq = 1;
  bool stopped = false;  // the I/O thread saw the stop

  std::chrono::milliseconds heartbeat() const { return options.heartbeat; }
  Clock::duration deathTime() const { return 3 * options.heartbeat; }

  bool post(std::function<void()> command) {
    std::lock_guard<std::mutex> lock(mutex);
    if (stopping) return false;
    commands.push_back(std::move(command));
    wake();  // under the lock: the I/O thread closes the descriptor under it
    return true;
  }
  void wake() {
    const std::uint64_t one = 1;
    ssize_t n = ::write(wakeFd, &one, sizeof one);
    (void)n;  // an eventfd at its limit is awake anyway
  }

  void start() {
    wakeFd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (wakeFd < 0) throw ZRError("zrnet", "start", "cannot create the I/O thread's wake-up");
    if (!options.listen.empty()) {
      const bool curve = !options.curveSecretKey.empty();
      if (!isLocalOnly(options.listen) && !curve && !options.insecure) {
        ::close(wakeFd);
        throw ZRError("zrnet", "listen",
                      "refusing to listen on " + options.listen +
                          " beyond loopback without CURVE keys or the insecure flag");
      }
      if (!isLocalOnly(options.listen) && !curve)
        ZRNET_LOG(vo::LogLevel_Warning) << "listening on " << options.listen
                                        << " without encryption or authentication (insecure)";
      if (curve) {
        zap = std::make_unique<zmq::socket_t>(context, zmq::socket_type::rep);
        zap->set(zmq::sockopt::linger, 0);
        zap->bind("inproc://zeromq.zap.01");
      }
      router = std::make_unique<zmq::socket_t>(context, zmq::socket_type::router);
      if (curve) {
        router->set(zmq::sockopt::curve_server, 1);
        router->set(zmq::sockopt::curve_secretkey, options.curveSecretKey);
        router->set(zmq::sockopt::zap_domain, "zr");
      }
      router->set(zmq::sockopt::router_mandatory, 1);
      router->set(zmq::sockopt::linger, 0);
      router->set(zmq::sockopt::maxmsgsize, static_cast<std::int64_t>(options.maxMessageSize));
      try {
        router->bind(bindAddress(options.listen));
      } catch (const zmq::error_t& e) {
        ::close(wakeFd);
        throw ZRError("zrnet", "listen", "cannot listen on " + options.listen + ": " + e.what());
      }
      advertised =
          options.advertise.empty() ? router->get(zmq::sockopt::last_endpoint) : options.advertise;
      const std::string watch =
          "inproc://zrnet-connections-" + std::to_string(reinterpret_cast<std::uintptr_t>(this));
      if (zmq_socket_monitor(router->handle(), watch.c_str(),
                             ZMQ_EVENT_ACCEPTED | ZMQ_EVENT_DISCONNECTED) != 0) {
        ::close(wakeFd);
        throw ZRError("zrnet", "listen", "cannot watch the connections of " + options.listen);
      }
      monitor = std::make_unique<zmq::socket_t>(context, zmq::socket_type::pair);
      monitor->set(zmq::sockopt::linger, 0);
      monitor->connect(watch);
    }
    io = std::thread([this] { run(); });
  }

  void stop() {
    {
      std::lock_guard<std::mutex> lock(mutex);
      if (!stopping) {
        stopping = true;
        wake();
      }
    }
    std::lock_guard<std::mutex> lock(joinMutex);
    if (io.joinable() && io.get_id() != std::this_thread::get_id()) io.join();
  }

  // ---- the I/O thread

  void run() {
    while (true) {
      std::vector<zmq::pollitem_t> items;
      items.push_back({nullptr, wakeFd, ZMQ_POLLIN, 0});
      if (router)
        items.push_back({router->handle(), 0,
                         static_cast<short>(ZMQ_POLLIN | (routerOutbox.empty() ? 0 : ZMQ_POLLOUT)),
                         0});
      const std::size_t zapItem = items.size();
      if (zap) items.push_back({zap->handle(), 0, ZMQ_POLLIN, 0});
      const std::size_t monitorItem = items.size();
      if (monitor) items.push_back({monitor->handle(), 0, ZMQ_POLLIN, 0});
      std::vector<Peer*> polled;
      for (auto& [endpoint, peer] : peers) {
        polled.push_back(peer.get());
        items.push_back({peer->socket->handle(), 0,
                         static_cast<short>(ZMQ_POLLIN | (peer->outbox.empty() ? 0 : ZMQ_POLLOUT)),
                         0});
      }
      zmq::poll(items, pollTimeout());

      std::uint64_t count;
      while (::read(wakeFd, &count, sizeof count) > 0) {
      }
      std::deque<std::function<void()>> todo;
      bool stopNow;
      {
        std::lock_guard<std::mutex> lock(mutex);
        todo.swap(commands);
        stopNow = stopping;
      }
      for (auto& c : todo) c();
      if (stopNow) break;

      if (zap && (items[zapItem].revents & ZMQ_POLLIN)) authenticate();
      if (monitor && (items[monitorItem].revents & ZMQ_POLLIN)) countConnections();
      if (router) receiveFromRouter();
      for (Peer* p : polled)
        if (peers.count(p->endpoint) && peers[p->endpoint].get() == p) receiveFromPeer(*p);
      flush();
      timers();
    }
    finish();
  }

  std::chrono::milliseconds pollTimeout() const {
    auto timeout = std::max(std::chrono::milliseconds(1), heartbeat() / 5);
    const auto now = Clock::now();
    for (auto& [e, peer] : peers)
      for (auto& [id, p] : peer->pending)
        if (p.deadline != Clock::time_point::max())
          timeout = std::min(
              timeout,
              std::max(std::chrono::milliseconds(0),
                       std::chrono::duration_cast<std::chrono::milliseconds>(p.deadline - now) +
                           std::chrono::milliseconds(1)));
    return timeout;
  }

  void finish() {
    Message bye;
    bye.type = MsgType::Bye;
    for (auto& [endpoint, peer] : peers) {
      Frames f = encode(bye);
      try {
        trySend(*peer->socket, f);
      } catch (const zmq::error_t&) {
      }
      failAll(*peer, "the host is shutting down");
      peer->socket->close();
    }
    peers.clear();
    if (router) {
      for (auto& [identity, remote] : remotes) sendToRemote(identity, encode(bye), false);
      awaitCallersGone();
      router->close();
      monitor->close();
    }
    if (zap) zap->close();
    // Commands that raced with the stop still hold promises: they fail now.
    std::deque<std::function<void()>> late;
    {
      std::lock_guard<std::mutex> lock(mutex);
      late.swap(commands);
    }
    stopped = true;
    for (auto& c : late) c();
    std::lock_guard<std::mutex> lock(mutex);
    ::close(wakeFd);
    wakeFd = -1;
  }

  void countConnections() {
    while (true) {
      Frames event;
      if (!zmq::recv_multipart(*monitor, std::back_inserter(event), zmq::recv_flags::dontwait))
        return;
      if (event.empty() || event[0].size() < sizeof(std::uint16_t)) continue;
      std::uint16_t id;
      std::memcpy(&id, event[0].data(), sizeof id);
      if (id == ZMQ_EVENT_ACCEPTED) ++connections;
      if (id == ZMQ_EVENT_DISCONNECTED) connections = std::max(0, connections - 1);
    }
  }

  // Closing the router while a caller's connection is still open races in ZeroMQ with that
  // connection failing: a message half received is then never freed, and one half sent by the
  // caller can abort the caller's process. Callers close their side when told bye, so the router
  // waits for that, a heartbeat at most (a caller that is gone without a word is not waited for
  // longer).
  void awaitCallersGone() {
    const auto until = Clock::now() + heartbeat();
    countConnections();
    while (connections > 0) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - Clock::now());
      if (left.count() <= 0) return;
      zmq::pollitem_t item{monitor->handle(), 0, ZMQ_POLLIN, 0};
      zmq::poll(&item, 1, left);
      countConnections();
    }
  }

  // -- calls going out

  void startCall(const std::string& endpoint, Message m, Clock::time_point deadline,
                 std::shared_ptr<std::promise<ZRValue>> promise) {
    if (stopped) {
      promise->set_exception(
          std::make_exception_ptr(ZRError(m.module, m.method, "the host is shutting down")));
      return;
    }
    // Callers that still route names to a host found dead (the listener has yet to tell them)
    // must not connect to it again and wait out a dead host's connection time once more.
    if (unreported.count(endpoint)) {
      promise->set_exception(
          std::make_exception_ptr(ZRError(m.module, m.method, kModuleDestroyed)));
      return;
    }
    Peer& peer = peerFor(endpoint);
    m.id = nextId++;
    m.seq = nextSeq++;
    peer.pending[m.id] = Pending{promise, m.module, m.method, deadline};
    Frames frames;
    try {
      frames = encode(m);
    } catch (const std::exception& e) {
      fail(peer, m.id, ZRError(m.module, m.method, e.what()));
      return;
    }
    // From here on only the frames hold the binaries: ZeroMQ lets them go once they are sent.
    m.args.clear();
    queue(peer, std::move(frames));
  }

  Peer& peerFor(const std::string& endpoint) {
    auto it = peers.find(endpoint);
    if (it != peers.end()) return *it->second;
    auto peer = std::make_unique<Peer>();
    peer->endpoint = endpoint;
    peer->socket = std::make_unique<zmq::socket_t>(context, zmq::socket_type::dealer);
    auto& s = *peer->socket;
    s.set(zmq::sockopt::immediate, 1);
    s.set(zmq::sockopt::linger, 0);
    s.set(zmq::sockopt::maxmsgsize, static_cast<std::int64_t>(options.maxMessageSize));
    s.set(zmq::sockopt::reconnect_ivl, 100);
    s.set(zmq::sockopt::reconnect_ivl_max, 2000);
    std::string serverKey;
    {
      std::lock_guard<std::mutex> lock(mutex);
      auto key = serverKeys.find(endpoint);
      if (key != serverKeys.end()) serverKey = key->second;
    }
    if (!serverKey.empty()) {
      s.set(zmq::sockopt::curve_serverkey, serverKey);
      s.set(zmq::sockopt::curve_publickey, options.curvePublicKey);
      s.set(zmq::sockopt::curve_secretkey, options.curveSecretKey);
    }
    peer->lastReceived = peer->lastPing = Clock::now();
    try {
      s.connect(endpoint);
    } catch (const zmq::error_t& e) {
      ZRNET_LOG(vo::LogLevel_Warning) << "cannot connect to " << endpoint << ": " << e.what();
    }
    Message hello;
    hello.type = MsgType::Hello;
    hello.host = options.hostName;
    hello.endpoint = advertised;
    hello.heartbeatMs = static_cast<std::uint32_t>(heartbeat().count());
    peer->outbox.push_back(encode(hello));
    return *(peers[endpoint] = std::move(peer));
  }

  void queue(Peer& peer, Frames frames) {
    if (peer.outbox.empty() && trySend(*peer.socket, frames)) return;
    peer.outbox.push_back(std::move(frames));
  }

  void flush() {
    for (auto& [key, n] : credits) {
      Message m;
      m.type = MsgType::Credit;
      m.stream = key.second;
      m.credits = n;
      sendToRemote(key.first, encode(m));
    }
    credits.clear();
    for (auto& [endpoint, peer] : peers)
      while (!peer->outbox.empty() && trySend(*peer->socket, peer->outbox.front()))
        peer->outbox.pop_front();
    while (!routerOutbox.empty() && sendRouted(routerOutbox.front())) routerOutbox.pop_front();
  }

  void fail(Peer& peer, std::uint64_t id, const ZRError& error) {
    auto it = peer.pending.find(id);
    if (it == peer.pending.end()) return;
    it->second.promise->set_exception(std::make_exception_ptr(error));
    peer.pending.erase(it);
  }

  void failAll(Peer& peer, const std::string& description) {
    for (auto& [id, p] : peer.pending)
      p.promise->set_exception(std::make_exception_ptr(ZRError(p.module, p.method, description)));
    peer.pending.clear();
  }

  void lose(const std::string& endpoint, const std::string& why) {
    auto it = peers.find(endpoint);
    if (it == peers.end()) return;
    ZRNET_LOG(vo::LogLevel_Info) << "peer " << endpoint << " lost: " << why;
    failAll(*it->second, kModuleDestroyed);
    it->second->socket->close();
    peers.erase(it);
    PeerListener listener;
    {
      std::lock_guard<std::mutex> lock(mutex);
      listener = peerLost;
    }
    if (!listener) return;
    unreported.insert(endpoint);
    std::weak_ptr<Impl> weak = shared_from_this();
    executor([weak, listener, endpoint] {
      listener(endpoint);
      if (auto self = weak.lock())
        self->post([self, endpoint] { self->unreported.erase(endpoint); });
    });
  }

  void receiveFromPeer(Peer& peer) {
    const std::string endpoint = peer.endpoint;
    while (true) {
      Frames frames;
      if (!zmq::recv_multipart(*peer.socket, std::back_inserter(frames), zmq::recv_flags::dontwait))
        return;
      peer.lastReceived = Clock::now();
      Message m;
      try {
        m = decode(frames, options.maxMessageSize);
      } catch (const DecodeError& e) {
        ZRNET_LOG(vo::LogLevel_Warning)
            << "dropped a malformed message from " << endpoint << ": " << e.getDescription();
        if (!peer.greeted) {  // its hello is unreadable (another protocol version): give up
          failAll(peer, e.getDescription());
          lose(endpoint, e.getDescription());
          return;
        }
        auto it = peer.pending.find(e.callId());
        if (it != peer.pending.end())
          fail(peer, e.callId(), ZRError(it->second.module, it->second.method, e.getDescription()));
        continue;
      }
      switch (m.type) {
        case MsgType::Hello:
          peer.greeted = true;
          break;
        case MsgType::Reply: {
          auto it = peer.pending.find(m.id);
          if (it == peer.pending.end()) break;  // cancelled by its deadline
          it->second.promise->set_value(std::move(m.value));
          peer.pending.erase(it);
          break;
        }
        case MsgType::Error:
          if (m.id == 0) {  // the peer refuses us as a whole (e.g. another protocol version)
            ZRNET_LOG(vo::LogLevel_Error) << endpoint << " refused this host: " << m.description;
            for (auto& [id, p] : peer.pending)
              p.promise->set_exception(
                  std::make_exception_ptr(ZRError(p.module, p.method, m.description)));
            peer.pending.clear();
            lose(endpoint, m.description);
            return;
          }
          fail(peer, m.id, ZRError(m.module, m.method, m.description));
          break;
        case MsgType::Credit: {
          CreditListener listener;
          {
            std::lock_guard<std::mutex> lock(mutex);
            listener = creditListener;
          }
          if (listener) listener(endpoint, m.stream, m.credits);
          break;
        }
        case MsgType::Bye:
          lose(endpoint, "it said bye");
          return;
        case MsgType::Ping:
          break;
        default:
          ZRNET_LOG(vo::LogLevel_Warning)
              << "dropped an unexpected " << msgTypeName(m.type) << " message from " << endpoint;
      }
    }
  }

  // -- calls coming in

  bool sendRouted(Frames& frames) {
    try {
      return trySend(*router, frames);
    } catch (const zmq::error_t& e) {
      if (e.num() != EHOSTUNREACH) throw;
      return true;  // that caller is gone: nobody to tell
    }
  }

  void sendToRemote(const std::string& identity, Frames frames, bool keep = true) {
    frames.insert(frames.begin(), zmq::message_t(identity.data(), identity.size()));
    if (routerOutbox.empty() && sendRouted(frames)) return;
    if (keep) routerOutbox.push_back(std::move(frames));
  }

  void receiveFromRouter() {
    while (true) {
      Frames frames;
      if (!zmq::recv_multipart(*router, std::back_inserter(frames), zmq::recv_flags::dontwait))
        return;
      const std::string identity(static_cast<const char*>(frames[0].data()), frames[0].size());
      frames.erase(frames.begin());
      Remote& remote = remotes[identity];
      const bool isNew = remote.lastReceived == Clock::time_point();
      remote.lastReceived = Clock::now();
      if (isNew) remote.lastPing = remote.lastReceived;
      const bool saidHello = frames.size() > 0 && frames[0].size() == kHeaderSize &&
                             static_cast<const std::uint8_t*>(frames[0].data())[3] ==
                                 static_cast<std::uint8_t>(MsgType::Hello);
      Message m;
      try {
        m = decode(frames, options.maxMessageSize);
      } catch (const DecodeError& e) {
        ZRNET_LOG(vo::LogLevel_Warning)
            << "dropped a malformed message from "
            << (remote.host.empty() ? std::string("a new peer") : remote.host) << ": "
            << e.getDescription();
        Message error;
        error.type = MsgType::Error;
        error.id = e.callId();
        error.module = e.callId() ? e.callModule() : "zrnet";
        error.method = e.callId() ? e.callMethod() : "hello";
        error.description = e.getDescription();
        if (e.callId() || saidHello) sendToRemote(identity, encode(error));
        if (saidHello) remotes.erase(identity);
        continue;
      }
      switch (m.type) {
        case MsgType::Hello: {
          remote.host = m.host;
          Message hello;
          hello.type = MsgType::Hello;
          hello.host = options.hostName;
          hello.endpoint = advertised;
          hello.heartbeatMs = static_cast<std::uint32_t>(heartbeat().count());
          sendToRemote(identity, encode(hello));
          break;
        }
        case MsgType::Call:
        case MsgType::Data:
          dispatch(identity, remote, std::move(m));
          break;
        case MsgType::Cancel: {
          auto it = remote.running.find(m.id);
          if (it != remote.running.end()) *it->second = true;
          break;
        }
        case MsgType::Bye:
          forget(identity);
          break;
        case MsgType::Ping:
          break;
        default:
          ZRNET_LOG(vo::LogLevel_Warning)
              << "dropped an unexpected " << msgTypeName(m.type) << " message from " << remote.host;
      }
    }
  }

  void forget(const std::string& identity) {
    auto it = remotes.find(identity);
    if (it == remotes.end()) return;
    for (auto& [id, cancelled] : it->second.running) *cancelled = true;
    remotes.erase(it);
  }

  void dispatch(const std::string& identity, Remote& remote, Message m) {
    auto cancelled = std::make_shared<std::atomic<bool>>(false);
    const bool oneWay = m.type == MsgType::Data;
    if (!oneWay) remote.running[m.id] = cancelled;
    const Clock::time_point deadline = m.deadlineMs
                                           ? Clock::now() + std::chrono::milliseconds(m.deadlineMs)
                                           : Clock::time_point::max();
    auto call = std::make_shared<ZRIncomingCall>();
    call->module = std::move(m.module);
    call->method = std::move(m.method);
    call->caller = std::move(m.caller);
    call->peerHost = remote.host;
    call->args = std::move(m.args);
    if (oneWay) {
      call->stream = std::move(m.stream);
      call->connection = identity;
    }
    const std::uint64_t id = m.id;
    std::weak_ptr<Impl> weak = shared_from_this();
    auto job = [weak, identity, id, oneWay, call, cancelled, deadline] {
      auto self = weak.lock();
      if (!self) return;
      if (*cancelled || Clock::now() > deadline) return;  // nobody waits for it any more
      Message out;
      out.id = id;
      try {
        out.value = self->handler(*call);
        out.type = MsgType::Reply;
      } catch (const ZRError& e) {
        out.type = MsgType::Error;
        out.module = e.getModuleName();
        out.method = e.getMethodName();
        out.description = e.getDescription();
      } catch (const std::exception& e) {
        out.type = MsgType::Error;
        out.module = call->module;
        out.method = call->method;
        out.description = e.what();
      }
      if (oneWay) return;
      auto reply = std::make_shared<Message>(std::move(out));
      self->post([self, identity, reply, cancelled] {
        auto it = self->remotes.find(identity);
        if (it != self->remotes.end()) it->second.running.erase(reply->id);
        if (*cancelled || self->stopped) return;
        Frames frames = encode(*reply);
        reply->value = ZRValue();  // only the frames hold the result's binaries now
        self->sendToRemote(identity, std::move(frames));
      });
    };
    if (options.answeredOnIoThread.count(call->module)) return job();
    // A fan-out (no module) is ordered within its stream only: a slow stream holds up no other.
    enqueue(identity + '\0' + call->module + (call->module.empty() ? '\0' + call->stream : ""),
            std::move(job));
  }

  void enqueue(const std::string& lane, std::function<void()> job) {
    {
      std::lock_guard<std::mutex> lock(laneMutex);
      auto it = lanes.find(lane);
      if (it != lanes.end()) {
        it->second.push_back(std::move(job));
        return;
      }
      lanes[lane];
    }
    runOnExecutor(lane, std::move(job));
  }

  void runOnExecutor(const std::string& lane, std::function<void()> job) {
    std::weak_ptr<Impl> weak = shared_from_this();
    executor([weak, lane, job = std::move(job)] {
      job();
      auto self = weak.lock();
      if (!self) return;
      std::function<void()> next;
      {
        std::lock_guard<std::mutex> lock(self->laneMutex);
        auto& q = self->lanes[lane];
        if (q.empty()) {
          self->lanes.erase(lane);
          return;
        }
        next = std::move(q.front());
        q.pop_front();
      }
      self->runOnExecutor(lane, std::move(next));
    });
  }

  // -- ZAP: which CURVE clients may connect

  void authenticate() {
    Frames request;
    if (!zmq::recv_multipart(*zap, std::back_inserter(request), zmq::recv_flags::dontwait)) return;
    // version, request id, domain, address, identity, mechanism, credentials...
    if (request.size() < 6) return;
    std::string clientKey;
    if (request.size() >= 7 && request[6].size() == 32) {
      char text[41] = {};
      zmq_z85_encode(text, static_cast<const std::uint8_t*>(request[6].data()), 32);
      clientKey = text;
    }
    const auto& allowed = options.allowedClientKeys;
    const bool ok = request[5].to_string() == "CURVE" && !clientKey.empty() &&
                    std::find(allowed.begin(), allowed.end(), clientKey) != allowed.end();
    if (!ok)
      ZRNET_LOG(vo::LogLevel_Warning)
          << "refused a client from " << request[3].to_string() << ": key "
          << (clientKey.empty() ? "none" : clientKey) << " is not on the allow-list";
    Frames reply;
    reply.emplace_back(std::string("1.0"));
    reply.push_back(std::move(request[1]));
    reply.emplace_back(std::string(ok ? "200" : "400"));
    reply.emplace_back(std::string(ok ? "OK" : "client key not allowed"));
    reply.emplace_back(clientKey);
    reply.emplace_back();
    zmq::send_multipart(*zap, reply);
  }

  // -- heartbeats, liveness, deadlines

  void timers() {
    const auto now = Clock::now();
    Message ping;
    ping.type = MsgType::Ping;
    std::vector<std::string> dead;
    for (auto& [endpoint, peer] : peers) {
      // A connection still being set up (TCP, handshake, hello) gets some slack on a busy host.
      const Clock::duration limit =
          peer->greeted ? deathTime() : std::max(deathTime(), kConnectTime);
      if (now - peer->lastReceived > limit) {
        dead.push_back(endpoint);
        continue;
      }
      if (now - peer->lastPing >= heartbeat() && peer->outbox.empty()) {
        Frames f = encode(ping);
        trySend(*peer->socket, f);  // not connected: nothing to keep alive
        peer->lastPing = now;
      }
      for (auto it = peer->pending.begin(); it != peer->pending.end();) {
        if (now < it->second.deadline) {
          ++it;
          continue;
        }
        it->second.promise->set_exception(std::make_exception_ptr(
            ZRError(it->second.module, it->second.method, "deadline exceeded")));
        Message cancel;
        cancel.type = MsgType::Cancel;
        cancel.id = it->first;
        it = peer->pending.erase(it);
        queue(*peer, encode(cancel));
      }
    }
    for (const auto& e : dead) lose(e, "silent for 3 heartbeats");

    for (auto it = remotes.begin(); it != remotes.end();) {
      const auto silent = now - it->second.lastReceived;
      if (silent > kForgetTime) {
        it = remotes.erase(it);
        continue;
      }
      // A silent caller may only be slow: its calls run on and it keeps getting pings. One
      // that is gone makes them fail as unreachable, which costs nothing.
      if (now - it->second.lastPing >= heartbeat()) {
        sendToRemote(it->first, encode(ping), false);
        it->second.lastPing = now;
      }
      ++it;
    }
  }
};

ZRTransport::ZRTransport(ZRTransportOptions options, CallHandler handler, Executor executor)
    : impl_(std::make_shared<Impl>(std::move(options), std::move(handler), std::move(executor))) {
  if (!impl_->executor) throw ZRError("zrnet", "ZRTransport", "an executor is required");
  impl_->start();
}

ZRTransport::~ZRTransport() {
  shutdown();
}

std::string ZRTransport::endpoint() const {
  return impl_->advertised;
}

std::future<ZRValue> ZRTransport::callAsync(const std::string& endpoint, const std::string& module,
                                            const std::string& method, std::vector<ZRValue> args,
                                            const ZRCallOptions& options) {
  auto promise = std::make_shared<std::promise<ZRValue>>();
  std::future<ZRValue> result = promise->get_future();
  auto m = std::make_shared<Message>();
  m->type = MsgType::Call;
  m->module = module;
  m->method = method;
  m->caller = options.caller;
  m->args = std::move(args);
  Clock::time_point deadline = Clock::time_point::max();
  if (options.deadline.count() > 0) {
    deadline = Clock::now() + options.deadline;
    m->deadlineMs = static_cast<std::uint32_t>(options.deadline.count());
  }
  Impl* impl = impl_.get();
  if (!impl_->post([impl, endpoint, m, deadline, promise] {
        impl->startCall(endpoint, std::move(*m), deadline, promise);
      }))
    promise->set_exception(
        std::make_exception_ptr(ZRError(module, method, "the host is shutting down")));
  return result;
}

ZRValue ZRTransport::call(const std::string& endpoint, const std::string& module,
                          const std::string& method, std::vector<ZRValue> args,
                          const ZRCallOptions& options) {
  return callAsync(endpoint, module, method, std::move(args), options).get();
}

void ZRTransport::send(const std::string& endpoint, const std::string& module,
                       const std::string& method, std::vector<ZRValue> args,
                       const std::string& stream) {
  auto m = std::make_shared<Message>();
  m->type = MsgType::Data;
  m->stream = stream;
  m->module = module;
  m->method = method;
  m->args = std::move(args);
  Impl* impl = impl_.get();
  impl_->post([impl, endpoint, m] {
    if (impl->stopped) return;
    Impl::Peer& peer = impl->peerFor(endpoint);
    m->seq = impl->nextSeq++;
    Frames frames = encode(*m);
    m->args.clear();  // only the frames hold the binaries now
    impl->queue(peer, std::move(frames));
  });
}

void ZRTransport::setPeerLostListener(PeerListener listener) {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->peerLost = std::move(listener);
}

void ZRTransport::credit(const std::string& connection, const std::string& stream,
                         std::uint32_t credits) {
  Impl* impl = impl_.get();
  impl_->post([impl, connection, stream, credits] {
    if (!impl->stopped) impl->credits[{connection, stream}] += credits;
  });
}

void ZRTransport::setCreditListener(CreditListener listener) {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->creditListener = std::move(listener);
}

void ZRTransport::shutdown() {
  impl_->stop();
}

}  // namespace ZR

namespace ZR {

void ZRTransport::setServerKey(const std::string& endpoint, const std::string& serverPublicKey) {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->serverKeys[endpoint] = serverPublicKey;
}

std::pair<std::string, std::string> ZRTransport::generateKeyPair() {
  char publicKey[41] = {}, secretKey[41] = {};
  if (zmq_curve_keypair(publicKey, secretKey) != 0)
    throw ZRError("zrnet", "generateKeyPair", "CURVE is not available in this ZeroMQ");
  return {publicKey, secretKey};
}

}  // namespace ZR
