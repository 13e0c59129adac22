#include <vo/log.h>

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
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
class Collector {
 public:
  vo::log::Handler handler() {
    return [this](const Record& r) {
      std::lock_guard<std::mutex> lock(mutex_);
      records_.push_back(r);
    };
  }
  std::vector<Record> records() {
    std::lock_guard<std::mutex> lock(mutex_);
    return records_;
  }

 private:
  std::mutex mutex_;
  std::vector<Record> records_;
};

// Counts how often it is formatted, to prove disabled records cost no formatting.
struct Counted {
  std::atomic<int>* calls;
};
std::ostream& operator<<(std::ostream& os, const Counted& c) {
  ++*c.calls;
  return os << "counted";
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

TEST_F(Log, StreamEmitsOneRecordOnDestruction) {
  Collector c;
  vo::log::addHandler("test", c.handler(), vo::LogLevel_Debug);
  {
    LogStream s(vo::LogLevel_Info, "mixer.cpp", "setGain", "mixer", 12);
    s << "gain " << 42 << ' ' << 1.5 << std::endl;
    EXPECT_TRUE(c.records().empty());  // nothing before the stream ends
  }
  std::vector<Record> r = c.records();
  ASSERT_EQ(r.size(), 1u);
  EXPECT_EQ(r[0].level, vo::LogLevel_Info);
  EXPECT_EQ(r[0].category, "mixer");
  EXPECT_EQ(r[0].function, "setGain");
  EXPECT_EQ(r[0].file, "mixer.cpp");
  EXPECT_EQ(r[0].line, 12);
  EXPECT_EQ(r[0].message, "gain 42 1.5");

  // Inner line breaks stay; only the final one goes.
  LogStream(vo::LogLevel_Debug, std::string("a.cpp"), std::string("f"), std::string("cat"), 3)
      << "one\ntwo" << std::endl;
  r = c.records();
  ASSERT_EQ(r.size(), 2u);
  EXPECT_EQ(r[1].message, "one\ntwo");
  EXPECT_EQ(r[1].level, vo::LogLevel_Debug);
  EXPECT_EQ(r[1].file, "a.cpp");
}

TEST_F(Log, HandlersAreAddedReplacedAndRemovedByName) {
  vo::log::setLogLevel(vo::LogLevel_Silent);  // keep the error records below off stderr
  Collector all, severe;
  vo::log::addHandler("test", all.handler(), vo::LogLevel_Debug);
  vo::log::addHandler("other", severe.handler(), vo::LogLevel_Error);
  LogStream(vo::LogLevel_Info, "f.cpp", "fn", "cat", 1) << "info";
  LogStream(vo::LogLevel_Error, "f.cpp", "fn", "cat", 2) << "error";
  ASSERT_EQ(all.records().size(), 2u);
  ASSERT_EQ(severe.records().size(), 1u);  // each handler gets only the levels it wants
  EXPECT_EQ(severe.records()[0].message, "error");

  // Adding under a taken name replaces, never duplicates.
  Collector replacement;
  vo::log::addHandler("test", replacement.handler(), vo::LogLevel_Debug);
  LogStream(vo::LogLevel_Verbose, "f.cpp", "fn", "cat", 3) << "verbose";
  EXPECT_EQ(all.records().size(), 2u);
  EXPECT_EQ(replacement.records().size(), 1u);

  EXPECT_TRUE(vo::log::removeHandler("test"));
  EXPECT_FALSE(vo::log::removeHandler("test"));
  EXPECT_FALSE(vo::log::isEnabled(vo::LogLevel_Verbose));
  LogStream(vo::LogLevel_Error, "f.cpp", "fn", "cat", 4) << "after";
  EXPECT_EQ(replacement.records().size(), 1u);
  EXPECT_EQ(severe.records().size(), 2u);
}

TEST_F(Log, ConcurrentRecordsAreNeitherLostNorTorn) {
  constexpr int kThreads = 8;
  constexpr int kPerThread = 2000;
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
      for (int i = 0; i < kPerThread; ++i)
        LogStream(vo::LogLevel_Info, "f.cpp", "worker", "load", t) << t << ' ' << i << ' ' << filler;
    });
  }
  for (std::thread& th : threads) th.join();
  done = true;
  churn.join();

  const std::vector<Record> records = c.records();
  ASSERT_EQ(records.size(), static_cast<size_t>(kThreads * kPerThread));
  std::vector<int> next(kThreads, 0);
  for (const Record& r : records) {
    std::istringstream in(r.message);
    int t = -1, i = -1;
    std::string filler, rest;
    in >> t >> i >> filler;
    ASSERT_TRUE(t >= 0 && t < kThreads) << r.message;
    ASSERT_EQ(r.line, t) << r.message;
    ASSERT_EQ(filler, std::string(40, static_cast<char>('a' + t))) << r.message;
    ASSERT_FALSE(in >> rest) << r.message;
    // Handlers run in the emitting thread, so one thread's records keep their order.
    ASSERT_EQ(i, next[t]++) << r.message;
  }
  for (int t = 0; t < kThreads; ++t) EXPECT_EQ(next[t], kPerThread);
}

