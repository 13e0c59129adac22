// C++ extractors that the Python extractors are held to, loaded by `zr host --load`:
// "HookProbe" records every hook call (remote "getHookCalls" hands them over), "BoundedProbe"
// does the same with limits of its own, and "PlainSound" is the sound extractor base as it is.
// python/tests/probes.py defines their Python twins. "TimestampEcho" encodes audio timestamps
// with the C++ header, for the Python decoder to be held to.

#include <mutex>
#include <utility>

#include <string>

#include <zrcommon/zraudiotimestamp.h>
#include <zrextractor/zrextractor.h>
#include <zrextractors/zrextractorregistry.h>
#include <zrsoundextractor/zrsoundextractor.h>

namespace {

class HookProbe : public ZR::ZRExtractor {
 public:
  HookProbe(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name, bool bounded)
      : ZRExtractor(broker, name), bounded_(bounded) {
    functionName("getHookCalls", "HookProbe", "Hands over the hook calls made since the last call.",
                 0);
    setReturn("calls", "[name, period, precision] per call; [name] for the stop hook.");
    bindMethod(&HookProbe::getHookCalls);
  }

  void xStartDetection(int period, float precision) override {
    record({ZR::ZRValue("start"), ZR::ZRValue(period), ZR::ZRValue(precision)});
  }
  void xUpdateParameters(int period, float precision) override {
    record({ZR::ZRValue("update"), ZR::ZRValue(period), ZR::ZRValue(precision)});
  }
  void xStopDetection() override { record({ZR::ZRValue("stop")}); }

  int getDefaultPeriod() override { return bounded_ ? 50 : ZRExtractor::getDefaultPeriod(); }
  float getDefaultPrecision() override {
    return bounded_ ? 0.25f : ZRExtractor::getDefaultPrecision();
  }
  int getMinimumPeriod() override { return bounded_ ? 20 : ZRExtractor::getMinimumPeriod(); }
  int getMaximumPeriod() override { return bounded_ ? 500 : ZRExtractor::getMaximumPeriod(); }

  ZR::ZRValue getHookCalls() {
    std::lock_guard<std::mutex> lock(mutex_);
    ZR::ZRValue out = std::move(calls_);
    calls_ = ZR::ZRValue();
    if (!out.isArray()) out.arraySetSize(0);
    return out;
  }

 private:
  void record(std::initializer_list<ZR::ZRValue> call) {
    ZR::ZRValue entry;
    for (const ZR::ZRValue& v : call) entry.arrayPush(v);
    std::lock_guard<std::mutex> lock(mutex_);
    calls_.arrayPush(entry);
  }

  const bool bounded_;
  std::mutex mutex_;
  ZR::ZRValue calls_;
};

class TimestampEcho : public ZR::ZRModule {
 public:
  TimestampEcho(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name)
      : ZRModule(broker, name) {
    functionName("encode", "TimestampEcho",
                 "The timestamp of a sample index at a rate, with capture times and sequence.", 0);
    for (const char* p : {"sample", "monotonicNs", "realtimeNs", "sequence"})
      addParam(p, "A 64-bit integer in decimal.");
    addParam("rate", "Samples per second.");
    setReturn("timestamp", "As the audio device writes it.");
    bindMethod(&TimestampEcho::encode);
    functionName("position", "TimestampEcho", "A stream position as results carry it.", 0);
    addParam("sample", "A 64-bit integer in decimal.");
    setReturn("position", "An int, or [high, low].");
    bindMethod(&TimestampEcho::position);
  }
  ZR::ZRValue encode(const std::string& sample, const std::string& mono, const std::string& real,
                     const std::string& sequence, const int& rate) {
    ZR::ZRAudioTimestamp t = ZR::ZRAudioTimestamp::at(std::stoll(sample), rate);
    t.monotonicNs = std::stoll(mono);
    t.realtimeNs = std::stoll(real);
    t.sequence = std::stoll(sequence);
    return t.toValue();
  }
  ZR::ZRValue position(const std::string& sample) { return ZR::zrSampleValue(std::stoll(sample)); }
};

}  // namespace

ZR_EXTRACTOR_PLUGIN(registry) {
  for (const bool bounded : {false, true})
    registry.add(bounded ? "BoundedProbe" : "HookProbe",
                 [bounded](boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name) {
                   return boost::shared_ptr<ZR::ZRModuleCore>(
                       ZR::ZRModule::createModule<HookProbe>(broker, name, bounded));
                 });
  registry.add<ZR::ZRSoundExtractor>("PlainSound");
  registry.add("TimestampEcho",
               [](boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name) {
                 return boost::shared_ptr<ZR::ZRModuleCore>(
                     ZR::ZRModule::createModule<TimestampEcho>(broker, name));
               });
}
