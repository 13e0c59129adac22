#include <vo/log.h>

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <ostream>
#include <sstream>
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
std::ostream& operator<<(std::ostream& os, const Counted& c) { return os << ++*c.calls; }

LogStream logAt(vo::LogLevel level, int line = 1) { return LogStream(level, "f.cpp", "fn", "cat", line); }

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

TEST_F(Log, StreamEmitsOneRecordOnDestruction) {
  Collector c;
  vo::log::addHandler("test", c.handler(), vo::LogLevel_Debug);
  {
    LogStream s(vo::LogLevel_Info, "mixer.cpp", "setGain", "mixer", 12);
    s << "gain " << 42 << ' ' << 1.5 << std::endl;
    EXPECT_TRUE(c.get().empty());  // nothing before the stream ends
  }
  // Inner line breaks stay; only the final one goes.
  LogStream(vo::LogLevel_Debug, std::string("a.cpp"), "f", "cat", 3) << "one\ntwo" << std::endl;
  const std::vector<Record> r = c.get();
  ASSERT_EQ(r.size(), 2u);
  EXPECT_TRUE(r[0].level == vo::LogLevel_Info && r[0].category == "mixer" &&
              r[0].function == "setGain" && r[0].file == "mixer.cpp" && r[0].line == 12);
  EXPECT_EQ(r[0].message, "gain 42 1.5");
  EXPECT_EQ(r[1].message, "one\ntwo");
}

TEST_F(Log, HandlersAreAddedReplacedAndRemovedByName) {
  vo::log::setLogLevel(vo::LogLevel_Silent);  // keeps the error records below off stderr
  Collector all, severe, replacement;
  vo::log::addHandler("test", all.handler(), vo::LogLevel_Debug);
  vo::log::addHandler("other", severe.handler(), vo::LogLevel_Error);
  logAt(vo::LogLevel_Info) << "info";
  logAt(vo::LogLevel_Error) << "error";
  EXPECT_EQ(all.get().size(), 2u);
  ASSERT_EQ(severe.get().size(), 1u);  // each handler gets only the levels it wants
  EXPECT_EQ(severe.get()[0].message, "error");

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
      vo::log::addHandler("other", [](const Record&) {}, vo::LogLevel_Debug);
      vo::log::removeHandler("other");
    }
  });
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      const std::string filler(40, static_cast<char>('a' + t));
      for (int i = 0; i < kPerThread; ++i) logAt(vo::LogLevel_Info, t) << t << ' ' << i << ' ' << filler;
    });
  }
  for (std::thread& th : threads) th.join();
  done = true;
  churn.join();

  const std::vector<Record> records = c.get();
  ASSERT_EQ(records.size(), static_cast<size_t>(kThreads * kPerThread));
  std::vector<int> next(kThreads, 0);
  for (const Record& r : records) {
    std::istringstream in(r.message);
    int t = -1, i = -1;
    std::string filler, rest;
    in >> t >> i >> filler;
    ASSERT_TRUE(t >= 0 && t < kThreads && r.line == t) << r.message;
    ASSERT_EQ(filler, std::string(40, static_cast<char>('a' + t))) << r.message;
    ASSERT_FALSE(in >> rest) << r.message;
    // Handlers run in the emitting thread, so one thread's records keep their order.
    ASSERT_EQ(i, next[t]++) << r.message;
  }
}

TEST_F(Log, UnwantedLevelsAreNeverFormatted) {
  std::atomic<int> calls{0};
  Collector c;
  vo::log::addHandler("test", c.handler(), vo::LogLevel_Info);
  logAt(vo::LogLevel_Debug) << Counted{&calls};
  logAt(vo::LogLevel_Silent) << Counted{&calls};
  EXPECT_EQ(calls, 0);
  EXPECT_TRUE(c.get().empty());
  logAt(vo::LogLevel_Info) << Counted{&calls};
  EXPECT_EQ(calls, 1);

  // With no handler at all, not even a fatal record is built.
  vo::log::removeHandler("test");
  ASSERT_TRUE(vo::log::removeHandler(vo::log::kConsoleHandlerName));
  logAt(vo::LogLevel_Fatal) << Counted{&calls};
  EXPECT_EQ(calls, 1);
}

TEST_F(Log, SetLogLevelFiltersTheConsole) {
  testing::internal::CaptureStderr();
  LogStream(vo::LogLevel_Info, "f.cpp", "fn", "console", 1) << "quiet by default";
  vo::log::setLogLevel(vo::LogLevel_Info);
  EXPECT_EQ(vo::log::logLevel(), vo::LogLevel_Info);
  LogStream(vo::LogLevel_Info, "f.cpp", "fn", "console", 1) << "shown" << std::endl;
  vo::log::setLogLevel(vo::LogLevel_Error);
  LogStream(vo::LogLevel_Warning, "f.cpp", "fn", "console", 1) << "hidden";
  LogStream(vo::LogLevel_Error, "f.cpp", "fn", "console", 1) << "alarm";
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "[info] console: shown\n[error] console: alarm\n");
}

TEST(LogLevel, Parse) {
  vo::LogLevel level = vo::LogLevel_Silent;
  for (int l = vo::LogLevel_Debug; l >= vo::LogLevel_Silent; --l) {
    const auto expected = static_cast<vo::LogLevel>(l);
    EXPECT_TRUE(vo::log::parseLogLevel(vo::log::logLevelName(expected), level) && level == expected);
    EXPECT_TRUE(vo::log::parseLogLevel(std::to_string(l), level) && level == expected) << l;
  }
  level = vo::LogLevel_Debug;
  for (const char* bad : {"", "7", "-1", "warn", "info "}) {
    EXPECT_FALSE(vo::log::parseLogLevel(bad, level)) << bad;
    EXPECT_EQ(level, vo::LogLevel_Debug) << bad;  // untouched on failure
  }
}

}  // namespace
