#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include <zrcommon/zrbroker.h>
#include <zrcommon/zrmodule.h>
#include <zrcommon/zrmodulecore.h>

namespace ZR {

/// The extractor types a host can create by name: the stock ones, and those that plugins add.
///
/// A plugin is a shared library that defines the entry point
///
///   ZR_EXTRACTOR_PLUGIN(registry) {
///     registry.add<MyExtractor>("MyExtractor", "What it computes.");
///   }
///
/// `zr run --load libmy.so --extractor MyExtractor` then creates it like a stock extractor: the
/// type is constructed as T(broker, moduleName) and registered under moduleName. A plugin links
/// `ZRAudio::zrextractorregistry` (this registry and the records of zrrecord.h) and what its
/// extractor uses, not the stock extractors.
///
/// Concurrency: a plain value. Filling it (add, loadPlugin) is not thread-safe; once filled,
/// its const members may be called from any threads at once. loadPlugin blocks for the dlopen
/// and the plugin's entry point; create for the type's constructor (an extractor's waits for
/// "ZRMemory"). Whatever a plugin throws, even what is no std::exception, comes out as ZRError.
class ZRExtractorRegistry {
 public:
  using Factory = std::function<boost::shared_ptr<ZRModuleCore>(boost::shared_ptr<ZRBroker>,
                                                                const std::string& moduleName)>;
  struct Entry {
    std::string typeName;
    std::string description;
    Factory factory;
  };

  /// Adds (or replaces) a type.
  void add(const std::string& typeName, Factory factory, const std::string& description = "");
  template <class T>
  void add(const std::string& typeName, const std::string& description = "") {
    add(
        typeName,
        [](boost::shared_ptr<ZRBroker> broker, const std::string& moduleName) {
          return boost::shared_ptr<ZRModuleCore>(ZRModule::createModule<T>(broker, moduleName));
        },
        description);
  }

  bool has(const std::string& typeName) const { return entries_.count(typeName) != 0; }
  /// Throws ZRError naming `typeName` and the known types when there is no such type.
  void require(const std::string& typeName) const;
  /// Creates and registers a module of `typeName` under `moduleName`; ZRError for an unknown type.
  boost::shared_ptr<ZRModuleCore> create(const std::string& typeName,
                                         boost::shared_ptr<ZRBroker> broker,
                                         const std::string& moduleName) const;
  std::vector<Entry> entries() const;

  /// A registry holding the stock extractors ("SoundLevel", "VoiceActivity"), created with
  /// `defaultPeriodMs` as their default period. Defined in zrextractors, which holds them.
  static ZRExtractorRegistry withStockExtractors(int defaultPeriodMs = 100);
  /// Loads a plugin library and lets it add its types; ZRError naming the library and the cause
  /// when it cannot be loaded or has no entry point. The library stays loaded for the process.
  void loadPlugin(const std::string& path);

 private:
  std::map<std::string, Entry> entries_;
};

}  // namespace ZR

/// The entry point's C name, looked up by loadPlugin.
#define ZR_EXTRACTOR_PLUGIN_SYMBOL "zrRegisterExtractors"

#define ZR_EXTRACTOR_PLUGIN(registryName)                                      \
  extern "C" __attribute__((visibility("default"))) void zrRegisterExtractors( \
      ZR::ZRExtractorRegistry& registryName)
