#pragma once

#include <memory>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include <vo/dynamicobject.h>
#include <vo/dynamicobjectbuilder.h>
#include <vo/metamethod.h>
#include <zrcommon/zrfunctor.h>
#include <zrcommon/zrmethoddescription.h>
#include <zrerror/zrerror.h>
#include <zrvalue/zrvalue.h>

namespace ZR {

class ZRBroker;

namespace detail {
struct ZRModuleAccess;
struct ZRModuleCoreState;
}  // namespace detail

/// What every module is: a named dynamic object hosted by a broker, whose methods are registered
/// with documentation and can be called by name. The built-in remote methods "getMethodList",
/// "getMethodHelp", "version" and "ping" are registered before any of the derived class's.
///
/// Contract: methods are registered (functionName, addParam, setReturn, bindMethod,
/// bindMethodOverload) only in the constructor, on the constructing thread; once the broker has
/// published the module, the method table is sealed and only read, so any number of calls and
/// introspections (getMethodDescriptions, getMethodList, getMethodHelp) may run concurrently
/// without a lock. setModuleDescription is for the constructor too. Nothing here blocks; the
/// destructor frees the module's name on its broker (a short lock).
class ZRModuleCore : public vo::DynamicObject {
 public:
  ZRModuleCore(boost::shared_ptr<ZRBroker> broker, const std::string& name);
  ~ZRModuleCore() override;

  const std::string& getName() const;
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

  std::string objectName() const override;

 protected:
  vo::DynamicObjectBuilder& objectBuilder();
  vo::MetaMethodBuilder& methodBuilder();

  /// Publishes `member` of this object under the open description.
  template <class C, class R, class... Args>
  unsigned int bindMethod(R (C::*member)(Args...)) {
    return objectBuilder().advertiseMethod(methodBuilder(), static_cast<C*>(this), member, 0);
  }
  template <class C, class R, class... Args>
  unsigned int bindMethod(R (C::*member)(Args...) const) {
    return objectBuilder().advertiseMethod(methodBuilder(), static_cast<const C*>(this), member, 0);
  }

 private:
  friend struct detail::ZRModuleAccess;
  std::unique_ptr<detail::ZRModuleCoreState> state_;
};

}  // namespace ZR
