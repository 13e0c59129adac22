// The stock extractors' registration: in zrextractors, so that the registry itself (which plugins
// link) does not pull in the extractors.

#include "zrextractors/soundlevel.h"
#include "zrextractors/soundlocalization.h"
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
  r.add("SoundLocalization",
        [](boost::shared_ptr<ZRBroker> broker, const std::string& moduleName, const Options& o) {
          std::optional<ZRMicArray> array;
          if (o.count("array")) array = ZRMicArray::parse(o.at("array"));
          int sources = SoundLocalization::kDefaultMaxSources;
          if (o.count("sources")) {
            const std::string& text = o.at("sources");
            std::size_t used = 0;
            try {
              sources = std::stoi(text, &used);
            } catch (const std::exception&) {
              used = 0;
            }
            if (used != text.size() || sources < 1 || sources > 8)
              throw ZRError("SoundLocalization", "create",
                            "the option \"sources\" wants 1 to 8, not \"" + text + "\"");
          }
          return boost::shared_ptr<ZRModuleCore>(
              ZRModule::createModule<SoundLocalization>(broker, moduleName, array, sources));
        },
        "Directions of up to N simultaneous sound sources around a microphone array, tracked over "
        "time.",
        {{"array", "the microphone array: a JSON file or a shape such as circular4-r32mm"},
         {"sources", "most sources reported at once, 1 to 8 (default 2)"}});
  return r;
}

}  // namespace ZR
