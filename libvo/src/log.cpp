#include "vo/log.h"

#include <algorithm>
#include <cstdio>
#include <mutex>
#include <vector>

namespace vo {
namespace log {

const char* const kConsoleHandlerName = "consoleloghandler";

namespace detail {
std::atomic<int> gMaxWantedLevel{LogLevel_Warning};
}  // namespace detail

namespace {

struct Entry {
  std::string name;
  Handler handler;
  LogLevel maxLevel;
};
using HandlerList = std::vector<Entry>;

struct Registry {
  std::mutex mutex;
  // Copy on write: emitters take a snapshot and call handlers without holding the mutex, so a
  // handler may log or add handlers itself.
  std::shared_ptr<const HandlerList> handlers;
  LogLevel consoleLevel = LogLevel_Warning;
};

void printToConsole(const Record& r) {
  static std::mutex consoleMutex;
  std::string line;
  line.reserve(r.message.size() + r.category.size() + 16);
  line += '[';
  line += logLevelName(r.level);
  line += "] ";
  line += r.category;
  line += ": ";
  line += r.message;
  line += '\n';
  std::lock_guard<std::mutex> lock(consoleMutex);
  std::fwrite(line.data(), 1, line.size(), stderr);
}

Registry& registry();

void recompute(Registry& reg, HandlerList list) {
  int maxLevel = LogLevel_Silent;
  for (const Entry& e : list) maxLevel = std::max(maxLevel, static_cast<int>(e.maxLevel));
  reg.handlers = std::make_shared<const HandlerList>(std::move(list));
  detail::gMaxWantedLevel.store(maxLevel, std::memory_order_relaxed);
}

Registry& registry() {
  static Registry* reg = [] {
    auto* r = new Registry;  // never destroyed: records may be emitted from static destructors
    recompute(*r, {Entry{kConsoleHandlerName, printToConsole, r->consoleLevel}});
    return r;
  }();
  return *reg;
}

void upsert(Registry& reg, const std::string& name, Handler handler, LogLevel maxLevel) {
  HandlerList list = reg.handlers ? *reg.handlers : HandlerList();
  auto it = std::find_if(list.begin(), list.end(), [&](const Entry& e) { return e.name == name; });
  if (it != list.end()) {
    it->handler = std::move(handler);
    it->maxLevel = maxLevel;
  } else {
    list.push_back(Entry{name, std::move(handler), maxLevel});
  }
  recompute(reg, std::move(list));
}

// Makes sure the registry (and its console handler) exists before main runs, so that the fast
// level check in isEnabled sees the real handler levels.
const bool kRegistryReady = (registry(), true);

}  // namespace

void addHandler(const std::string& name, Handler handler, LogLevel maxLevel) {
  if (!handler) return;
  Registry& reg = registry();
  std::lock_guard<std::mutex> lock(reg.mutex);
  upsert(reg, name, std::move(handler), maxLevel);
}

bool removeHandler(const std::string& name) {
  Registry& reg = registry();
  std::lock_guard<std::mutex> lock(reg.mutex);
  HandlerList list = *reg.handlers;
  auto it = std::find_if(list.begin(), list.end(), [&](const Entry& e) { return e.name == name; });
  if (it == list.end()) return false;
  list.erase(it);
  recompute(reg, std::move(list));
  return true;
}

void setLogLevel(LogLevel level) {
  Registry& reg = registry();
  std::lock_guard<std::mutex> lock(reg.mutex);
  reg.consoleLevel = level;
  HandlerList list = *reg.handlers;
  for (Entry& e : list)
    if (e.name == kConsoleHandlerName) e.maxLevel = level;
  recompute(reg, std::move(list));
}

LogLevel logLevel() {
  Registry& reg = registry();
  std::lock_guard<std::mutex> lock(reg.mutex);
  return reg.consoleLevel;
}

void addConsoleHandler() {
  Registry& reg = registry();
  std::lock_guard<std::mutex> lock(reg.mutex);
  upsert(reg, kConsoleHandlerName, printToConsole, reg.consoleLevel);
}

const char* logLevelName(LogLevel level) {
  switch (level) {
    case LogLevel_Silent:
      return "silent";
    case LogLevel_Fatal:
      return "fatal";
    case LogLevel_Error:
      return "error";
    case LogLevel_Warning:
      return "warning";
    case LogLevel_Info:
      return "info";
    case LogLevel_Verbose:
      return "verbose";
    case LogLevel_Debug:
      return "debug";
  }
  return "unknown";
}

bool parseLogLevel(const std::string& text, LogLevel& level) {
  for (int l = LogLevel_Silent; l <= LogLevel_Debug; ++l) {
    if (text == logLevelName(static_cast<LogLevel>(l)) || text == std::to_string(l)) {
      level = static_cast<LogLevel>(l);
      return true;
    }
  }
  return false;
}

void emit(LogLevel level, const std::string& category, const std::string& function,
          const std::string& file, int line, std::string message) {
  if (!isEnabled(level)) return;
  Registry& reg = registry();
  std::shared_ptr<const HandlerList> handlers;
  {
    std::lock_guard<std::mutex> lock(reg.mutex);
    handlers = reg.handlers;
  }
  if (!message.empty() && message.back() == '\n') message.pop_back();
  if (!message.empty() && message.back() == '\r') message.pop_back();
  Record record{level, category, function, file, line, std::move(message)};
  for (const Entry& e : *handlers) {
    if (static_cast<int>(level) > static_cast<int>(e.maxLevel)) continue;
    try {
      e.handler(record);
    } catch (...) {
      // A failing handler must not take the emitting thread down, nor starve the others.
    }
  }
}

LogStream::LogStream(LogLevel level, const char* file, const char* function, const char* category,
                     int line)
    : level_(level), line_(line) {
  if (!isEnabled(level)) return;
  state_.reset(new State);
  state_->file = file ? file : "";
  state_->function = function ? function : "";
  state_->category = category ? category : "";
}

LogStream::LogStream(LogLevel level, const std::string& file, const std::string& function,
                     const std::string& category, int line)
    : level_(level), line_(line) {
  if (!isEnabled(level)) return;
  state_.reset(new State);
  state_->file = file;
  state_->function = function;
  state_->category = category;
}

LogStream::~LogStream() {
  if (!state_) return;
  try {
    emit(level_, state_->category, state_->function, state_->file, line_, state_->stream.str());
  } catch (...) {
  }
}

}  // namespace log
}  // namespace vo
