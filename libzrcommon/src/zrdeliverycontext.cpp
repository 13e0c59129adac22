// The current delivery of each thread, and completions that run their continuation once.

#include <zrcommon/detail/zrdeliverycontext.h>

#include <exception>

#include <vo/log.h>

namespace ZR {
namespace detail {

namespace {
__attribute__((tls_model("initial-exec"))) thread_local const ZRDeliveryContext* tlCurrent =
    nullptr;
}

ZRCompletion::~ZRCompletion() {
  if (!done_) return;
  // A destructor must not throw: what is done next (a credit, a reply) is sent by the transport,
  // which does not throw; anything else is a fault worth a line.
  try {
    done_();
  } catch (const std::exception& e) {
    VO_LOG(vo::LogLevel_Error, "zrcommon") << "a delivery's continuation failed: " << e.what();
  }
}

const ZRDeliveryContext* ZRDeliveryContext::current() {
  return tlCurrent;
}

ZRDeliveryScope::ZRDeliveryScope(ZRDeliveryContext context)
    : context_(std::move(context)), previous_(tlCurrent) {
  tlCurrent = &context_;
}

ZRDeliveryScope::~ZRDeliveryScope() {
  tlCurrent = previous_;
}

ZRCompletionToken completionForMessage() {
  return tlCurrent ? tlCurrent->completion : nullptr;
}

ZRCompletionToken completionForItem() {
  return tlCurrent && tlCurrent->lossless ? tlCurrent->completion : nullptr;
}

bool currentDeliveryIsLossless() {
  return tlCurrent && tlCurrent->lossless;
}

}  // namespace detail
}  // namespace ZR
