#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace ZR {

/// Recycles sample blocks, so that a running source does not allocate one per buffer. A block
/// goes back to the pool when the last value sharing it is gone, possibly after the device
/// itself. acquire may be called from any thread.
class ZRAudioBlockPool {
 public:
  using Block = std::vector<std::int16_t>;

  std::shared_ptr<Block> acquire(std::size_t samples) {
    Block* block = nullptr;
    {
      std::lock_guard<std::mutex> lock(state_->mutex);
      if (!state_->free.empty()) {
        block = state_->free.back().release();
        state_->free.pop_back();
      }
    }
    std::unique_ptr<Block> owned(block ? block : new Block);
    owned->resize(samples);
    std::weak_ptr<State> pool = state_;
    return std::shared_ptr<Block>(owned.release(), [pool](Block* b) {
      if (std::shared_ptr<State> s = pool.lock()) {
        std::lock_guard<std::mutex> lock(s->mutex);
        if (s->free.size() < kKept) {
          s->free.emplace_back(b);  // reserved: cannot throw
          return;
        }
      }
      delete b;
    });
  }

 private:
  static constexpr std::size_t kKept = 64;
  struct State {
    State() { free.reserve(kKept); }
    std::mutex mutex;
    std::vector<std::unique_ptr<Block>> free;
  };
  std::shared_ptr<State> state_ = std::make_shared<State>();
};

}  // namespace ZR
