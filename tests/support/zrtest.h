#pragma once

// What the test programs share: catching a ZRError, waiting for other threads without sleeping,
// capturing log records. Tests wait on these, never on a fixed sleep, and assert no durations:
// kWaitLimit only turns a hang into a failure.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <vo/log.h>
#include <zrerror/zrerror.h>

namespace zrtest {

inline constexpr std::chrono::seconds kWaitLimit{20};

// The heartbeat of the tests' transports and hosts. Sanitized processes on a loaded machine can
// stay silent for 3 heartbeats of 250 ms (the default) and still be alive: three ThreadSanitizer
// hosts starting at once on two busy cores took over 5 s for their first exchange.
#if defined(__SANITIZE_THREAD__)
inline constexpr std::chrono::milliseconds kHeartbeat{2000};
#elif defined(__SANITIZE_ADDRESS__)
inline constexpr std::chrono::milliseconds kHeartbeat{1000};
#else
inline constexpr std::chrono::milliseconds kHeartbeat{250};
#endif

// The ZRError `f` throws; a test failure when it throws none.
template <class F>
ZR::ZRError errorOf(F&& f) {
  try {
    f();
  } catch (const ZR::ZRError& e) {
    return e;
  }
  ADD_FAILURE() << "no ZRError";
  return ZR::ZRError();
}

// Until `condition` holds, yielding in between; false after `limit`. For state nobody signals;
// where the code under test can signal, wait on a Signal or a LogCapture instead.
template <class F>
bool eventually(F&& condition, std::chrono::milliseconds limit = kWaitLimit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::yield();
  }
  return true;
}

// A count that any thread raises and a test waits on: a latch counting up, or a gate.
class Signal {
 public:
  void notify(int n = 1) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      count_ += n;
    }
    changed_.notify_all();
  }
  // Until the count reaches `count`; false after kWaitLimit.
  bool waitFor(int count = 1, std::chrono::milliseconds limit = kWaitLimit) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, limit, [&] { return count_ >= count; });
  }

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  int count_ = 0;
};

// Level, function and message of a record.
using Line = std::tuple<int, std::string, std::string>;
using Lines = std::vector<Line>;

// Keeps the records of `category` (of every category when empty) at `level` or more severe,
// from any thread, while it lives.
class LogCapture {
 public:
  explicit LogCapture(std::string category = "", vo::LogLevel level = vo::LogLevel_Debug)
      : name_("zrtest-capture-" + std::to_string(reinterpret_cast<std::uintptr_t>(this))) {
    vo::log::addHandler(
        name_,
        [state = state_, category = std::move(category)](const vo::log::Record& r) {
          if (!category.empty() && r.category != category) return;
          {
            std::lock_guard<std::mutex> lock(state->mutex);
            state->records.push_back(r);
          }
          state->added.notify_all();
        },
        level);
  }
  ~LogCapture() { vo::log::removeHandler(name_); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<vo::log::Record> records() const {
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->records;
  }
  // The records so far; the capture starts empty again.
  std::vector<vo::log::Record> take() {
    std::lock_guard<std::mutex> lock(state_->mutex);
    return std::exchange(state_->records, {});
  }
  // take() for the product's records, logged without a source location, which it checks.
  Lines takeLines() {
    Lines lines;
    for (const auto& r : take()) {
      EXPECT_EQ(r.file + std::to_string(r.line), "0") << r.message;
      lines.emplace_back(r.level, r.function, r.message);
    }
    return lines;
  }
  // take() for the platform's records, which say where they were logged (VO_LOG).
  Lines takePlatformLines() {
    Lines lines;
    for (const auto& r : take()) lines.emplace_back(r.level, r.function, r.message);
    return lines;
  }
  // How many records so far have `part` in their message.
  int count(const std::string& part) const {
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->count(part);
  }
  // Until `n` records have `part` in their message; false after kWaitLimit.
  bool waitFor(const std::string& part, int n = 1) const {
    std::unique_lock<std::mutex> lock(state_->mutex);
    return state_->added.wait_for(lock, kWaitLimit, [&] { return state_->count(part) >= n; });
  }

 private:
  struct State {
    int count(const std::string& part) const {
      int n = 0;
      for (const auto& r : records) n += r.message.find(part) != std::string::npos;
      return n;
    }
    std::mutex mutex;
    std::condition_variable added;
    std::vector<vo::log::Record> records;
  };
  // Shared with the handler: an emitter's snapshot of the handlers may outlive the removal.
  std::shared_ptr<State> state_ = std::make_shared<State>();
  std::string name_;
};

}  // namespace zrtest
