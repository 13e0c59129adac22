#pragma once

// Delays over a sliding window, with their percentiles: the audio device keeps one per
// subscriber, the memory service one per event. Not installed.

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

namespace ZR {
namespace detail {

struct ZRLatencyFigures {
  double p50Ms = 0, p99Ms = 0, maxMs = 0;
  std::int64_t count = 0;  ///< delays measured in all
};

/// The last kWindow delays. Thread-safe; add is a lock and a store.
class ZRLatencyWindow {
 public:
  static constexpr std::size_t kWindow = 1000;
  void add(std::int64_t ns);
  ZRLatencyFigures figures() const;

 private:
  mutable std::mutex mutex_;
  std::vector<std::int64_t> ring_;
  std::size_t next_ = 0;
  std::int64_t count_ = 0;
};

/// The host's monotonic clock in ns, as capture times are stamped with.
std::int64_t zrMonotonicNs();

/// The capture time (monotonic ns) of the sound the delivery running on this thread came from;
/// 0 when none. The audio device sets it around each local "processRemote", so that what a
/// sound extractor raises from it can be timed where it is raised.
std::int64_t zrCurrentCaptureNs();
class ZRCaptureScope {
 public:
  explicit ZRCaptureScope(std::int64_t captureNs);
  ~ZRCaptureScope();
  ZRCaptureScope(const ZRCaptureScope&) = delete;
  ZRCaptureScope& operator=(const ZRCaptureScope&) = delete;

 private:
  std::int64_t previous_;
};

}  // namespace detail
}  // namespace ZR
