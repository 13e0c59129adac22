// Test doubles for zr: a type whose constructor throws what is no std::exception, an entry point
// that does the same when ZR_TEST_THROW_AT_LOAD is set, an extractor that publishes the
// precision it runs with, one that fails from 2 s of audio on, two sinks for the device's
// buffers ("Fast", and "Slow" which holds its first buffer until its "release" is called), each
// printing "buffer NAME N" per buffer, and plain modules "Alpha" and "Beta" for the tests of hosts
// that come and go ("add", and "hold", which prints "holding NAME" and returns when the module
// goes).

#include <cstdio>
#include <cstdlib>
#include <future>
#include <mutex>
#include <stdexcept>

#include <zrcommon/zrmodule.h>
#include <zrextractors/zrextractorregistry.h>
#include <zrextractors/zrrecord.h>
#include <zrproxies/zrmemoryproxy.h>
#include <zrsoundextractor/zrsoundextractor.h>

class PrecisionProbe : public ZR::ZRSoundExtractor {
 public:
  PrecisionProbe(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name)
      : ZRSoundExtractor(broker, name) {
    declareEvent(name + "/Precision");
  }
  float getDefaultPrecision() override { return 0.75f; }
  void processSound(int, int, const short*) override {
    ZR::ZRMemoryProxy(getParentBroker())
        .raiseEvent(getName() + "/Precision",
                    ZR::makeRecord({{"precision", ZR::ZRValue(getCurrentPrecision())}}));
  }
};

// Publishes a value per buffer, then fails on the buffers from 2 s on.
class FailsMidway : public ZR::ZRSoundExtractor {
 public:
  FailsMidway(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name)
      : ZRSoundExtractor(broker, name) {
    declareEvent(name + "/Tick");
  }
  void process(const int&, const int&, const short*, const ZR::ZRValue& timestamp) override {
    const double time = timestamp[0].toInt() + timestamp[1].toInt() / 1e6;
    if (time >= 2.0) throw std::runtime_error("the model ran out of memory");
    ZR::ZRMemoryProxy(getParentBroker())
        .raiseEvent(getName() + "/Tick",
                    ZR::makeRecord({{"time", ZR::ZRValue(static_cast<float>(time))}}));
  }
};

class Sink : public ZR::ZRModule {
 public:
  Sink(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name, bool slow)
      : ZRModule(broker, name), slow_(slow), gate_(release_.get_future().share()) {
    functionName("processRemote", "Sink", "Receives one buffer.", 0);
    addParam("nbOfChannels", "Channels.");
    addParam("nbOfSamplesByChannel", "Samples per channel.");
    addParam("timestamp", "Timestamp.");
    addParam("buffer", "Samples.");
    bindMethod(&Sink::processRemote);
    functionName("release", "Sink", "Lets the held buffer go.", 0);
    bindMethod(&Sink::release);
  }
  ~Sink() override { release(); }
  void processRemote(const int&, const int&, const ZR::ZRValue&, const ZR::ZRValue&) {
    // One buffer at a time: the device delivers in order.
    std::printf("buffer %s %d\n", getName().c_str(), ++count_);
    std::fflush(stdout);
    if (slow_) gate_.wait();
  }
  void release() {
    std::call_once(released_, [this] { release_.set_value(); });
  }

 private:
  const bool slow_;
  std::promise<void> release_;
  std::shared_future<void> gate_;
  std::once_flag released_;
  int count_ = 0;
};

class Worker : public ZR::ZRModule {
 public:
  Worker(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name)
      : ZRModule(broker, name), gate_(gone_.get_future().share()) {
    functionName("add", "Worker", "Adds two numbers.", 0);
    addParam("a", "First term.");
    addParam("b", "Second term.");
    setReturn("sum", "The sum.");
    bindMethod(&Worker::add);
    functionName("hold", "Worker", "Returns when the module goes.", 0);
    bindMethod(&Worker::hold);
  }
  ~Worker() override { gone_.set_value(); }
  int add(const int& a, const int& b) { return a + b; }
  bool hold() {
    std::printf("holding %s\n", getName().c_str());
    std::fflush(stdout);
    gate_.wait();
    return true;
  }

 private:
  std::promise<void> gone_;
  std::shared_future<void> gate_;
};

ZR_EXTRACTOR_PLUGIN(registry) {
  if (std::getenv("ZR_TEST_THROW_AT_LOAD")) throw 42;
  registry.add("Thrower", [](auto, auto) -> boost::shared_ptr<ZR::ZRModuleCore> { throw 42; });
  registry.add<PrecisionProbe>("PrecisionProbe");
  registry.add<FailsMidway>("FailsMidway");
  for (const bool slow : {false, true})
    registry.add(slow ? "Slow" : "Fast", [slow](auto broker, const std::string& name) {
      return boost::shared_ptr<ZR::ZRModuleCore>(
          ZR::ZRModule::createModule<Sink>(broker, name, slow));
    });
  for (const char* worker : {"Alpha", "Beta"})
    registry.add(worker, [](auto broker, const std::string& name) {
      return boost::shared_ptr<ZR::ZRModuleCore>(ZR::ZRModule::createModule<Worker>(broker, name));
    });
}
