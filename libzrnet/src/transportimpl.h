#pragma once

// The transport's state, shared by the files that each do one of its jobs: the I/O loop and the
// public calls (transport.cpp), calls and messages going out (outgoing.cpp), calls and messages
// coming in with their credits (incoming.cpp), heartbeats and deaths (liveness.cpp), CURVE and
// the listening socket (security.cpp). Internal to zrnet.

#include <poll.h>

#include <zrerror/zrerrortexts.h>
#include <zrnet/zrtransport.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <thread>

#include <zmq_addon.hpp>

#include <vo/log.h>

#include "wire.h"

#define ZRNET_LOG(level) VO_LOG(level, "zrnet")

namespace ZR {

namespace net {

using Clock = std::chrono::steady_clock;

inline const char* const kShuttingDown = "the host is shutting down";
// How long a silent caller's name is remembered, should it speak again.
inline const Clock::duration kForgetTime = std::chrono::seconds(60);

/// A capture time crosses the wire on the real-time clock, which hosts keep in step; each host
/// times with its own monotonic clock. realtimeOf: a monotonic time of this host, in real time.
std::uint64_t realtimeOf(std::int64_t monotonicNs);
/// The monotonic time of this host at real time `realtimeNs`, storing how long ago that was in
/// `delay`; 0 (and `delay` untouched) when it lies ahead of this host's clock.
std::int64_t monotonicOf(std::uint64_t realtimeNs, std::atomic<std::int64_t>& delay);

/// Sends without blocking; false when the socket cannot take the message now (the frames are
/// then left as they were).
bool trySend(zmq::socket_t& socket, Frames& frames);

inline std::size_t byteSize(const Frames& frames) {
  std::size_t n = 0;
  for (const auto& f : frames) n += f.size();
  return n;
}

/// Messages waiting for one peer, control (credits, pings, stream errors, bye) before data, so
/// that a backlog of data never holds up what keeps the peers alive and the streams moving.
struct Outbox {
  std::deque<Frames> control, data;
  std::size_t bytes = 0;           // of both queues
  Clock::time_point stuckSince{};  // when a send to it last failed with nothing sent since
  bool empty() const { return control.empty() && data.empty(); }
  void push(Frames frames, bool isControl) {
    bytes += byteSize(frames);
    (isControl ? control : data).push_back(std::move(frames));
  }
  /// Sends what the socket takes, with `send` (trySend, or one that knows a gone peer).
  template <class Send>
  void flush(Send&& send) {
    bool sent = false;
    for (auto* q : {&control, &data})
      while (!q->empty()) {
        const std::size_t n = byteSize(q->front());
        if (!send(q->front())) break;
        bytes -= n;
        q->pop_front();
        sent = true;
      }
    if (sent || empty())
      stuckSince = Clock::time_point{};
    else if (stuckSince == Clock::time_point{})
      stuckSince = Clock::now();
  }
};

/// What ZeroMQ itself takes in one frame: twice the limit, so that a message over the limit is
/// still read and refused with a log line (and its caller told); only beyond this does ZeroMQ
/// drop the connection unread, before the bytes could cost memory.
inline std::int64_t zmqFrameLimit(std::size_t maxMessageSize) {
  return static_cast<std::int64_t>(2 * maxMessageSize);
}

/// How much may wait for one peer that does not read: beyond it a caller's new calls are not
/// run (and a callee gets no new calls) until it has read half of it. A larger single message
/// still goes.
inline std::size_t outboxLimit() {
  return 16u << 20;
}
/// Message bodies (msgpack, binary frames aside) up to this size are decoded on the I/O thread;
/// larger ones, which may hold many values, on the pool.
constexpr std::size_t kDecodeInline = 16 * 1024;
/// Messages ZeroMQ itself keeps for one caller before this host's own queue for it takes over.
constexpr int kRouterHighWater = 100;
/// A caller whose queue is full and that has read nothing for this long is disconnected.
inline Clock::duration stallTime(std::chrono::milliseconds heartbeat) {
  return std::max<Clock::duration>(20 * heartbeat, std::chrono::seconds(5));
}

}  // namespace net

struct ZRAnswer::State {
  std::function<void(ZRValue result, const ZRError* error)> deliver;
  std::atomic<bool> given{false};
  ~State();
};

struct ZRTransport::Impl : std::enable_shared_from_this<Impl> {
  using Clock = net::Clock;
  using Frames = net::Frames;
  using Message = net::Message;
  using MsgType = net::MsgType;

