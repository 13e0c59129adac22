#pragma once

// Helpers shared by the test programs: catching a ZRError, waiting on other threads, capturing
// log records.

#include <chrono>
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

// Polls until `condition` holds; false when `timeout` passes first.
template <class F>
bool eventually(F&& condition, std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

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
          std::lock_guard<std::mutex> lock(state->mutex);
          state->records.push_back(r);
        },
        level);
  }
  ~LogCapture() { vo::log::removeHandler(name_); }

  std::vector<vo::log::Record> records() const {
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->records;
  }
  // The records so far; the capture starts empty again.
  std::vector<vo::log::Record> take() {
    std::lock_guard<std::mutex> lock(state_->mutex);
    return std::exchange(state_->records, {});
  }
  // take() for records logged without a source location, which it checks.
  Lines takeLines() {
    Lines lines;
    for (const auto& r : take()) {
      EXPECT_EQ(r.file + std::to_string(r.line), "0") << r.message;
      lines.emplace_back(r.level, r.function, r.message);
    }
    return lines;
  }
  // How many records so far have `part` in their message.
  int count(const std::string& part) const {
    int n = 0;
    for (const auto& r : records()) n += r.message.find(part) != std::string::npos;
    return n;
  }

 private:
  struct State {
    std::mutex mutex;
    std::vector<vo::log::Record> records;
  };
  // Shared with the handler: an emitter's snapshot of the handlers may outlive the removal.
  std::shared_ptr<State> state_ = std::make_shared<State>();
  std::string name_;
};

}  // namespace zrtest
