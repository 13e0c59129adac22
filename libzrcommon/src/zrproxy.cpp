#include "zrcommon/zrproxy.h"

#include <boost/shared_ptr.hpp>

#include <zrcommon/detail/zrmoduleinternals.h>
#include <zrcommon/zrmodulecore.h>
#include <zrerror/zrerrortexts.h>

namespace ZR {

namespace {
// Initial-exec: the general TLS model costs a function call per access from a shared library.
__attribute__((tls_model("initial-exec"))) thread_local int tlCallDepth = 0;

// Counts one call in on the module and on this thread, and out again once the call, and the
// destruction of the module if the call held its last reference, are over.
class CallScope {
 public:
  // Sequentially consistent with the broker's retire-then-count: either the broker sees this
  // call counted, or this call sees the module retired.
  explicit CallScope(detail::ZRModuleLiveness* liveness) : liveness_(liveness) {
    if (liveness_) liveness_->callStarted();
    ++tlCallDepth;
  }
  ~CallScope() {
    --tlCallDepth;
    if (liveness_) liveness_->callEnded();
  }
  bool retired() const { return liveness_ && liveness_->isRetired(); }
  CallScope(const CallScope&) = delete;
  CallScope& operator=(const CallScope&) = delete;

 private:
  detail::ZRModuleLiveness* liveness_;
};
}  // namespace

namespace detail {
int proxyCallsOnThisThread() {
  return tlCallDepth;
}
}  // namespace detail

ZRProxy::ZRProxy(const std::string& moduleName, boost::weak_ptr<vo::DynamicObject> object)
    : moduleName_(moduleName), object_(std::move(object)) {
  if (boost::shared_ptr<vo::DynamicObject> strong = object_.lock()) {
    if (const auto* module = dynamic_cast<const ZRModuleCore*>(strong.get()))
      liveness_ = detail::ZRModuleAccess::liveness(*module);
  }
}

ZRProxy::~ZRProxy() = default;

ZRValue ZRProxy::metaCall(std::string_view method, const ZRValue* args, std::size_t count) {
  // Declared before the strong reference, so that it counts the call out only after that
  // reference is dropped: the broker's shutdown waits for it.
  const CallScope scope(liveness_.get());
  // Holding a strong reference for the duration of the call keeps the module from being destroyed
  // under it; if that reference is the last one, the module goes away here, after the call.
  // A module its broker let go takes no new calls, so that callers cannot keep it alive forever.
  boost::shared_ptr<vo::DynamicObject> object = scope.retired() ? nullptr : object_.lock();
  if (!object) {
    if (object_.empty() && moduleName_.empty())
      throw ZRError(moduleName_, std::string(method), "This object is null");
    throw ZRError(moduleName_, std::string(method), kModuleDestroyed);
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

void ZRProxy::send(std::string_view method, std::vector<ZRValue> args) {
  metaCall(method, args.data(), args.size());
}

}  // namespace ZR
