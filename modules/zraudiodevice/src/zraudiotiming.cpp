// Latency windows and the drift estimate of the audio device.

#include "zraudiotiming.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <ctime>

namespace ZR {

std::int64_t zrRealtimeNs() {
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<std::int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

std::shared_ptr<ZRLatencyWindow> ZRLatencyTable::of(const std::string& subscriber) {
  std::lock_guard<std::mutex> lock(mutex_);
  std::shared_ptr<ZRLatencyWindow>& w = windows_[subscriber];
  if (!w) w = std::make_shared<ZRLatencyWindow>();
  return w;
}

bool ZRLatencyTable::figures(const std::string& subscriber, ZRAudioLatency& out) const {
  std::shared_ptr<ZRLatencyWindow> w;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = windows_.find(subscriber);
    if (it == windows_.end()) return false;
    w = it->second;
  }
  const detail::ZRLatencyFigures f = w->figures();
  out = {f.p50Ms, f.p99Ms, f.maxMs, f.count};
  return true;
}

void ZRDriftEstimator::reset(int nominalRate) {
  std::lock_guard<std::mutex> lock(mutex_);
  nominal_ = nominalRate;
  n_ = t0_ = p0_ = 0;
  meanT_ = meanP_ = sTT_ = sTP_ = sPP_ = 0;
}

void ZRDriftEstimator::add(std::int64_t monotonicNs, std::int64_t position) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (n_ == 0) {
    t0_ = monotonicNs;
    p0_ = position;
  }
  // Welford's update of means and co-moments: stable over hours of points.
  const double t = static_cast<double>(monotonicNs - t0_) * 1e-9;
  const double p = static_cast<double>(position - p0_);
  ++n_;
  const double dt = t - meanT_, dp = p - meanP_;
  meanT_ += dt / static_cast<double>(n_);
  meanP_ += dp / static_cast<double>(n_);
  sTT_ += dt * (t - meanT_);
  sTP_ += dt * (p - meanP_);
  sPP_ += dp * (p - meanP_);
}

ZRAudioDrift ZRDriftEstimator::estimate() const {
  std::lock_guard<std::mutex> lock(mutex_);
  ZRAudioDrift d;
  d.points = n_;
  if (n_ < 3 || nominal_ <= 0 || !(sTT_ > 0)) return d;
  const double slope = sTP_ / sTT_;  // samples per second
  const double residual = std::max(0.0, sPP_ - slope * sTP_) / static_cast<double>(n_ - 2);
  const double slopeError = std::sqrt(residual / sTT_);
  d.known = true;
  d.ppm = (slope / nominal_ - 1.0) * 1e6;
  d.uncertaintyPpm = slopeError / nominal_ * 1e6;
  return d;
}

}  // namespace ZR
