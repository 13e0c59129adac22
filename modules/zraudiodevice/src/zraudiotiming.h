#pragma once

// The device's figures about time: each subscriber's delivery latency over a sliding window, and
// the estimate of a live source's real sample rate against the host's monotonic clock.

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <zraudiodevice/zraudiodevice.h>
#include <zrcommon/detail/zrlatencywindow.h>

namespace ZR {

/// Nanoseconds on the host's real-time clock, as timestamps carry them.
std::int64_t zrRealtimeNs();
using detail::ZRLatencyWindow;
using detail::zrMonotonicNs;

/// Latency windows by subscriber, kept after it leaves as its counts are.
class ZRLatencyTable {
 public:
  std::shared_ptr<ZRLatencyWindow> of(const std::string& subscriber);
  /// False when `subscriber` never had a window.
  bool figures(const std::string& subscriber, ZRAudioLatency& out) const;

 private:
  mutable std::mutex mutex_;
  std::map<std::string, std::shared_ptr<ZRLatencyWindow>> windows_;
};

/// Least-squares fit of the stream position against the monotonic clock over a whole run: its
/// slope is the source's real rate. Each point is a buffer's arrival; arrival jitter averages
/// out, and lost samples count in the position, so overruns do not bend the line.
class ZRDriftEstimator {
 public:
  void reset(int nominalRate);
  /// The stream held `position` samples at `monotonicNs`.
  void add(std::int64_t monotonicNs, std::int64_t position);
  ZRAudioDrift estimate() const;

 private:
  mutable std::mutex mutex_;
  int nominal_ = 0;
  std::int64_t n_ = 0;
  std::int64_t t0_ = 0, p0_ = 0;  // the first point: the sums are taken relative to it
  double meanT_ = 0, meanP_ = 0, sTT_ = 0, sTP_ = 0, sPP_ = 0;
};

}  // namespace ZR
