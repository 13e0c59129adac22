#include "zrextractors/zrextractorregistry.h"

#include <dlfcn.h>

#include <exception>

namespace ZR {

namespace {

// What a plugin threw, as text: plugins may throw anything, and a host must not abort on it.
std::string describeCurrentException() {
  try {
    throw;
  } catch (const ZRError& e) {
    return e.what();
  } catch (const std::exception& e) {
    return e.what();
  } catch (...) {
    return "an exception that is no std::exception";
  }
}

}  // namespace

void ZRExtractorRegistry::add(const std::string& typeName, Factory factory,
                              const std::string& description) {
  if (!factory)
    throw ZRError("ZRExtractorRegistry", "add", "an extractor type needs a name and a factory");
  add(typeName,
      [factory = std::move(factory)](boost::shared_ptr<ZRBroker> broker,
                                     const std::string& moduleName,
                                     const Options&) { return factory(broker, moduleName); },
      description, {});
}

void ZRExtractorRegistry::add(const std::string& typeName, ConfiguredFactory factory,
                              const std::string& description,
                              std::map<std::string, std::string> options) {
  if (typeName.empty() || !factory)
    throw ZRError("ZRExtractorRegistry", "add", "an extractor type needs a name and a factory");
  entries_[typeName] = Entry{typeName, description, std::move(factory), std::move(options)};
}

bool ZRExtractorRegistry::accepts(const std::string& typeName, const std::string& option) const {
  const auto it = entries_.find(typeName);
  return it != entries_.end() && it->second.options.count(option) != 0;
}

void ZRExtractorRegistry::require(const std::string& typeName) const {
  if (has(typeName)) return;
  std::string known;
  for (const auto& [name, e] : entries_) known += (known.empty() ? "" : ", ") + name;
  throw ZRError("ZRExtractorRegistry", "create",
                "unknown extractor \"" + typeName + "\" (known: " + known + ")");
}

ZRExtractorRegistry::Options ZRExtractorRegistry::optionsFor(const std::string& typeName,
                                                             const Options& all) const {
  Options taken;
  for (const auto& [name, value] : all)
    if (accepts(typeName, name)) taken[name] = value;
  return taken;
}

boost::shared_ptr<ZRModuleCore> ZRExtractorRegistry::create(const std::string& typeName,
                                                            boost::shared_ptr<ZRBroker> broker,
                                                            const std::string& moduleName,
                                                            const Options& options) const {
  require(typeName);
  const Entry& entry = entries_.at(typeName);
  for (const auto& [name, value] : options)
    if (!entry.options.count(name)) {
      std::string taken;
      for (const auto& [o, what] : entry.options) taken += (taken.empty() ? "" : ", ") + o;
      throw ZRError(
          "ZRExtractorRegistry", "create",
          typeName + " takes no option \"" + name + "\"" +
              (taken.empty() ? std::string(" (it takes none)") : " (it takes: " + taken + ")"));
    }
  try {
    return entry.factory(broker, moduleName, options);
  } catch (const ZRError&) {
    throw;
  } catch (...) {
    throw ZRError("ZRExtractorRegistry", "create",
                  "creating \"" + typeName + "\" failed: " + describeCurrentException());
  }
}

std::vector<ZRExtractorRegistry::Entry> ZRExtractorRegistry::entries() const {
  std::vector<Entry> out;
  for (const auto& [name, e] : entries_) out.push_back(e);
  return out;
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
  try {
    entry(*this);
  } catch (const ZRError&) {
    throw;
  } catch (...) {
    throw ZRError("ZRExtractorRegistry", "loadPlugin",
                  path + ": the plugin's entry point failed: " + describeCurrentException());
  }
}

}  // namespace ZR
