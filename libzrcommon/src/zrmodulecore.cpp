#include "zrcommon/zrmodulecore.h"

#include <algorithm>
#include <sstream>

#include <zrcommon/zrbroker.h>

namespace ZR {

namespace {
const char* kVersion = "0.1.0";
}

ZRModuleCore::ZRModuleCore(boost::shared_ptr<ZRBroker> broker, const std::string& name)
    : name_(name), broker_(broker), objectBuilder_(this) {
  if (!broker) throw ZRError(name, "ZRModuleCore", "a module needs a broker to host it");
  if (name.empty()) throw ZRError("", "ZRModuleCore", "a module needs a non-empty name");

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
  if (boost::shared_ptr<ZRBroker> broker = broker_.lock()) broker->unregisterModule(name_, this);
}

boost::shared_ptr<ZRBroker> ZRModuleCore::getParentBroker() const {
  boost::shared_ptr<ZRBroker> broker = broker_.lock();
  if (!broker) throw ZRError(name_, "getParentBroker", "the broker hosting this module is gone");
  return broker;
}

std::string ZRModuleCore::version() { return kVersion; }

void ZRModuleCore::setModuleDescription(const std::string& description) {
  moduleDescription_ = description;
}

std::string ZRModuleCore::getModuleDescription() const { return moduleDescription_; }

namespace {
ZRMethodDescription describe(const vo::MetaMethod& m) {
  ZRMethodDescription d;
  d.methodName = m.name;
  d.moduleName = m.className;
  d.description = m.description;
  d.flags = m.flags;
  for (const auto& p : m.parameters) d.parameters.push_back(ZRMethodParameter{p.name, p.description});
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
  if (!found) throw ZRError(name_, "getMethodHelp", "no method called \"" + methodName + "\"");
  return out.str();
}

bool ZRModuleCore::ping() { return true; }

void ZRModuleCore::functionName(const std::string& methodName, const std::string& className,
                                const std::string& description, int flags) {
  methodBuilder_.reset();
  methodBuilder_.setName(methodName);
  methodBuilder_.setClassName(className);
  methodBuilder_.setDescription(description);
  methodBuilder_.setFlags(flags);
}

void ZRModuleCore::addParam(const std::string& name, const std::string& documentation) {
  methodBuilder_.addParameter(name, documentation);
}

void ZRModuleCore::setReturn(const std::string& name, const std::string& documentation) {
  methodBuilder_.setReturnDescription(name, documentation);
}

ZRMethodDescription ZRModuleCore::getCurrentMethodDescription() const {
  return describe(methodBuilder_.metaMethod());
}

void ZRModuleCore::bindMethodOverload(const boost::shared_ptr<ZRFunctorBase>& functor) {
  if (!functor) throw ZRError(name_, "bindMethodOverload", "cannot bind a null functor");
  methodBuilder_.setSignature(functor->function());
  objectBuilder_.xAdvertiseMethod(methodBuilder_, functor->function(), 0);
  functors_.push_back(functor);
}

}  // namespace ZR
