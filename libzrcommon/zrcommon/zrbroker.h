#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <boost/enable_shared_from_this.hpp>
#include <boost/shared_ptr.hpp>

#include <vo/session.h>
#include <zrerror/zrerror.h>

namespace ZR {

class ZRModuleCore;
class ZRProxy;

namespace detail {
struct ZRModuleAccess;
}

/// Runs posted work one task at a time, in posting order, on the broker's pool: one per
/// subscriber, so that each sees its events in order and a slow one holds up nobody else.
///
/// Contract: copies share one strand; post may be called from any thread at once and never
/// blocks beyond a short lock. Once the broker is shut down, only the pool's own tasks may still
/// post (ZRError otherwise). A strand keeps the pool's memory alive, not its threads.
class ZRStrand {
 public:
  ZRStrand();
  void post(std::function<void()> work) const;
  bool isValid() const { return static_cast<bool>(impl_); }

 private:
  friend class ZRBroker;
  struct Impl;
  std::shared_ptr<Impl> impl_;
};

/// How a broker takes part in a network of hosts (createBroker with options). The library
/// reads no environment: the host program fills these in.
struct ZRBrokerOptions {
  /// The directory to join, or, with serveDirectory, the address to serve it at (port 0: any
  /// free port; endpoint() then tells which).
  std::string directory = "tcp://127.0.0.1:7470";
  /// This host is the directory; it takes its calls at `directory`, and `listen` is unused.
  bool serveDirectory = false;
  /// Where this host takes calls from other hosts (port 0: any free port).
  std::string listen = "tcp://127.0.0.1:0";
  /// What other hosts are told to connect to (NAT, containers). Empty: the bound address.
  std::string advertise;
  /// CURVE keys (Z85) of this host and the client keys it admits; the directory's public key
  /// when the directory requires CURVE. Listening beyond loopback needs keys or `insecure`.
  std::string curvePublicKey, curveSecretKey, directoryPublicKey;
  std::vector<std::string> allowedClientKeys;
  /// Listen beyond loopback without keys (logs a warning at start).
  bool insecure = false;
  /// Pings go out this often; a host silent for 3 intervals is dead.
  std::chrono::milliseconds heartbeat{250};
  /// Larger incoming messages are refused.
  std::size_t maxMessageSize = 64u << 20;
  /// Pool threads; <= 0: as many as the machine has cores, at least 2.
  int threads = 0;
};

/// Hosts modules, owns them, hands out proxies, and runs the platform's background work on one
/// thread pool.
///
/// Contract: every member may be called from any thread at once; lookups, registration, post
/// and makeStrand take one short lock. removeModule and shutdown destroy modules outside the
/// lock, on the calling thread, and so block while module destructors run. shutdown also
/// blocks, without a time limit, until the proxy calls in flight on each module it lets go have
/// returned (except calls running on the shutting-down thread itself), then joins the pool. It
/// destroys ordinary modules first, newest first, then the services they use, each after the
/// services of a lower rank (zrservicenames.h: "ZRAudioDevice" before "ZRMemory", since the
/// device raises events into the memory service), so that every destructor still reaches what
/// it uses.
///
/// A broker created with ZRBrokerOptions also reaches the modules of other hosts: it publishes
/// every module it registers (registration then blocks for one exchange with the directory,
/// and fails with a ZRError naming the host that holds the name), its session lists the
/// other hosts' modules, getProxy reaches them, and calls from other hosts run on its pool.
/// shutdown then also withdraws its names and stops its transport, failing the remote calls
/// still pending ("module destroyed").
class ZRBroker : public boost::enable_shared_from_this<ZRBroker> {
 public:
  /// `threads` <= 0: as many as the machine has cores, at least 2.
  static boost::shared_ptr<ZRBroker> createBroker(const std::string& name, int threads = 0);
  /// A broker in a network of hosts. Throws ZRError when an address cannot be bound.
  static boost::shared_ptr<ZRBroker> createBroker(const std::string& name,
                                                  const ZRBrokerOptions& options);
  ~ZRBroker();
  ZRBroker(const ZRBroker&) = delete;
  ZRBroker& operator=(const ZRBroker&) = delete;

  const std::string& getName() const;
  /// The address other hosts reach this one at (the directory's, for the host serving it);
  /// empty for a broker in process only.
  std::string endpoint() const;
  /// A proxy to the module called `moduleName`, here or on another host (same calls, same
  /// errors); throws ZRError when there is none. `flags` is reserved (0).
  boost::shared_ptr<ZRProxy> getProxy(const std::string& moduleName, int flags = 0);
  boost::shared_ptr<vo::Session> session() const;

  /// Module names in registration order.
  std::vector<std::string> getModuleNames() const;
  bool hasModule(const std::string& moduleName) const;
  /// Takes a share of `module`'s ownership and publishes it under its name. Throws ZRError when
  /// the name is taken or the broker is shut down.
  void registerModule(const boost::shared_ptr<ZRModuleCore>& module);
  /// Drops the broker's share of a module; it is destroyed when the last reference goes.
  /// Returns false when there was no such module.
  bool removeModule(const std::string& moduleName);
  /// Destroys the modules (ordinary modules newest first, then the services by rank), waiting for
  /// the proxy calls in flight on each, then stops the pool. Idempotent.
  void shutdown();
  bool isShutdown() const;

  /// Runs `work` on the pool. Exceptions it throws are logged, not propagated.
  void post(std::function<void()> work);
  ZRStrand makeStrand();
  int threadCount() const;

 private:
  friend struct detail::ZRModuleAccess;
  void unregisterModule(const std::string& moduleName, const ZRModuleCore* module);

  ZRBroker(const std::string& name, int threads);
  void startNetwork(const ZRBrokerOptions& options);
  struct Impl;
  std::shared_ptr<Impl> impl_;
};

}  // namespace ZR