  Impl(ZRTransportOptions o, CallHandler h, ZRTransportExecutors e)
      : options(std::move(o)), handler(std::move(h)), executors(std::move(e)) {}

  // ---- set at construction, read by all
  const ZRTransportOptions options;
  const CallHandler handler;
  const ZRTransportExecutors executors;
  std::string advertised;
  zmq::context_t context{1};
  int wakeFd = -1;
  std::thread io;
  std::atomic<std::thread::id> ioThread{};  // set by the I/O thread itself
  std::mutex joinMutex;

  // ---- shared with other threads, under `mutex`
  std::mutex mutex;
  std::deque<std::function<void()>> commands;
  bool stopping = false;
  PeerListener peerLost;
  CreditListener creditListener;
  StreamErrorListener streamErrorListener;
  std::map<std::string, std::string> serverKeys;  // by endpoint

  // ---- lanes: the serial executor of each (connection, module), while it has work
  struct Lane {
    Executor serial;
    int pending = 0;
  };
  std::mutex laneMutex;
  std::map<std::string, Lane> lanes;

  // ---- the loop's state: all that follows. The I/O thread holds it except while it sleeps in
  // poll; another thread that finds it free then does its command itself, and wakes the loop
  // only when that left the loop something to do (`runInline`).
  std::mutex loopMutex;
  bool loopNeeded = false;                              // something was left for the loop
  Clock::time_point wakeAt = Clock::time_point::max();  // when the sleeping loop wakes anyway
  struct Pending {
    std::shared_ptr<std::promise<ZRValue>> promise;
    std::string module, method;
    Clock::time_point deadline = Clock::time_point::max();
  };
  struct Peer {  // a host we call
    std::string endpoint;
    std::unique_ptr<zmq::socket_t> socket;
    net::Outbox outbox;
    std::map<std::uint64_t, Pending> pending;
    Clock::time_point lastReceived, lastPing;
    bool greeted = false;
    bool used = false;  // sent on since the loop last asked its socket
  };
  // A stream a caller sends us: its messages' answers, held back until those before them are
  // answered, so that credits go out in message order.
  struct InStream {
    struct Entry {
      std::uint64_t seq = 0;
      bool answered = false;
      std::optional<ZRError> error;
      std::string module, method;
      std::int64_t delay = 0;  // ns from capture to start; 0: unknown
    };
    std::deque<Entry> entries;
  };
  struct Remote {                // a host that calls us, by routing identity
    std::string host, endpoint;  // as its hello said
    std::string key;             // its CURVE public key (Z85), when authenticated
    int fd = -1;                 // its connection, to cut it when it stalls
    std::string address;         // the connection's peer address, to recognise that fd
    net::Outbox outbox;          // identity frame first
    bool full = false;           // its outbox is at the limit: its calls are not run
    int decoding = 0;            // its messages being decoded on the pool
    Clock::time_point lastReceived, lastPing;
    std::map<std::uint64_t, std::shared_ptr<std::atomic<bool>>> running;  // cancel flags
    std::map<std::string, InStream> streams;
  };
  std::unique_ptr<zmq::socket_t> router;
  std::unique_ptr<zmq::socket_t> zap;      // authenticates CURVE clients
  std::unique_ptr<zmq::socket_t> monitor;  // the router's connections coming and going
  int connections = 0;                     // open on the router, by `monitor`
  std::map<std::string, std::unique_ptr<Peer>> peers;
  // Endpoints found dead whose peer-lost listener has not returned yet.
  std::set<std::string> unreported;
  std::map<std::string, Remote> remotes;
  // Credits granted since the last flush, by connection and stream: one message for them all.
  struct Owed {
    std::uint32_t credits = 0;
    std::int64_t delay = 0;  // the longest of theirs
  };
  std::map<std::pair<std::string, std::string>, Owed> credits;
  std::uint64_t nextId = 1, nextSeq = 1;
  bool stopped = false;  // the I/O thread saw the stop
  // What the loop waits on: the wake-up, then each socket's descriptor, rebuilt only when the set
  // of peers changes. A ZeroMQ socket's descriptor only says that something may have changed,
  // and a socket's own sends and receives may take that news without it saying so again: a
  // socket used since it last said nothing is asked (`dirty`) before the loop sleeps.
  struct Polled {
    zmq::socket_t* socket = nullptr;
    Peer* peer = nullptr;  // null for the listening, authenticating and monitoring sockets
    bool dirty = true;
    bool readable = false;
  };
  std::vector<pollfd> fds;
  std::vector<Polled> polled;  // fds[i + 1] is polled[i]'s
  bool itemsStale = true;
  bool routerUsed = false;  // sent on since the loop last asked it

