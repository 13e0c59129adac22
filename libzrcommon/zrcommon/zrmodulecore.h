#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include <vo/dynamicobject.h>
#include <vo/dynamicobjectbuilder.h>
#include <vo/metamethod.h>
#include <zrcommon/zrfunctor.h>
#include <zrcommon/zrmethoddescription.h>
#include <zrerror/zrerror.h>
#include <zrvalue/zrvalue.h>

namespace ZR {

class ZRBroker;

/// What proxies and the broker share about a module's life: the proxy calls running on it, and
/// whether its broker has let it go (proxies then refuse new calls). Shared, so that the call
/// that drops the module's last reference can still count itself out.
struct ZRModuleLiveness {
  std::atomic<int> calls{0};
  std::atomic<bool> retired{false};
};

/// What every module is: a named dynamic object hosted by a broker, whose methods are registered
/// with documentation and can be called by name. The built-in remote methods "getMethodList",
/// "getMethodHelp", "version" and "ping" are registered before any of the derived class's.
class ZRModuleCore : public vo::DynamicObject {
 public:
  ZRModuleCore(boost::shared_ptr<ZRBroker> broker, const std::string& name);
  ~ZRModuleCore() override;

  const std::string& getName() const { return name_; }
  /// The hosting broker; throws ZRError once it is gone.
  boost::shared_ptr<ZRBroker> getParentBroker() const;
  virtual std::string version();

  void setModuleDescription(const std::string& description);
  std::string getModuleDescription() const;
  /// Every registered method in registration order, each overload its own entry.
  std::vector<ZRMethodDescription> getMethodDescriptions() const;

  // Built-in remote methods.
  /// Method names in registration order, each name once.
  std::vector<std::string> getMethodList();
  /// A readable page on every overload of `methodName`; ZRError when there is none.
  std::string getMethodHelp(const std::string& methodName);
  bool ping();

  // Method documentation: functionName opens a description that addParam and setReturn fill,
  // and the next binding publishes.
  void functionName(const std::string& methodName, const std::string& className,
                    const std::string& description, int flags);
  void addParam(const std::string& name, const std::string& documentation);
  void setReturn(const std::string& name, const std::string& documentation);
  ZRMethodDescription getCurrentMethodDescription() const;
  /// Publishes the functor's bound function under the open description, as one overload of that
  /// name; the module core keeps a reference to the functor for its whole life.
  void bindMethodOverload(const boost::shared_ptr<ZRFunctorBase>& functor);

  std::string objectName() const override { return name_; }

  const std::shared_ptr<ZRModuleLiveness>& liveness() const { return liveness_; }

 protected:
  vo::DynamicObjectBuilder& objectBuilder() { return objectBuilder_; }
  vo::MetaMethodBuilder& methodBuilder() { return methodBuilder_; }

  /// Publishes `member` of this object under the open description.
  template <class C, class R, class... Args>
  unsigned int bindMethod(R (C::*member)(Args...)) {
    return objectBuilder_.advertiseMethod(methodBuilder_, static_cast<C*>(this), member, 0);
  }
  template <class C, class R, class... Args>
  unsigned int bindMethod(R (C::*member)(Args...) const) {
    return objectBuilder_.advertiseMethod(methodBuilder_, static_cast<const C*>(this), member, 0);
  }

 private:
  std::string name_;
  boost::weak_ptr<ZRBroker> broker_;
  std::string moduleDescription_;
  vo::MetaMethodBuilder methodBuilder_;
  vo::DynamicObjectBuilder objectBuilder_;
  std::vector<boost::shared_ptr<ZRFunctorBase>> functors_;
  std::shared_ptr<ZRModuleLiveness> liveness_ = std::make_shared<ZRModuleLiveness>();
};

}  // namespace ZR
