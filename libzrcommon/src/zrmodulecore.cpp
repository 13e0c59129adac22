#include "zrcommon/zrmodulecore.h"

#include <algorithm>
#include <sstream>

#include <zrcommon/detail/zrmoduleinternals.h>
#include <zrcommon/zrbroker.h>
#include <zrcommon/zrversion.h>

namespace ZR {

namespace detail {
const std::shared_ptr<ZRModuleLiveness>& ZRModuleAccess::liveness(const ZRModuleCore& module) {
  return module.state_->liveness;
}
}  // namespace detail

ZRModuleCore::ZRModuleCore(boost::shared_ptr<ZRBroker> broker, const std::string& name) {
  if (!broker) throw ZRError(name, "ZRModuleCore", "a module needs a broker to host it");
  if (name.empty()) throw ZRError("", "ZRModuleCore", "a module needs a non-empty name");
  state_ = std::make_unique<detail::ZRModuleCoreState>(this, broker, name);

  functionName("getMethodList", "ZRModuleCore", "Lists the names of the module's methods.", 0);
  setReturn("methods", "Method names in registration order.");
  bindMethod(&ZRModuleCore::getMethodList);

  functionName("getMethodHelp", "ZRModuleCore", "Describes a method and its parameters.", 0);
  addParam("methodName", "Name of the method.");
  setReturn("help", "Readable documentation of every overload of the method.");
  bindMethod(&ZRModuleCore::getMethodHelp);

  functionName("version", "ZRModuleCore", "Gives the module's version.", 0);
  setReturn("version", "The version string.");
  bindMethod(&ZRModuleCore::version);

  functionName("ping", "ZRModuleCore", "Checks that the module answers.", 0);
  setReturn("alive", "Always true.");
  bindMethod(&ZRModuleCore::ping);
}

ZRModuleCore::~ZRModuleCore() {
  if (boost::shared_ptr<ZRBroker> broker = state_->broker.lock())
    detail::ZRModuleAccess::unregisterModule(*broker, state_->name, this);
}

const std::string& ZRModuleCore::getName() const {
  return state_->name;
}

std::string ZRModuleCore::objectName() const {
  return state_->name;
}

boost::shared_ptr<ZRBroker> ZRModuleCore::getParentBroker() const {
  boost::shared_ptr<ZRBroker> broker = state_->broker.lock();
  if (!broker)
    throw ZRError(state_->name, "getParentBroker", "the broker hosting this module is gone");
  return broker;
}

std::string ZRModuleCore::version() {
  return kPlatformVersion;
}

void ZRModuleCore::setModuleDescription(const std::string& description) {
  state_->moduleDescription = description;
}

std::string ZRModuleCore::getModuleDescription() const {
  return state_->moduleDescription;
}

vo::DynamicObjectBuilder& ZRModuleCore::objectBuilder() {
  return state_->objectBuilder;
}

vo::MetaMethodBuilder& ZRModuleCore::methodBuilder() {
  return state_->methodBuilder;
}

namespace {
ZRMethodDescription describe(const vo::MetaMethod& m) {
  ZRMethodDescription d;
  d.methodName = m.name;
  d.moduleName = m.className;
  d.description = m.description;
  d.flags = m.flags;
  for (const auto& p : m.parameters)
    d.parameters.push_back(ZRMethodParameter{p.name, p.description});
  d.returnName = m.returnName;
  d.returnDocumentation = m.returnDescription;
  d.signature = m.readableSignature();
  return d;
}
}  // namespace

std::vector<ZRMethodDescription> ZRModuleCore::getMethodDescriptions() const {
  std::vector<ZRMethodDescription> out;
  for (const vo::MetaMethod& m : metaMethods()) out.push_back(describe(m));
  return out;
}

std::vector<std::string> ZRModuleCore::getMethodList() {
  std::vector<std::string> names;
  for (const vo::MetaMethod& m : metaMethods())
    if (std::find(names.begin(), names.end(), m.name) == names.end()) names.push_back(m.name);
  return names;
}

std::string ZRModuleCore::getMethodHelp(const std::string& methodName) {
  std::ostringstream out;
  bool found = false;
  for (const vo::MetaMethod& m : metaMethods()) {
    if (m.name != methodName) continue;
    if (found) out << '\n';
    found = true;
    out << m.readableSignature() << '\n';
    if (!m.description.empty()) out << "  " << m.description << '\n';
    for (std::size_t i = 0; i < m.parameters.size(); ++i) {
      const char code = i < m.parametersSignature.size() ? m.parametersSignature[i] : '?';
      out << "  " << m.parameters[i].name << " (" << vo::sig::typeName(code)
          << "): " << m.parameters[i].description << '\n';
    }
    if (!m.returnName.empty())
      out << "  returns " << m.returnName << ": " << m.returnDescription << '\n';
  }
  if (!found)
    throw ZRError(state_->name, "getMethodHelp", "no method called \"" + methodName + "\"");
  return out.str();
}

bool ZRModuleCore::ping() {
  return true;
}

void ZRModuleCore::functionName(const std::string& methodName, const std::string& className,
                                const std::string& description, int flags) {
  state_->methodBuilder.reset();
  state_->methodBuilder.setName(methodName);
  state_->methodBuilder.setClassName(className);
  state_->methodBuilder.setDescription(description);
  state_->methodBuilder.setFlags(flags);
}

void ZRModuleCore::addParam(const std::string& name, const std::string& documentation) {
  state_->methodBuilder.addParameter(name, documentation);
}

void ZRModuleCore::setReturn(const std::string& name, const std::string& documentation) {
  state_->methodBuilder.setReturnDescription(name, documentation);
}

ZRMethodDescription ZRModuleCore::getCurrentMethodDescription() const {
  return describe(state_->methodBuilder.metaMethod());
}

void ZRModuleCore::bindMethodOverload(const boost::shared_ptr<ZRFunctorBase>& functor) {
  if (!functor) throw ZRError(state_->name, "bindMethodOverload", "cannot bind a null functor");
  state_->methodBuilder.setSignature(functor->function());
  state_->objectBuilder.xAdvertiseMethod(state_->methodBuilder, functor->function(), 0);
  state_->functors.push_back(functor);
}

}  // namespace ZR
