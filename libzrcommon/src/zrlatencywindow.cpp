// Latency windows and the capture time of the current delivery.

#include <zrcommon/detail/zrlatencywindow.h>

#include <algorithm>
#include <chrono>
#include <cmath>

namespace ZR {
namespace detail {

namespace {
thread_local std::int64_t tlCaptureNs = 0;
}

void ZRLatencyWindow::add(std::int64_t ns) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (ring_.size() < kWindow) {
    ring_.push_back(ns);
  } else {
    ring_[next_] = ns;
    next_ = (next_ + 1) % kWindow;
  }
  ++count_;
}

ZRLatencyFigures ZRLatencyWindow::figures() const {
  std::vector<std::int64_t> v;
  ZRLatencyFigures out;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    v = ring_;
    out.count = count_;
  }
  if (v.empty()) return out;
  // Nearest rank: the smallest delay that at least p of the window did not exceed.
  auto rank = [&](double p) {
    const auto k = static_cast<std::size_t>(std::ceil(p * static_cast<double>(v.size()))) - 1;
    std::nth_element(v.begin(), v.begin() + static_cast<std::ptrdiff_t>(k), v.end());
    return static_cast<double>(v[k]) / 1e6;
  };
  out.p50Ms = rank(0.50);
  out.p99Ms = rank(0.99);
  out.maxMs = static_cast<double>(*std::max_element(v.begin(), v.end())) / 1e6;
  return out;
}

std::int64_t zrMonotonicNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

std::int64_t zrCurrentCaptureNs() {
  return tlCaptureNs;
}

ZRCaptureScope::ZRCaptureScope(std::int64_t captureNs) : previous_(tlCaptureNs) {
  tlCaptureNs = captureNs;
}

ZRCaptureScope::~ZRCaptureScope() {
  tlCaptureNs = previous_;
}

}  // namespace detail
}  // namespace ZR
