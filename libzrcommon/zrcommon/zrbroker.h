#pragma once

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
class ZRBroker : public boost::enable_shared_from_this<ZRBroker> {
 public:
  /// `threads` <= 0: as many as the machine has cores, at least 2.
  static boost::shared_ptr<ZRBroker> createBroker(const std::string& name, int threads = 0);
  ~ZRBroker();
  ZRBroker(const ZRBroker&) = delete;
  ZRBroker& operator=(const ZRBroker&) = delete;

  const std::string& getName() const;
  /// A proxy to the module called `moduleName`; throws ZRError when there is none. `flags` is
  /// reserved (0).
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
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace ZR
