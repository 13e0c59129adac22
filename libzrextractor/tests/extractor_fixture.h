#pragma once

// Shared by the extractor test programs: a broker with the real memory service, a log capture,
// and an extractor that records its hook calls.

#include <gtest/gtest.h>

#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <boost/shared_ptr.hpp>

#include <vo/log.h>
#include <zrcommon/zrbroker.h>
#include <zrcommon/zrmodule.h>
#include <zrerror/zrerror.h>
#include <zrextractor/zrextractor.h>
#include <zrmemory/zrmemory.h>
#include <zrtest.h>

namespace testing_zr {

const char* const kSource = "../libzrextractor/src/zrextractor";

using zrtest::Lines;
using Hooks = std::vector<std::string>;
using Names = std::vector<std::string>;
using Params = std::pair<int, float>;  // period, precision

// Keeps the records of category "core.extractor" while it lives.
struct LogCapture : zrtest::LogCapture {
  LogCapture() : zrtest::LogCapture("core.extractor") {}
};

template <class F>
void expectError(F&& f, const std::string& module, const std::string& method,
                 const std::string& description) {
  const ZR::ZRError e = zrtest::errorOf(f);
  EXPECT_EQ(e.getModuleName(), module);
  EXPECT_EQ(e.getMethodName(), method);
  EXPECT_EQ(e.getDescription(), description);
  EXPECT_EQ(e.getFileName(), kSource);
  EXPECT_GT(e.getLineNumber(), 0);
}

inline Params current(ZR::ZRExtractor& x) {
  return {x.getCurrentPeriod(), x.getCurrentPrecision()};
}
inline Params mine(ZR::ZRExtractor& x, const std::string& name) {
  return {x.getMyPeriod(name), x.getMyPrecision(name)};
}
const Params kIdle{-1, -1.0f};

// Records every hook call as "start P Q", "update P Q" or "stop"; can be told to fail a hook.
class Recorder : public ZR::ZRExtractor {
 public:
  Recorder(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name)
      : ZRExtractor(broker, name) {}
  using ZRExtractor::xUpdateParameters;

  void xStartDetection(int period, float precision) override {
    note("start", period, precision);
    if (failStart) throw std::runtime_error("device busy");
  }
  void xUpdateParameters(int period, float precision) override {
    note("update", period, precision);
  }
  void xStopDetection() override {
    note("stop");
    if (failStop) throw ZR::ZRError(getName(), "xStopDetection", "device gone");
  }
  std::vector<std::string> takeHooks() {
    std::lock_guard<std::mutex> lock(mutex_);
    return std::exchange(hooks_, {});
  }

  bool failStart = false, failStop = false;

 private:
  void note(std::string hook) {
    std::lock_guard<std::mutex> lock(mutex_);
    hooks_.push_back(std::move(hook));
  }
  void note(const char* what, int period, float precision) {
    std::ostringstream s;
    s << what << ' ' << period << ' ' << precision;
    note(s.str());
  }

  std::mutex mutex_;
  std::vector<std::string> hooks_;
};

// A broker hosting the real memory service, shut down after each test.
class ExtractorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // Warnings are part of what is tested; keep them off the console.
    vo::log::setLogLevel(vo::LogLevel_Silent);
    broker = ZR::ZRBroker::createBroker("extractor-test", 2);
    memory = ZR::ZRModule::createModule<ZR::ZRMemory>(broker, "ZRMemory");
  }
  void TearDown() override {
    memory.reset();
    broker->shutdown();
    vo::log::setLogLevel(vo::LogLevel_Warning);
  }

  template <class T = Recorder, class... Extra>
  boost::shared_ptr<T> make(const std::string& name, Extra&&... extra) {
    return ZR::ZRModule::createModule<T>(broker, name, std::forward<Extra>(extra)...);
  }

  boost::shared_ptr<ZR::ZRBroker> broker;
  boost::shared_ptr<ZR::ZRMemory> memory;
};

}  // namespace testing_zr
