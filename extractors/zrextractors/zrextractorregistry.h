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
/// Some types take options, named settings the host hands over at creation (zr run --array FILE
/// gives SoundLocalization its "array"). A type declares the options it takes with their meaning;
/// create refuses an option the type does not take, so that a setting never goes unheard.
///
/// Concurrency: a plain value. Filling it (add, loadPlugin) is not thread-safe; once filled,
/// its const members may be called from any threads at once. loadPlugin blocks for the dlopen
/// and the plugin's entry point; create for the type's constructor (an extractor's waits for
/// "ZRMemory"). Whatever a plugin throws, even what is no std::exception, comes out as ZRError.
class ZRExtractorRegistry {
 public:
  using Factory = std::function<boost::shared_ptr<ZRModuleCore>(boost::shared_ptr<ZRBroker>,
                                                                const std::string& moduleName)>;
  /// Option name -> value.
  using Options = std::map<std::string, std::string>;
  using ConfiguredFactory = std::function<boost::shared_ptr<ZRModuleCore>(
      boost::shared_ptr<ZRBroker>, const std::string& moduleName, const Options& options)>;
  struct Entry {
    std::string typeName;
    std::string description;
    ConfiguredFactory factory;
    /// The options the type takes: name -> what it sets.
    std::map<std::string, std::string> options;
  };

  /// Adds (or replaces) a type.
  void add(const std::string& typeName, Factory factory, const std::string& description = "");
  /// Adds (or replaces) a type that takes the `options` declared (name -> what it sets).
  void add(const std::string& typeName, ConfiguredFactory factory, const std::string& description,
           std::map<std::string, std::string> options);
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
  /// Whether `typeName` takes the option `option`.
  bool accepts(const std::string& typeName, const std::string& option) const;
  /// Of `all`, the options `typeName` takes: what a host that gives one set of options to every
  /// extractor it creates hands to each.
  Options optionsFor(const std::string& typeName, const Options& all) const;
  /// Creates and registers a module of `typeName` under `moduleName` with `options`; ZRError for
  /// an unknown type or an option it does not take, and whatever its constructor refuses.
  boost::shared_ptr<ZRModuleCore> create(const std::string& typeName,
                                         boost::shared_ptr<ZRBroker> broker,
                                         const std::string& moduleName,
                                         const Options& options = {}) const;
  std::vector<Entry> entries() const;

  /// A registry holding the stock extractors ("SoundLevel", "VoiceActivity",
  /// "SoundLocalization"), created with
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
