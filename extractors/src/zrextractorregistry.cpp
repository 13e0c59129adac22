#include "zrextractors/zrextractorregistry.h"

#include <dlfcn.h>

#include "zrextractors/soundlevel.h"
#include "zrextractors/voiceactivity.h"

namespace ZR {

void ZRExtractorRegistry::add(const std::string& typeName, Factory factory,
                              const std::string& description) {
  if (typeName.empty() || !factory)
    throw ZRError("ZRExtractorRegistry", "add", "an extractor type needs a name and a factory");
  entries_[typeName] = Entry{typeName, description, std::move(factory)};
}

void ZRExtractorRegistry::require(const std::string& typeName) const {
  if (has(typeName)) return;
  std::string known;
  for (const auto& [name, e] : entries_) known += (known.empty() ? "" : ", ") + name;
  throw ZRError("ZRExtractorRegistry", "create",
                "unknown extractor \"" + typeName + "\" (known: " + known + ")");
}

boost::shared_ptr<ZRModuleCore> ZRExtractorRegistry::create(const std::string& typeName,
                                                            boost::shared_ptr<ZRBroker> broker,
                                                            const std::string& moduleName) const {
  require(typeName);
  return entries_.at(typeName).factory(broker, moduleName);
}

std::vector<ZRExtractorRegistry::Entry> ZRExtractorRegistry::entries() const {
  std::vector<Entry> out;
  for (const auto& [name, e] : entries_) out.push_back(e);
  return out;
}

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

void ZRExtractorRegistry::loadPlugin(const std::string& path) {
  // A bare file name would be searched in the system's library path only; ./ keeps it local.
  const std::string target = path.find('/') == std::string::npos ? "./" + path : path;
  void* handle = dlopen(target.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!handle) {
    const char* err = dlerror();
    throw ZRError("ZRExtractorRegistry", "loadPlugin",
                  "cannot load " + path + ": " + (err ? err : "unknown error"));
  }
  using EntryPoint = void (*)(ZRExtractorRegistry&);
  auto entry = reinterpret_cast<EntryPoint>(dlsym(handle, ZR_EXTRACTOR_PLUGIN_SYMBOL));
  if (!entry) {
    dlclose(handle);
    throw ZRError("ZRExtractorRegistry", "loadPlugin",
                  path + " is no extractor plugin: it defines no " ZR_EXTRACTOR_PLUGIN_SYMBOL
                         " (use ZR_EXTRACTOR_PLUGIN)");
  }
  entry(*this);
}

}  // namespace ZR
