#include "zrcommon/detail/zrdeliveryline.h"

#include <vo/log.h>

namespace ZR {
namespace detail {

ZRWarningLimiter::ZRWarningLimiter(std::chrono::steady_clock::duration interval, Clock clock)
    : interval_(interval), clock_(std::move(clock)) {}

bool ZRWarningLimiter::allow(std::int64_t& heldBack) {
  const auto now = clock_ ? clock_() : std::chrono::steady_clock::now();
  if (used_ && now - last_ < interval_) {
    ++held_;
    return false;
  }
  used_ = true;
  last_ = now;
  heldBack = held_;
  held_ = 0;
  return true;
}

void zrDeliveryWarn(const std::string& category, const std::string& function,
                    const std::string& message) {
  vo::log::LogStream(vo::LogLevel_Warning, "", function.c_str(), category.c_str(), 0) << message;
}

}  // namespace detail
}  // namespace ZR
