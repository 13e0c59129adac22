#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <sstream>
#include <string>

namespace vo {

/// Severity of a log record; a smaller number is more severe.
enum LogLevel {
  LogLevel_Silent = 0,
  LogLevel_Fatal = 1,
  LogLevel_Error = 2,
  LogLevel_Warning = 3,
  LogLevel_Info = 4,
  LogLevel_Verbose = 5,
  LogLevel_Debug = 6,
};

namespace log {

/// One emitted record. `message` has no final end of line. Plain data.
struct Record {
  LogLevel level = LogLevel_Silent;
  std::string category;
  std::string function;
  std::string file;
  int line = 0;
  std::string message;
};

using Handler = std::function<void(const Record&)>;

/// Adds (or replaces) the handler called `name`. It is called synchronously, in the emitting
/// thread, for every record at `maxLevel` or more severe. Handlers must be thread-safe.
void addHandler(const std::string& name, Handler handler, LogLevel maxLevel = LogLevel_Debug);
/// Removes the handler called `name`; returns false when there was none.
bool removeHandler(const std::string& name);

/// What the console handler (on by default, on stderr) prints; default: warning.
void setLogLevel(LogLevel level);
LogLevel logLevel();
/// The console handler's name, for removeHandler / addHandler.
extern const char* const kConsoleHandlerName;
/// Re-installs the console handler after it was removed.
void addConsoleHandler();

/// Parses "silent", "fatal", "error", "warning", "info", "verbose", "debug" or a digit 0-6;
/// returns false when the text is none of them.
bool parseLogLevel(const std::string& text, LogLevel& level);
const char* logLevelName(LogLevel level);

namespace detail {
// The least severe level that any handler wants; records beyond it cost one load and compare.
extern std::atomic<int> gMaxWantedLevel;
}  // namespace detail

/// True when some handler would receive a record of `level`.
inline bool isEnabled(LogLevel level) {
  return level != LogLevel_Silent &&
         static_cast<int>(level) <= detail::gMaxWantedLevel.load(std::memory_order_relaxed);
}

/// Emits one record to every handler that wants it. A final end of line is stripped.
void emit(LogLevel level, const std::string& category, const std::string& function,
          const std::string& file, int line, std::string message);

/// Collects what is streamed into it and emits one record when destroyed. When no handler wants
/// its level, streaming into it does nothing at all.
///
/// Contract: one stream per statement and thread; any number of threads log at once. Handlers
/// run synchronously in the emitting thread, outside the registry's lock, so a record costs what
/// the handlers cost (the console handler: one short lock and one write to stderr).
class LogStream {
 public:
  LogStream(LogLevel level, const char* file, const char* function, const char* category, int line);
  LogStream(LogLevel level, const std::string& file, const std::string& function,
            const std::string& category, int line);
  LogStream(const LogStream&) = delete;
  LogStream& operator=(const LogStream&) = delete;
  ~LogStream();

  template <class T>
  LogStream& operator<<(const T& value) {
    if (state_) state_->stream << value;
    return *this;
  }
  LogStream& operator<<(std::ostream& (*manipulator)(std::ostream&)) {
    if (state_) manipulator(state_->stream);
    return *this;
  }
  LogStream& operator<<(std::ios_base& (*manipulator)(std::ios_base&)) {
    if (state_) manipulator(state_->stream);
    return *this;
  }

 private:
  struct State {
    std::ostringstream stream;
    std::string file, function, category;
  };
  LogLevel level_;
  int line_;
  std::unique_ptr<State> state_;
};

}  // namespace log
}  // namespace vo

/// The platform's one way to log: a record that keeps where it was written.
///   VO_LOG(vo::LogLevel_Warning, "zrnet") << "peer " << endpoint << " lost";
#define VO_LOG(level, category) ::vo::log::LogStream(level, __FILE__, __func__, category, __LINE__)
