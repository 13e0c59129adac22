// Latency windows and the drift estimate of the audio device.

#include "zraudiotiming.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <ctime>

namespace ZR {

std::int64_t zrMonotonicNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

std::int64_t zrRealtimeNs() {
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<std::int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
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

ZRAudioLatency ZRLatencyWindow::figures() const {
  std::vector<std::int64_t> v;
  ZRAudioLatency out;
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
  out = w->figures();
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
