#pragma once

// Lost sound, as zr run shows it: the device's "ZRAudioDevice/Gap" announcements, heard by the
// tool's client, become warning lines on standard error, one per burst.

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include <zrproxies/zrmemoryproxy.h>

#include "output.h"

namespace zr {

/// Subscribes `client` to the device's gaps when the memory service knows the event, and adds
/// it to `subscribed`.
void subscribeToGaps(ZR::ZRMemoryProxy& memory, const std::string& client,
                     std::vector<std::string>& subscribed);

/// Prints a warning line for the first gap of a burst, and holds back the gaps that follow
/// within `interval`, told in one line at the next gap after it or at finish(). Not
/// thread-safe: the caller serialises calls (results reach the writer one at a time).
class GapWarnings {
 public:
  using Clock = std::function<std::chrono::steady_clock::time_point()>;
  explicit GapWarnings(std::FILE* out, std::chrono::milliseconds interval = std::chrono::seconds(1),
                       Clock clock = Clock());
  void add(const Result& gap);
  /// Says what is held back.
  void finish();

 private:
  std::chrono::steady_clock::time_point now() const;
  std::FILE* out_;
  std::chrono::milliseconds interval_;
  Clock clock_;
  bool any_ = false;
  std::chrono::steady_clock::time_point last_;
  std::int64_t heldGaps_ = 0, heldSamples_ = 0;
};

}  // namespace zr
