#include "zrcommon/zrproxy.h"

#include <boost/shared_ptr.hpp>

#include <zrcommon/zrmodulecore.h>

namespace ZR {

namespace {
thread_local int tlCallDepth = 0;

// Counts one call in on the module and on this thread, and out again once the call, and the
// destruction of the module if the call held its last reference, are over.
class CallScope {
 public:
  explicit CallScope(const std::shared_ptr<std::atomic<int>>& calls) : calls_(calls.get()) {
    if (calls_) calls_->fetch_add(1, std::memory_order_relaxed);
    ++tlCallDepth;
  }
  ~CallScope() {
    --tlCallDepth;
    if (calls_) calls_->fetch_sub(1, std::memory_order_release);
  }
  CallScope(const CallScope&) = delete;
  CallScope& operator=(const CallScope&) = delete;

 private:
  std::atomic<int>* calls_;
};
}  // namespace

ZRProxy::ZRProxy(const std::string& moduleName, boost::weak_ptr<vo::DynamicObject> object)
    : moduleName_(moduleName), object_(std::move(object)) {
  if (boost::shared_ptr<vo::DynamicObject> strong = object_.lock()) {
    if (const auto* module = dynamic_cast<const ZRModuleCore*>(strong.get()))
      callsInFlight_ = module->callsInFlight();
  }
}

ZRProxy::~ZRProxy() = default;

int ZRProxy::callsOnThisThread() {
  return tlCallDepth;
}

ZRValue ZRProxy::metaCall(std::string_view method, const ZRValue* args, std::size_t count) {
  // Declared before the strong reference, so that it counts the call out only after that
  // reference is dropped: the broker's shutdown waits for it.
  const CallScope scope(callsInFlight_);
  // Holding a strong reference for the duration of the call keeps the module from being destroyed
  // under it; if that reference is the last one, the module goes away here, after the call.
  boost::shared_ptr<vo::DynamicObject> object = object_.lock();
  if (!object) {
    if (object_.empty() && moduleName_.empty())
      throw ZRError(moduleName_, std::string(method), "This object is null");
    throw ZRError(moduleName_, std::string(method), "module destroyed");
  }
  try {
    return object->metaCall(method, args, count);
  } catch (const ZRError& e) {
    // Errors the framework raised about this very call already name module and method.
    if (e.getModuleName() == moduleName_ && e.getMethodName() == method) throw;
    throw ZRError(moduleName_, std::string(method), e.what());
  } catch (const std::exception& e) {
    throw ZRError(moduleName_, std::string(method), e.what());
  } catch (...) {
    throw ZRError(moduleName_, std::string(method), "unknown exception");
  }
}

}  // namespace ZR
