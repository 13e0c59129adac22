// Test doubles for zr: a type whose constructor throws what is no std::exception, an entry point
// that does the same when ZR_TEST_THROW_AT_LOAD is set, and an extractor that publishes the
// precision it runs with.

#include <cstdlib>

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

ZR_EXTRACTOR_PLUGIN(registry) {
  if (std::getenv("ZR_TEST_THROW_AT_LOAD")) throw 42;
  registry.add("Thrower", [](auto, auto) -> boost::shared_ptr<ZR::ZRModuleCore> { throw 42; });
  registry.add<PrecisionProbe>("PrecisionProbe");
}
