#pragma once

// The transport's state, shared by the files that each do one of its jobs: the I/O loop and the
// public calls (transport.cpp), calls and messages going out (outgoing.cpp), calls and messages
// coming in with their credits (incoming.cpp), heartbeats and deaths (liveness.cpp), CURVE and
// the listening socket (security.cpp). Internal to zrnet.

#include <zrnet/zrtransport.h>

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

inline const char* const kModuleDestroyed = "module destroyed";
inline const char* const kShuttingDown = "the host is shutting down";
// How long a silent caller's name is remembered, should it speak again.
inline const Clock::duration kForgetTime = std::chrono::seconds(60);

/// Sends without blocking; false when the socket cannot take the message now (the frames are
/// then left as they were).
bool trySend(zmq::socket_t& socket, Frames& frames);

/// Messages waiting for a socket, control (credits, pings, stream errors, bye) before data, so
/// that a backlog of data never holds up what keeps the peers alive and the streams moving.
struct Outbox {
  std::deque<Frames> control, data;
  bool empty() const { return control.empty() && data.empty(); }
  void push(Frames frames, bool isControl) {
    (isControl ? control : data).push_back(std::move(frames));
  }
  /// Sends what the socket takes, with `send` (trySend, or one that knows a gone peer).
  template <class Send>
  void flush(Send&& send) {
    for (auto* q : {&control, &data})
      while (!q->empty() && send(q->front())) q->pop_front();
  }
};

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

  // ---- owned by the I/O thread
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
  };
  // A stream a caller sends us: its messages' answers, held back until those before them are
  // answered, so that credits go out in message order.
  struct InStream {
    struct Entry {
      std::uint64_t seq = 0;
      bool answered = false;
      std::optional<ZRError> error;
      std::string module, method;
    };
    std::deque<Entry> entries;
  };
  struct Remote {  // a host that calls us, by routing identity
    std::string host;
    Clock::time_point lastReceived, lastPing;
    std::map<std::uint64_t, std::shared_ptr<std::atomic<bool>>> running;  // cancel flags
    std::map<std::string, InStream> streams;
  };
  std::unique_ptr<zmq::socket_t> router;
  std::unique_ptr<zmq::socket_t> zap;      // authenticates CURVE clients
  std::unique_ptr<zmq::socket_t> monitor;  // the router's connections coming and going
  int connections = 0;                     // open on the router, by `monitor`
  net::Outbox routerOutbox;                // identity frame first
  std::map<std::string, std::unique_ptr<Peer>> peers;
  // Endpoints found dead whose peer-lost listener has not returned yet.
  std::set<std::string> unreported;
  std::map<std::string, Remote> remotes;
  // Credits granted since the last flush, by connection and stream: one message for them all.
  std::map<std::pair<std::string, std::string>, std::uint32_t> credits;
  std::uint64_t nextId = 1, nextSeq = 1;
  bool stopped = false;  // the I/O thread saw the stop
  // What zmq::poll watches, rebuilt only when the set of peers changes.
  std::vector<zmq::pollitem_t> items;
  std::vector<Peer*> polled;
  bool itemsStale = true;

  std::chrono::milliseconds heartbeat() const { return options.heartbeat; }
  Clock::duration deathTime() const { return 3 * options.heartbeat; }

  // transport.cpp: the loop and what it owns
  bool post(std::function<void()> command);
  void wake();
  void start();
  void stop();
  void run();
  void rebuildItems();
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
  void receiveFromPeer(Peer& peer);

  // incoming.cpp
  bool sendRouted(Frames& frames);
  void sendToRemote(const std::string& identity, Frames frames, bool keep = true,
                    bool control = false);
  void receiveFromRouter();
  void forget(const std::string& identity);
  void dispatch(const std::string& identity, Remote& remote, Message m);
  // What an answer needs to know of the message it answers; not the arguments, which may hold
  // large binaries that should go as soon as the call is done with them.
  struct Asked {
    std::uint64_t id = 0;
    bool oneWay = false;
    std::string stream, module, method;
    std::uint64_t seq = 0;
  };
  void answered(const std::string& identity, const Asked& asked, ZRValue result,
                std::optional<ZRError> error, bool cancelled);
  void releaseCredits(const std::string& identity, const std::string& stream);
  void runInLane(const std::string& lane, std::function<void()> job);
};

}  // namespace ZR
