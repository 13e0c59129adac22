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

/// Runs posted work one task at a time, in posting order, on the broker's pool: one per
/// subscriber, so that each sees its events in order and a slow one holds up nobody else.
/// Copies share one strand.
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
  /// Destroys the modules, newest first, then stops the pool. Idempotent.
  void shutdown();
  bool isShutdown() const;

  /// Runs `work` on the pool. Exceptions it throws are logged, not propagated.
  void post(std::function<void()> work);
  ZRStrand makeStrand();
  int threadCount() const;

  // Called by the module core when a module goes away.
  void unregisterModule(const std::string& moduleName, const ZRModuleCore* module);

 private:
  ZRBroker(const std::string& name, int threads);
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace ZR
