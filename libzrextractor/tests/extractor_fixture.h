#pragma once

// Shared by the extractor and sound extractor tests: a broker with the real memory service, the
// records of one log category, an error and a method registration as one line of text.

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <zrcommon/zrproxy.h>
#include <zrmemory/zrmemory.h>  // with the broker and module bases
#include <zrtest.h>

namespace extractortest {

using zrtest::errorOf;
using zrtest::Line;
using zrtest::Lines;
using Names = std::vector<std::string>;

// The ZRError `f` throws as "module|method|description|file|line" ("line" when positive).
template <class F>
std::string errorFields(F&& f) {
  const ZR::ZRError e = errorOf(f);
  return e.getModuleName() + "|" + e.getMethodName() + "|" + e.getDescription() + "|" +
         e.getFileName() + "|" +
         (e.getLineNumber() > 0 ? "line" : std::to_string(e.getLineNumber()));
}

// "signature | description | parameter: documentation; ... | [return][documentation]".
inline std::string describe(const ZR::ZRMethodDescription& d) {
  std::string s = d.signature + " | " + d.description + " |";
  for (const auto& p : d.parameters) s += " " + p.name + ": " + p.documentation + ";";
  return s + " | [" + d.returnName + "][" + d.returnDocumentation + "]";
}

// A broker hosting the real memory service, shut down after each test; `log` keeps the records
// of the product's category under test (the platform's threads log under others).
class BrokerTest : public ::testing::Test {
 protected:
  explicit BrokerTest(const char* category) : log(category) {
    vo::log::setLogLevel(vo::LogLevel_Silent);  // warnings are tested, not printed
    ZR::ZRModule::createModule<ZR::ZRMemory>(broker, "ZRMemory");
  }
  ~BrokerTest() override {
    broker->shutdown();
    vo::log::setLogLevel(vo::LogLevel_Warning);
    log.takeLines();  // checks that no record carries a source location
  }
  template <class T>
  boost::shared_ptr<T> add(const std::string& name) {
    return ZR::ZRModule::createModule<T>(broker, name);
  }
  zrtest::LogCapture log;
  boost::shared_ptr<ZR::ZRBroker> broker = ZR::ZRBroker::createBroker("extractor-test", 2);
};

}  // namespace extractortest