  std::chrono::milliseconds heartbeat() const { return options.heartbeat; }
  Clock::duration deathTime() const { return 3 * options.heartbeat; }

  // transport.cpp: the loop and what it owns
  bool post(std::function<void()> command);
  /// Runs `command` now on this thread, when the loop's state is free and no command queued
  /// before it waits; false (and `command` not run) otherwise. Such a command must call no
  /// listener: its caller may hold locks of its own.
  template <class Command>
  bool runInline(Command&& command) {
    if (std::this_thread::get_id() == ioThread.load()) {
      command();
      return true;
    }
    std::unique_lock<std::mutex> own(loopMutex, std::try_to_lock);
    if (!own.owns_lock()) return false;
    {
      std::lock_guard<std::mutex> lock(mutex);
      if (stopping || !commands.empty()) return false;
    }
    command();
    afterInline();
    return true;
  }
  void afterInline();
  void wake();
  void start();
  void stop();
  void run();
  void rebuildItems();
  bool askReadable(Polled& p);
  /// Asks every socket that may have taken news unsaid; true when one of them has something.
  bool askDirty();
  void markUsed();
  std::chrono::milliseconds pollTimeout() const;
  void flush();
  void finish();
  Frames helloMessage() const;

  // security.cpp
  bool curve() const { return !options.curveSecretKey.empty(); }
  void listen();
  void authenticate();
  void secure(zmq::socket_t& dealer, const std::string& endpoint);

  // liveness.cpp
  void timers();
  void countConnections();
  void awaitCallersGone();

  // outgoing.cpp
  void startCall(const std::string& endpoint, Message m, Clock::time_point deadline,
                 std::shared_ptr<std::promise<ZRValue>> promise);
  void startSend(const std::string& endpoint, Message m);
  Peer& peerFor(const std::string& endpoint);
  void queue(Peer& peer, Frames frames, bool control = false);
  void fail(Peer& peer, std::uint64_t id, const ZRError& error);
  void failAll(Peer& peer, const std::string& description);
  void lose(const std::string& endpoint, const std::string& why);
  /// Reads what the socket has, a slice of time at most; true when it has nothing more.
  bool receiveFromPeer(Peer& peer);

  // incoming.cpp
  bool sendRouted(Frames& frames);
  void sendToRemote(const std::string& identity, Frames frames, bool keep = true,
                    bool control = false);
  bool receiveFromRouter();  // likewise
  void forget(const std::string& identity);
  void decodeAside(const std::string& identity, Remote& remote, Frames frames, bool saidHello);
  void refuse(const std::string& identity, Remote& remote, const net::DecodeError& e,
              bool saidHello);
  void take(const std::string& identity, Remote& remote, Message m);
  void flushRemotes();
  void disconnect(const std::string& identity, Remote& remote);
  void dispatch(const std::string& identity, Remote& remote, Message m);
  // What an answer needs to know of the message it answers; not the arguments, which may hold
  // large binaries that should go as soon as the call is done with them.
  struct Asked {
    std::uint64_t id = 0;
    bool oneWay = false;
    std::string stream, module, method;
    std::uint64_t seq = 0;
    // Set when the message starts, for a message that carries its sound's capture time.
    std::shared_ptr<std::atomic<std::int64_t>> delay;
  };
  void answered(const std::string& identity, const Asked& asked, ZRValue result,
                std::optional<ZRError> error, bool cancelled);
  void releaseCredits(const std::string& identity, const std::string& stream);
  /// Sends the credits owed to `identity` (all identities when null) now.
  void sendCredits(const std::string* identity);
  void runInLane(const std::string& lane, std::function<void()> job);
};

}  // namespace ZR
