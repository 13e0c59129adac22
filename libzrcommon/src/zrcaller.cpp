// The caller of the call running on each thread (see zrcaller.h).

#include <zrcommon/detail/zrcaller.h>

#include <zrcommon/detail/zrmoduleinternals.h>

namespace ZR {
namespace detail {

namespace {
thread_local const ZRCaller* currentCaller = nullptr;
// The proxy calls already running when the caller's call came in: only the module that call
// reaches (one more) is called by that caller; what it calls in turn is its own doing.
thread_local int callerDepth = 0;
}  // namespace

const ZRCaller* ZRCaller::current() {
  return currentCaller && proxyCallsOnThisThread() == callerDepth + 1 ? currentCaller : nullptr;
}

ZRCallerScope::ZRCallerScope(const ZRCaller& caller)
    : previous_(currentCaller), previousDepth_(callerDepth) {
  currentCaller = &caller;
  callerDepth = proxyCallsOnThisThread();
}

ZRCallerScope::~ZRCallerScope() {
  currentCaller = previous_;
  callerDepth = previousDepth_;
}

}  // namespace detail
}  // namespace ZR
