#pragma once

#include <string>
#include <utility>

#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>

#include <zrcommon/zrbroker.h>
#include <zrcommon/zrmodulecore.h>

namespace ZR {

/// The base of every module. Create modules with createModule: it constructs the object, then
/// registers it with the broker under its name, so nobody can reach a half-built module.
///
/// Contract: as ZRModuleCore. createModule and exit may be called from any thread; exit returns
/// at once unless it drops the last reference, in which case the module is destroyed on the
/// calling thread.
class ZRModule : public ZRModuleCore {
 public:
  ZRModule(boost::shared_ptr<ZRBroker> broker, const std::string& name);
  ~ZRModule() override;

  /// Constructs T(broker, name, extra...) and registers it. Throws ZRError when the name is
  /// taken (the new module is then destroyed unregistered).
  template <class T, class... Extra>
  static boost::shared_ptr<T> createModule(boost::shared_ptr<ZRBroker> broker,
                                           const std::string& name, Extra&&... extra) {
    if (!broker) throw ZRError(name, "createModule", "no broker to host the module");
    boost::shared_ptr<T> module =
        boost::make_shared<T>(broker, name, std::forward<Extra>(extra)...);
    broker->registerModule(module);
    return module;
  }

  /// Asks the broker to drop this module; it goes away when the last reference does.
  void exit();
};

}  // namespace ZR
