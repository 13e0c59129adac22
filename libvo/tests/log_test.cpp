#include <vo/log.h>

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

using vo::log::LogStream;
using vo::log::Record;

namespace {

// Thread-safe sink for the records one handler receives.
struct Collector {
  vo::log::Handler handler() {
    return [this](const Record& r) {
      std::lock_guard<std::mutex> lock(mutex);
      records.push_back(r);
    };
  }
  std::vector<Record> get() {
    std::lock_guard<std::mutex> lock(mutex);
    return records;
  }
  std::mutex mutex;
  std::vector<Record> records;
};

// Counts how often it is formatted, to prove unwanted records cost no formatting.
struct Counted {
  std::atomic<int>* calls;
};
std::ostream& operator<<(std::ostream& os, const Counted& c) {
  return os << ++*c.calls;
}

LogStream logAt(vo::LogLevel level, int line = 1) {
  return LogStream(level, "f.cpp", "fn", "cat", line);
}

class Log : public ::testing::Test {
 protected:
  // Handlers and levels are process-wide: leave them as the next test expects them.
  void TearDown() override {
    vo::log::removeHandler("test");
    vo::log::removeHandler("other");
    vo::log::addConsoleHandler();
    vo::log::setLogLevel(vo::LogLevel_Warning);
  }
};

TEST_F(Log, StreamsEmitOneRecordToTheHandlersThatWantIt) {
  vo::log::setLogLevel(vo::LogLevel_Silent);  // keeps the records below off stderr
  Collector all, severe, replacement;
  vo::log::addHandler("test", all.handler(), vo::LogLevel_Debug);
  vo::log::addHandler("other", severe.handler(), vo::LogLevel_Error);
  {
    LogStream s(vo::LogLevel_Info, "mixer.cpp", "setGain", "mixer", 12);
    s << "gain " << 42 << ' ' << 1.5 << std::endl;
    EXPECT_TRUE(all.get().empty());  // nothing before the stream ends
  }
  // Inner line breaks stay; only the final one goes.
  LogStream(vo::LogLevel_Error, std::string("a.cpp"), "f", "cat", 3) << "one\ntwo" << std::endl;
  const std::vector<Record> r = all.get();
  ASSERT_EQ(r.size(), 2u);
  EXPECT_TRUE(r[0].level == vo::LogLevel_Info && r[0].category == "mixer" &&
              r[0].function == "setGain" && r[0].file == "mixer.cpp" && r[0].line == 12);
  EXPECT_EQ(r[0].message, "gain 42 1.5");
  EXPECT_EQ(r[1].message, "one\ntwo");
  ASSERT_EQ(severe.get().size(), 1u);  // each handler gets only the levels it wants
  EXPECT_EQ(severe.get()[0].message, "one\ntwo");

  vo::log::addHandler("test", replacement.handler(), vo::LogLevel_Debug);  // replaces
  logAt(vo::LogLevel_Verbose) << "verbose";
  EXPECT_EQ(all.get().size(), 2u);
  EXPECT_EQ(replacement.get().size(), 1u);
  EXPECT_TRUE(vo::log::removeHandler("test"));
  EXPECT_FALSE(vo::log::removeHandler("test"));
  logAt(vo::LogLevel_Error) << "after";
  EXPECT_EQ(replacement.get().size(), 1u);
  EXPECT_EQ(severe.get().size(), 2u);
}

TEST_F(Log, ConcurrentRecordsAreNeitherLostNorTorn) {
  constexpr int kThreads = 8, kPerThread = 2000;
  Collector c;
  vo::log::addHandler("test", c.handler(), vo::LogLevel_Info);
  // Handler changes while records fly must neither block nor corrupt the emitters.
  std::atomic<bool> done{false};
  std::thread churn([&done] {
    while (!done) {
      vo::log::addHandler(
          "other", [](const Record&) {}, vo::LogLevel_Debug);
      vo::log::removeHandler("other");
    }
  });
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      const std::string filler(40, static_cast<char>('a' + t));
      for (int i = 0; i < kPerThread; ++i)
        logAt(vo::LogLevel_Info, t) << t << ' ' << i << ' ' << filler;
    });
  }
  for (std::thread& th : threads) th.join();
  done = true;
  churn.join();

  // None lost, none torn, and one thread's records in its order: handlers run in the emitter.
  const std::vector<Record> records = c.get();
  ASSERT_EQ(records.size(), static_cast<size_t>(kThreads * kPerThread));
  std::vector<int> next(kThreads, 0);
  for (const Record& r : records) {
    ASSERT_TRUE(r.line >= 0 && r.line < kThreads) << r.message;
    const std::string filler(40, static_cast<char>('a' + r.line));
    ASSERT_EQ(r.message,
              std::to_string(r.line) + ' ' + std::to_string(next[r.line]++) + ' ' + filler);
  }
}

TEST_F(Log, UnwantedLevelsAreNeverFormattedAndTheConsoleFilters) {
  std::atomic<int> calls{0};
  testing::internal::CaptureStderr();
  LogStream(vo::LogLevel_Info, "f.cpp", "fn", "console", 1) << "quiet by default";
  vo::log::setLogLevel(vo::LogLevel_Info);
  EXPECT_EQ(vo::log::logLevel(), vo::LogLevel_Info);
  LogStream(vo::LogLevel_Info, "f.cpp", "fn", "console", 1) << "shown" << std::endl;
  logAt(vo::LogLevel_Debug) << Counted{&calls};
  logAt(vo::LogLevel_Silent) << Counted{&calls};
  EXPECT_EQ(calls, 0);
  vo::log::setLogLevel(vo::LogLevel_Error);
  LogStream(vo::LogLevel_Warning, "f.cpp", "fn", "console", 1) << "hidden";
  LogStream(vo::LogLevel_Error, "f.cpp", "fn", "console", 1) << "alarm";
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "[info] console: shown\n[error] console: alarm\n");

  // With no handler at all, not even a fatal record is built.
  ASSERT_TRUE(vo::log::removeHandler(vo::log::kConsoleHandlerName));
  logAt(vo::LogLevel_Fatal) << Counted{&calls};
  EXPECT_EQ(calls, 0);
}

TEST(LogLevel, Parse) {
  vo::LogLevel level = vo::LogLevel_Silent;
  for (int l = vo::LogLevel_Debug; l >= vo::LogLevel_Silent; --l) {
    const auto expected = static_cast<vo::LogLevel>(l);
    EXPECT_TRUE(vo::log::parseLogLevel(vo::log::logLevelName(expected), level) &&
                level == expected);
    EXPECT_TRUE(vo::log::parseLogLevel(std::to_string(l), level) && level == expected) << l;
  }
  level = vo::LogLevel_Debug;
  for (const char* bad : {"", "7", "-1", "warn", "info "}) {
    EXPECT_FALSE(vo::log::parseLogLevel(bad, level)) << bad;
    EXPECT_EQ(level, vo::LogLevel_Debug) << bad;  // untouched on failure
  }
}

}  // namespace
