// Test doubles zr loads as a plugin: a type whose constructor throws what is no std::exception,
// an entry point that does the same when ZR_TEST_THROW_AT_LOAD is set, and an extractor that
// publishes the precision it runs with.

#include <cstdlib>

#include <boost/make_shared.hpp>

#include <zrextractors/zrextractorregistry.h>
#include <zrextractors/zrrecord.h>
#include <zrproxies/zrmemoryproxy.h>
#include <zrsoundextractor/zrsoundextractor.h>

class PrecisionProbe : public ZR::ZRSoundExtractor {
 public:
  PrecisionProbe(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name)
      : ZRSoundExtractor(broker, name), memory_(boost::make_shared<ZR::ZRMemoryProxy>(broker)) {
    declareEvent(name + "/Precision");
  }
  float getDefaultPrecision() override { return 0.75f; }
  void processSound(int, int, const short*) override {
    memory_->raiseEvent(getName() + "/Precision",
                        ZR::makeRecord({{"precision", ZR::ZRValue(getCurrentPrecision())}}));
  }

 private:
  boost::shared_ptr<ZR::ZRMemoryProxy> memory_;
};

ZR_EXTRACTOR_PLUGIN(registry) {
  if (std::getenv("ZR_TEST_THROW_AT_LOAD")) throw 42;
  registry.add("Thrower",
               [](boost::shared_ptr<ZR::ZRBroker>,
                  const std::string&) -> boost::shared_ptr<ZR::ZRModuleCore> { throw 42; });
  registry.add<PrecisionProbe>("PrecisionProbe");
}
