#include <vo/log.h>

#include <gtest/gtest.h>
#include <zrtest.h>
#include <atomic>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

using vo::log::LogStream;
using vo::log::Record;

namespace {

// Counts how often it is formatted, to prove unwanted records cost no formatting.
struct Counted {
  std::atomic<int>* calls;
  friend std::ostream& operator<<(std::ostream& os, const Counted& c) { return os << ++*c.calls; }
};

LogStream logAt(vo::LogLevel level, int line = 1, const char* category = "cat") {
  return LogStream(level, "f.cpp", "fn", category, line);
}

class Log : public ::testing::Test {
 protected:
  // Handlers and levels are process-wide: leave them as the next test expects them.
  void TearDown() override {
    vo::log::removeHandler("test");
    vo::log::addConsoleHandler();
    vo::log::setLogLevel(vo::LogLevel_Warning);
  }
};

TEST_F(Log, StreamsEmitOneRecordToTheHandlersThatWantIt) {
  vo::log::setLogLevel(vo::LogLevel_Silent);  // keeps the records below off stderr
  zrtest::LogCapture all, severe("", vo::LogLevel_Error);
  {
    LogStream s(vo::LogLevel_Info, "mixer.cpp", "setGain", "mixer", 12);
    s << "gain " << 42 << ' ' << 1.5 << std::endl;
    EXPECT_TRUE(all.records().empty());  // nothing before the stream ends
  }
  // Inner line breaks stay; only the final one goes.
  LogStream(vo::LogLevel_Error, std::string("a.cpp"), "f", "cat", 3) << "one\ntwo" << std::endl;
  const std::vector<Record> r = all.records();
  ASSERT_EQ(r.size(), 2u);
  EXPECT_TRUE(r[0].level == vo::LogLevel_Info && r[0].category == "mixer" &&
              r[0].function == "setGain" && r[0].file == "mixer.cpp" && r[0].line == 12);
  EXPECT_EQ(r[0].message + "|" + r[1].message, "gain 42 1.5|one\ntwo");
  // Each handler gets only the levels it wants; a second one of the same name replaces the first.
  int first = 0, second = 0;
  vo::log::addHandler(
      "test", [&](const Record&) { ++first; }, vo::LogLevel_Debug);
  vo::log::addHandler(
      "test", [&](const Record&) { ++second; }, vo::LogLevel_Debug);
  logAt(vo::LogLevel_Verbose) << "verbose";
  EXPECT_TRUE(vo::log::removeHandler("test"));
  EXPECT_FALSE(vo::log::removeHandler("test"));
  logAt(vo::LogLevel_Error) << "after";
  EXPECT_EQ(std::to_string(first) + std::to_string(second), "01");
  ASSERT_EQ(severe.records().size(), 2u);
  EXPECT_EQ(severe.records()[0].message + severe.records()[1].message, "one\ntwoafter");
}

TEST_F(Log, ConcurrentRecordsAreNeitherLostNorTorn) {
  constexpr int kThreads = 8, kPerThread = 2000;
  zrtest::LogCapture c("", vo::LogLevel_Info);
  std::atomic<bool> done{false};  // handler changes while records fly must not disturb them
  std::thread churn([&done] {
    for (; !done; vo::log::removeHandler("test"))
      vo::log::addHandler(
          "test", [](const Record&) {}, vo::LogLevel_Debug);
  });
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([t] {
      for (int i = 0; i < kPerThread; ++i)
        logAt(vo::LogLevel_Info, t)
            << t << ' ' << i << ' ' << std::string(40, static_cast<char>('a' + t));
    });
  for (std::thread& th : threads) th.join();
  done = true;
  churn.join();
  // None lost, none torn, and one thread's records in its order: handlers run in the emitter.
  const std::vector<Record> records = c.records();
  ASSERT_EQ(records.size(), static_cast<size_t>(kThreads * kPerThread));
  std::vector<int> next(kThreads, 0);
  for (const Record& r : records) {
    ASSERT_TRUE(r.line >= 0 && r.line < kThreads) << r.message;
    ASSERT_EQ(r.message, std::to_string(r.line) + ' ' + std::to_string(next[r.line]++) + ' ' +
                             std::string(40, static_cast<char>('a' + r.line)));
  }
}

TEST_F(Log, UnwantedLevelsAreNeverFormattedTheConsoleFiltersAndLevelsParse) {
  std::atomic<int> calls{0};
  testing::internal::CaptureStderr();
  logAt(vo::LogLevel_Info, 1, "console") << "quiet by default";
  vo::log::setLogLevel(vo::LogLevel_Info);
  EXPECT_EQ(vo::log::logLevel(), vo::LogLevel_Info);
  logAt(vo::LogLevel_Info, 1, "console") << "shown" << std::endl;
  logAt(vo::LogLevel_Debug) << Counted{&calls};
  logAt(vo::LogLevel_Silent) << Counted{&calls};
  vo::log::setLogLevel(vo::LogLevel_Error);
  logAt(vo::LogLevel_Warning, 1, "console") << "hidden";
  logAt(vo::LogLevel_Error, 1, "console") << "alarm";
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "[info] console: shown\n[error] console: alarm\n");
  // With no handler at all, not even a fatal record is built.
  ASSERT_TRUE(vo::log::removeHandler(vo::log::kConsoleHandlerName));
  logAt(vo::LogLevel_Fatal) << Counted{&calls};
  EXPECT_EQ(calls, 0);
  vo::LogLevel level = vo::LogLevel_Silent;  // by name and by number; untouched on failure
  for (int l = vo::LogLevel_Debug; l >= vo::LogLevel_Silent; --l) {
    const auto expected = static_cast<vo::LogLevel>(l);
    EXPECT_TRUE(vo::log::parseLogLevel(vo::log::logLevelName(expected), level) &&
                level == expected);
    EXPECT_TRUE(vo::log::parseLogLevel(std::to_string(l), level) && level == expected) << l;
  }
  for (const char* bad : {"", "7", "-1", "warn", "info "})
    EXPECT_FALSE(vo::log::parseLogLevel(bad, level) || level != vo::LogLevel_Silent) << bad;
}

}  // namespace
