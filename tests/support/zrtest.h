#pragma once

// What the test programs share: catching a ZRError, waiting for other threads without sleeping,
// capturing log records. Tests wait on these, never on a fixed sleep, and assert no durations:
// kWaitLimit only turns a hang into a failure.

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include <vo/log.h>
#include <zrerror/zrerror.h>

namespace zrtest {

/// How long a test waits for something that must happen before it calls it a hang.
inline constexpr std::chrono::seconds kWaitLimit{20};

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

// Until `condition` holds, yielding in between; false when kWaitLimit passes first. For state
// that nobody signals; where the code under test can be told to signal, prefer Signal.
template <class F>
bool eventually(F&& condition, std::chrono::milliseconds limit = kWaitLimit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::yield();
  }
  return true;
}

/// A count that any thread raises and a test waits on: a latch that counts up, also a gate
/// (one thread waits for 1, another notifies).
class Signal {
 public:
  void notify(int n = 1);
  /// Until the count reaches `count`; false when kWaitLimit passes first.
  bool waitFor(int count = 1) const;
  int count() const;

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
  explicit LogCapture(std::string category = "", vo::LogLevel level = vo::LogLevel_Debug);
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<vo::log::Record> records() const;
  // The records so far; the capture starts empty again.
  std::vector<vo::log::Record> take();
  // take() for records logged without a source location, which it checks.
  Lines takeLines();
  // How many records so far have `part` in their message.
  int count(const std::string& part) const;
  // Until `n` records have `part` in their message; false when kWaitLimit passes first.
  bool waitFor(const std::string& part, int n = 1) const;

 private:
  struct State;
  // Shared with the handler: an emitter's snapshot of the handlers may outlive the removal.
  std::shared_ptr<State> state_;
  std::string name_;
};

}  // namespace zrtest
