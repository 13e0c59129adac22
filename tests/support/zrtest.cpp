#include "zrtest.h"

#include <cstdint>
#include <utility>

namespace zrtest {

void Signal::notify(int n) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    count_ += n;
  }
  changed_.notify_all();
}

bool Signal::waitFor(int count) const {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, kWaitLimit, [&] { return count_ >= count; });
}

int Signal::count() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return count_;
}

struct LogCapture::State {
  mutable std::mutex mutex;
  mutable std::condition_variable added;
  std::vector<vo::log::Record> records;
  int countLocked(const std::string& part) const {
    int n = 0;
    for (const auto& r : records) n += r.message.find(part) != std::string::npos;
    return n;
  }
};

LogCapture::LogCapture(std::string category, vo::LogLevel level)
    : state_(std::make_shared<State>()),
      name_("zrtest-capture-" + std::to_string(reinterpret_cast<std::uintptr_t>(this))) {
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

LogCapture::~LogCapture() {
  vo::log::removeHandler(name_);
}

std::vector<vo::log::Record> LogCapture::records() const {
  std::lock_guard<std::mutex> lock(state_->mutex);
  return state_->records;
}

std::vector<vo::log::Record> LogCapture::take() {
  std::lock_guard<std::mutex> lock(state_->mutex);
  return std::exchange(state_->records, {});
}

Lines LogCapture::takeLines() {
  Lines lines;
  for (const auto& r : take()) {
    EXPECT_EQ(r.file + std::to_string(r.line), "0") << r.message;
    lines.emplace_back(r.level, r.function, r.message);
  }
  return lines;
}

int LogCapture::count(const std::string& part) const {
  std::lock_guard<std::mutex> lock(state_->mutex);
  return state_->countLocked(part);
}

bool LogCapture::waitFor(const std::string& part, int n) const {
  std::unique_lock<std::mutex> lock(state_->mutex);
  return state_->added.wait_for(lock, kWaitLimit, [&] { return state_->countLocked(part) >= n; });
}

}  // namespace zrtest
