#pragma once

// Platform internals shared by the broker, the module core and proxies. Not installed: nothing
// here is for module writers or hosts, and it may change with any release.

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include <vo/dynamicobjectbuilder.h>
#include <vo/metamethod.h>
#include <zrcommon/zrfunctor.h>

namespace ZR {

class ZRBroker;
class ZRModuleCore;

namespace detail {

/// What proxies and the broker share about a module's life: the proxy calls running on it, and
/// whether its broker has let it go (proxies then refuse new calls). Shared, so that the call
/// that drops the module's last reference can still count itself out.
///
/// `calls` and `retired` are sequentially consistent: a call counts itself in, then looks at
/// `retired`; the broker sets `retired`, then looks at `calls`. Either the broker sees the call,
/// or the call sees the module retired.
class ZRModuleLiveness {
 public:
  /// Counts a proxy call in; the caller then checks isRetired() before running it.
  void callStarted() { calls_.fetch_add(1); }
  void callEnded() {
    if (calls_.fetch_sub(1) == 1 && retired_.load()) {
      // Under the lock, so that a waiter between its check and its wait cannot miss this.
      std::lock_guard<std::mutex> lock(mutex_);
      idle_.notify_all();
    }
  }
  bool isRetired() const { return retired_.load(); }
  void retire() { retired_.store(true); }
  int callsInFlight() const { return calls_.load(); }
  /// Blocks until no proxy call runs on the module any more; call after retire(). When there is
  /// a call to wait for, `beforeBlocking` learns how many, outside the lock (it may log). No time
  /// limit: a call in flight runs as long as its method does.
  template <class F>
  void waitIdle(F&& beforeBlocking) {
    const int inFlight = calls_.load();
    if (inFlight == 0) return;
    beforeBlocking(inFlight);
    std::unique_lock<std::mutex> lock(mutex_);
    idle_.wait(lock, [this] { return calls_.load() == 0; });
  }

 private:
  std::atomic<int> calls_{0};
  std::atomic<bool> retired_{false};
  std::mutex mutex_;
  std::condition_variable idle_;
};

/// The module core's own state, kept out of its public header.
struct ZRModuleCoreState {
  ZRModuleCoreState(vo::DynamicObject* object, const boost::shared_ptr<ZRBroker>& parent,
                    const std::string& moduleName)
      : name(moduleName), broker(parent), objectBuilder(object) {}

  std::string name;
  boost::weak_ptr<ZRBroker> broker;
  std::string moduleDescription;
  vo::MetaMethodBuilder methodBuilder;
  vo::DynamicObjectBuilder objectBuilder;
  // The module core keeps one reference to each functor bound with bindMethodOverload.
  std::vector<boost::shared_ptr<ZRFunctorBase>> functors;
  std::shared_ptr<ZRModuleLiveness> liveness = std::make_shared<ZRModuleLiveness>();
};

/// The doors between the broker, the module core and proxies that hosts must not use.
class ZRStreamSender;

struct ZRModuleAccess {
  static const std::shared_ptr<ZRModuleLiveness>& liveness(const ZRModuleCore& module);
  /// Called by a module core when it is destroyed: its name is free again.
  static void unregisterModule(ZRBroker& broker, const std::string& moduleName,
                               const ZRModuleCore* module);
  static std::shared_ptr<ZRStreamSender> openStream(ZRBroker& broker, const std::string& endpoint,
                                                    const std::string& label);
  /// The memory service took `producer`'s declaration of `event`: published with the module.
  static void noteDeclaredEvent(ZRBroker& broker, const std::string& producer,
                                const std::string& event);
};

/// Proxy calls running on the calling thread, nested ones included.
int proxyCallsOnThisThread();

}  // namespace detail
}  // namespace ZR
