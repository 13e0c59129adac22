// The stock extractors' registration: in zrextractors, so that the registry itself (which plugins
// link) does not pull in the extractors.

#include "zrextractors/soundlevel.h"
#include "zrextractors/voiceactivity.h"
#include "zrextractors/zrextractorregistry.h"

namespace ZR {

ZRExtractorRegistry ZRExtractorRegistry::withStockExtractors(int defaultPeriodMs) {
  ZRExtractorRegistry r;
  r.add(
      "SoundLevel",
      [defaultPeriodMs](boost::shared_ptr<ZRBroker> broker, const std::string& moduleName) {
        return boost::shared_ptr<ZRModuleCore>(
            ZRModule::createModule<SoundLevel>(broker, moduleName, defaultPeriodMs));
      },
      "Per-channel RMS and peak level in dBFS over windows of the current period, with an "
      "event when a level crosses a threshold.");
  r.add<VoiceActivity>("VoiceActivity",
                       "Speech segments from energy against an adaptive noise floor.");
  return r;
}

}  // namespace ZR
