// Injected gaps: a source wrapped so that it drops samples at chosen positions, as a capture
// overrun would, for drills of loss handling.

#include <algorithm>
#include <utility>
#include <vector>

#include "zraudiosource.h"

namespace ZR {

namespace {

// Reads its inner source, throwing away the gaps at their positions.
class GapInjector : public ZRAudioSource {
 public:
  GapInjector(std::unique_ptr<ZRAudioSource> inner,
              std::vector<ZRAudioDeviceOptions::InjectedGap> gaps, int channels)
      : inner_(std::move(inner)), gaps_(std::move(gaps)), channels_(channels) {
    std::sort(gaps_.begin(), gaps_.end(), [](const auto& a, const auto& b) { return a.at < b.at; });
  }
  bool isHardware() const override { return inner_->isHardware(); }
  std::int64_t capturedRealtimeNs() const override { return inner_->capturedRealtimeNs(); }
  std::int64_t firstPosition() const override { return inner_->firstPosition(); }

  std::size_t read(std::int16_t* out, std::size_t frames, const std::atomic<bool>& stop) override {
    std::size_t got = 0;
    while (got == 0 && !stop.load(std::memory_order_relaxed)) {
      while (next_ < gaps_.size() && gaps_[next_].at <= position_) {
        if (!drop(gaps_[next_].samples, stop)) return 0;
        ++next_;
      }
      std::size_t want = frames;
      if (next_ < gaps_.size())
        want = static_cast<std::size_t>(
            std::min<std::int64_t>(static_cast<std::int64_t>(frames), gaps_[next_].at - position_));
      got = inner_->read(out, want, stop);
      absorb();
      position_ += static_cast<std::int64_t>(got);
      if (got == 0) break;  // the end of the inner source
    }
    return got;
  }

  Loss takeLoss() override {
    Loss l = std::move(loss_);
    loss_ = Loss();
    return l;
  }

 private:
  // Reads `samples` frames into the void; false when the source ended first.
  bool drop(std::int64_t samples, const std::atomic<bool>& stop) {
    scratch_.resize(4096 * static_cast<std::size_t>(channels_));
    while (samples > 0 && !stop.load(std::memory_order_relaxed)) {
      const std::size_t n = inner_->read(
          scratch_.data(), static_cast<std::size_t>(std::min<std::int64_t>(4096, samples)), stop);
      absorb();
      if (n == 0) return false;
      samples -= static_cast<std::int64_t>(n);
      position_ += static_cast<std::int64_t>(n);
      add(static_cast<std::int64_t>(n), "injected");
    }
    return true;
  }
  void absorb() {
    Loss inner = inner_->takeLoss();
    if (inner.frames == 0) return;
    position_ += inner.frames;
    add(inner.frames, inner.reason);
  }
  void add(std::int64_t frames, const std::string& reason) {
    loss_.frames += frames;
    if (loss_.reason.empty())
      loss_.reason = reason;
    else if (loss_.reason.find(reason) == std::string::npos)
      loss_.reason += ", " + reason;
  }

  std::unique_ptr<ZRAudioSource> inner_;
  std::vector<ZRAudioDeviceOptions::InjectedGap> gaps_;
  int channels_;
  std::size_t next_ = 0;
  std::int64_t position_ = 0;
  Loss loss_;
  std::vector<std::int16_t> scratch_;
};

}  // namespace

std::unique_ptr<ZRAudioSource> withInjectedGaps(std::unique_ptr<ZRAudioSource> source,
                                                const ZRAudioDeviceOptions& options,
                                                const ZRAudioFormat& format) {
  if (!source || options.injectedGaps.empty()) return source;
  return std::make_unique<GapInjector>(std::move(source), options.injectedGaps, format.channels);
}

}  // namespace ZR
