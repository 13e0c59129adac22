#pragma once

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
  /// Larger incoming messages are refused.
  std::size_t maxMessageSize = 64u << 20;
  /// Modules whose calls are answered on the I/O thread, not on the executor. Only for handlers
  /// that return at once and never wait (the directory): the executor's tasks may be waiting for
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

/// A call that another host makes on one of this host's modules.
struct ZRIncomingCall {
  std::string module, method, caller;
  /// The calling host, as it named itself.
  std::string peerHost;
  std::vector<ZRValue> args;
  /// One-way messages only: the stream they belong to (empty: none), and the connection they
  /// came on, to grant that stream credit (see ZRTransport::credit).
  std::string stream, connection;
};

/// Per-call choices of a caller.
struct ZRCallOptions {
  /// Zero: wait as long as the callee lives. Otherwise the call fails with "deadline exceeded"
  /// after this long, and the callee is told to drop it.
  std::chrono::milliseconds deadline{0};
  /// The calling module, passed on to the callee.
  std::string caller;
};

/// The transport of one process: calls to modules of other hosts by endpoint, and calls from
/// them to this host's modules.
///
/// One I/O thread owns every socket. Incoming calls run on the executor the host gives, never
/// on the I/O thread (but those of ZRTransportOptions::answeredOnIoThread); calls from one
/// connection to one module run one after another, in order. Every member function may be called
/// from any thread at the same time. call() blocks until the result, an error, the deadline, or the
/// death of the callee (about 3 heartbeats); the destructor returns once the I/O thread is gone (it
/// waits for no call in flight, and fails them).
class ZRTransport {
 public:
  /// Runs a task somewhere other than the I/O thread (the broker's pool).
  using Executor = std::function<void(std::function<void()>)>;
  /// Answers an incoming call; throws ZRError to fail it with that error's three fields.
  using CallHandler = std::function<ZRValue(const ZRIncomingCall&)>;
  using PeerListener = std::function<void(const std::string& endpoint)>;

  /// Binds (throws ZRError when the address cannot be bound) and starts the I/O thread.
  ZRTransport(ZRTransportOptions options, CallHandler handler, Executor executor);
  ~ZRTransport();
  ZRTransport(const ZRTransport&) = delete;
  ZRTransport& operator=(const ZRTransport&) = delete;

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

  /// Calls to `endpoint` use CURVE with this server public key (Z85), and this host's keys.
  void setServerKey(const std::string& endpoint, const std::string& serverPublicKey);

  /// A new CURVE key pair, Z85 text: {public, secret}.
  static std::pair<std::string, std::string> generateKeyPair();

  /// One way: runs `method` of `module` on the host at `endpoint` with no answer and no error
  /// back, in order with the other sends and calls to that module. Lost if that host dies.
  void send(const std::string& endpoint, const std::string& module, const std::string& method,
            std::vector<ZRValue> args, const std::string& stream = "");

  /// Called on the executor with the endpoint of every called host found dead. Until it returns,
  /// calls to that endpoint fail at once with "module destroyed".
  void setPeerLostListener(PeerListener listener);

  /// Receiver of a stream: allows the sender on `connection` (ZRIncomingCall::connection)
  /// `credits` more messages of `stream`.
  void credit(const std::string& connection, const std::string& stream, std::uint32_t credits);
  /// Sender of streams: called with every credit a called host grants. It runs on the I/O thread
  /// and must return at once (e.g. count and notify).
  using CreditListener = std::function<void(const std::string& endpoint, const std::string& stream,
                                            std::uint32_t credits)>;
  void setCreditListener(CreditListener listener);

  /// Says bye to every peer, fails the calls still pending and stops the I/O thread. Idempotent.
  void shutdown();

 private:
  struct Impl;
  std::shared_ptr<Impl> impl_;
};

}  // namespace ZR
