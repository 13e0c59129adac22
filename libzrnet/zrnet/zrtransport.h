#pragma once

// The transport of one process: calls and one-way streams to the modules of other hosts, and
// theirs to this host's modules, over ZeroMQ. docs/protocol.md is the wire contract.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <zrerror/zrerror.h>
#include <zrvalue/zrvalue.h>

namespace ZR {

/// How a host takes part in the network.
struct ZRTransportOptions {
  /// Named in hello messages and in errors about this host.
  std::string hostName = "host";
  /// Where this host takes calls; port 0 picks a free port. Empty: calls out only.
  std::string listen = "tcp://127.0.0.1:0";
  /// What other hosts are told to connect to (NAT, containers). Empty: the bound address.
  std::string advertise;
  /// Pings go out this often; a peer silent for 3 intervals is dead.
  std::chrono::milliseconds heartbeat{250};
  /// A called host that has not answered hello within this (or 3 heartbeats, if longer) is
  /// unreachable. The slack is for busy hosts; a tool that must not wait on a dead host lowers it.
  std::chrono::milliseconds connectTime{2000};
  /// Larger incoming messages are refused.
  std::size_t maxMessageSize = 64u << 20;
  /// Modules whose calls are answered on the I/O thread, not on the executor. Only for handlers
  /// that answer at once and never wait (the directory): the executor's tasks may be waiting for
  /// the very names such a module publishes.
  std::set<std::string> answeredOnIoThread;

  // Security. Listening beyond loopback needs CURVE keys or `insecure`.
  /// Listen beyond loopback without encryption or authentication (logs a warning at start).
  bool insecure = false;
  /// This host's CURVE key pair (Z85 text, see ZRTransport::generateKeyPair). With them, the
  /// listener requires CURVE and admits only the clients in allowedClientKeys, and calls out
  /// to hosts given a server key (setServerKey) authenticate with them.
  std::string curvePublicKey, curveSecretKey;
  std::vector<std::string> allowedClientKeys;
};

/// A call, or a one-way message, that another host sends to one of this host's modules.
struct ZRIncomingCall {
  std::string module, method, caller;
  /// The calling host, as it named itself, and where it said it takes calls.
  std::string peerHost, peerEndpoint;
  /// The calling connection's CURVE public key (Z85), vouched for by the handshake; empty
  /// without CURVE.
  std::string peerKey;
  std::vector<ZRValue> args;
  /// One-way messages: no result goes back. `stream` names the sender's stream (empty: none);
  /// `lossless` says the sender's data must not be dropped on the way on.
  bool oneWay = false;
  std::string stream;
  bool lossless = false;
  /// The capture time of the sound the message carries or was made from, on this host's
  /// monotonic clock (ns, through the real-time clocks of both hosts); 0 when none.
  std::int64_t captureNs = 0;
};

/// The answer to one incoming call or one-way message, given exactly once, from any thread, at
/// once or later. For a call it is the reply or the error; for a one-way message of a named
/// stream it grants that stream its credit (credits go out in the order the messages came), after
/// a stream error when it failed. An answer dropped without being given fails the call.
class ZRAnswer {
 public:
  ZRAnswer() = default;
  void reply(ZRValue result = ZRValue()) const;
  void fail(const ZRError& error) const;
  explicit operator bool() const { return static_cast<bool>(state_); }

 private:
  friend class ZRTransport;
  struct State;
  std::shared_ptr<State> state_;
};

/// Per-call choices of a caller.
struct ZRCallOptions {
  /// Zero: wait as long as the callee lives. Otherwise the call fails with "deadline exceeded"
  /// after this long, and the callee is told to drop it.
  std::chrono::milliseconds deadline{0};
  /// The calling module, passed on to the callee.
  std::string caller;
};

/// Per-message choices of a sender of one-way messages.
struct ZRSendOptions {
  /// The stream the message belongs to, and its number in that stream (1, 2, ...). A named
  /// stream's receiver answers each message with a credit, and a failure with a stream error.
  std::string stream;
  std::uint64_t seq = 0;
  /// The receiver must not drop what this message sets off, and grants its credit only once
  /// that has been processed too (see docs/protocol.md).
  bool lossless = false;
  std::string caller;
  /// When the message carries sound or was made from it: the sound's capture time on this
  /// host's monotonic clock (ns). The receiver's credit then says how late the message started.
  std::int64_t captureNs = 0;
};

/// Where the transport runs the work that must not run on its I/O thread.
struct ZRTransportExecutors {
  using Executor = std::function<void(std::function<void()>)>;
  /// Runs a task somewhere (the broker's pool).
  Executor post;
  /// Makes an executor that runs its tasks one at a time, in order (a strand of that pool).
  std::function<Executor()> makeSerial;
};

/// Calls to modules of other hosts by endpoint, one-way messages to them, and the calls and
/// messages of other hosts to this host's modules.
///
/// One I/O thread owns every socket; while it sleeps, a thread that makes a call or answers one
/// sends it itself under the I/O thread's lock, sparing a wake-up. Incoming calls and messages run
/// on the executors the host gives, never on the I/O thread (but those of
/// ZRTransportOptions::answeredOnIoThread); those from one connection to one module start one after
/// another, in order, on one serial executor. Every member function may be called from any thread
/// at the same time. call() blocks until the result, an error, the deadline, or the death of the
/// callee (about 3 heartbeats); send() never blocks; the destructor returns once the I/O thread is
/// gone (it waits for no call in flight, and fails them).
class ZRTransport {
 public:
  using Executor = ZRTransportExecutors::Executor;
  /// Takes an incoming call or one-way message; answers it through `answer`, now or later.
  using CallHandler = std::function<void(const ZRIncomingCall&, ZRAnswer answer)>;
  /// A handler that answers at once: its result, or the ZRError it throws.
  using SyncHandler = std::function<ZRValue(const ZRIncomingCall&)>;
  using PeerListener = std::function<void(const std::string& endpoint)>;