TEST_F(Log, UnwantedLevelsAreNeverFormatted) {
  std::atomic<int> calls{0};
  Collector c;
  vo::log::addHandler("test", c.handler(), vo::LogLevel_Info);
  LogStream(vo::LogLevel_Debug, "f.cpp", "fn", "cat", 1) << Counted{&calls};
  LogStream(vo::LogLevel_Silent, "f.cpp", "fn", "cat", 1) << Counted{&calls};
  EXPECT_EQ(calls, 0);
  EXPECT_TRUE(c.records().empty());
  LogStream(vo::LogLevel_Info, "f.cpp", "fn", "cat", 1) << Counted{&calls};
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(c.records().size(), 1u);

  // With no handler at all, not even a fatal record is built.
  vo::log::removeHandler("test");
  ASSERT_TRUE(vo::log::removeHandler(vo::log::kConsoleHandlerName));
  EXPECT_FALSE(vo::log::isEnabled(vo::LogLevel_Fatal));
  LogStream(vo::LogLevel_Fatal, "f.cpp", "fn", "cat", 1) << Counted{&calls};
  EXPECT_EQ(calls, 1);
}

TEST_F(Log, SetLogLevelFiltersTheConsole) {
  EXPECT_EQ(vo::log::logLevel(), vo::LogLevel_Warning);
  testing::internal::CaptureStderr();
  LogStream(vo::LogLevel_Info, "f.cpp", "fn", "console", 1) << "quiet by default";
  vo::log::setLogLevel(vo::LogLevel_Info);
  EXPECT_EQ(vo::log::logLevel(), vo::LogLevel_Info);
  LogStream(vo::LogLevel_Info, "f.cpp", "fn", "console", 1) << "shown" << std::endl;
  vo::log::setLogLevel(vo::LogLevel_Error);
  LogStream(vo::LogLevel_Warning, "f.cpp", "fn", "console", 1) << "hidden";
  LogStream(vo::LogLevel_Error, "f.cpp", "fn", "console", 1) << "alarm";
  const std::string out = testing::internal::GetCapturedStderr();
  EXPECT_EQ(out, "[info] console: shown\n[error] console: alarm\n");
}

TEST(LogLevel, Parse) {
  for (int l = vo::LogLevel_Silent; l <= vo::LogLevel_Debug; ++l) {
    const auto expected = static_cast<vo::LogLevel>(l);
    vo::LogLevel parsed = vo::LogLevel_Silent;
    EXPECT_TRUE(vo::log::parseLogLevel(vo::log::logLevelName(expected), parsed));
    EXPECT_EQ(parsed, expected);
    parsed = vo::LogLevel_Silent;
    EXPECT_TRUE(vo::log::parseLogLevel(std::to_string(l), parsed));
    EXPECT_EQ(parsed, expected);
  }
  vo::LogLevel level = vo::LogLevel_Verbose;
  EXPECT_TRUE(vo::log::parseLogLevel("warning", level));
  EXPECT_EQ(level, vo::LogLevel_Warning);
  for (const char* bad : {"", "7", "-1", "warn", "info ", "10"}) {
    EXPECT_FALSE(vo::log::parseLogLevel(bad, level)) << bad;
    EXPECT_EQ(level, vo::LogLevel_Warning) << bad;  // untouched on failure
  }
}

}  // namespace