  /// Binds (throws ZRError when the address cannot be bound) and starts the I/O thread.
  ZRTransport(ZRTransportOptions options, CallHandler handler, ZRTransportExecutors executors);
  /// The same, with a handler that answers at once (see answering()).
  ZRTransport(ZRTransportOptions options, SyncHandler handler, ZRTransportExecutors executors);
  ~ZRTransport();
  ZRTransport(const ZRTransport&) = delete;
  ZRTransport& operator=(const ZRTransport&) = delete;

  /// A CallHandler that answers each call with what `handler` returns or throws.
  static CallHandler answering(SyncHandler handler);

  /// The address other hosts connect to; empty when not listening.
  std::string endpoint() const;

  /// Calls `method` of `module` on the host at `endpoint`. Throws the callee's ZRError, or
  /// ZRError(module, method, "module destroyed") when the host dies or cannot be reached, or
  /// ZRError(module, method, "deadline exceeded").
  ZRValue call(const std::string& endpoint, const std::string& module, const std::string& method,
               std::vector<ZRValue> args, const ZRCallOptions& options = {});
  std::future<ZRValue> callAsync(const std::string& endpoint, const std::string& module,
                                 const std::string& method, std::vector<ZRValue> args,
                                 const ZRCallOptions& options = {});

  /// One way: runs `method` of `module` on the host at `endpoint`, with no result back, in order
  /// with the other messages and calls from this host to that module. An empty `module` fans the
  /// message out (docs/protocol.md). What happens to it is told, for a named stream, through the
  /// credit and stream-error listeners; it is lost if that host dies.
  void send(const std::string& endpoint, const std::string& module, const std::string& method,
            std::vector<ZRValue> args, const ZRSendOptions& options = {});

  /// Runs `task` on the I/O thread, after what it is doing now (so that what comes in meanwhile
  /// can go out with it); for short, non-blocking work such as sending queued messages. False
  /// once the transport is shut down (the task is then dropped).
  bool runOnIoThread(std::function<void()> task);

  /// Calls to `endpoint` use CURVE with this server public key (Z85), and this host's keys.
  void setServerKey(const std::string& endpoint, const std::string& serverPublicKey);

  /// A new CURVE key pair, Z85 text: {public, secret}.
  static std::pair<std::string, std::string> generateKeyPair();

  /// Called on the executor with the endpoint of every called host found dead. Until it returns,
  /// calls to that endpoint fail at once with "module destroyed".
  void setPeerLostListener(PeerListener listener);

  /// Sender of streams: told of every credit and every stream error a called host sends. They
  /// run on the I/O thread and must return at once (e.g. count, notify, send on). `delayNs` is
  /// the longest time from capture to start of the credited messages that carried a capture
  /// time; 0 when none did.
  using CreditListener = std::function<void(const std::string& endpoint, const std::string& stream,
                                            std::uint32_t credits, std::int64_t delayNs)>;
  using StreamErrorListener =
      std::function<void(const std::string& endpoint, const std::string& stream, std::uint64_t seq,
                         const ZRError& error)>;
  void setCreditListener(CreditListener listener);
  void setStreamErrorListener(StreamErrorListener listener);

  /// Says bye to every peer, fails the calls still pending and stops the I/O thread. Idempotent.
  void shutdown();

  struct Impl;

 private:
  std::shared_ptr<Impl> impl_;
};

}  // namespace ZR
