#include "zrcommon/zrproxy.h"

#include <boost/shared_ptr.hpp>

namespace ZR {

ZRProxy::ZRProxy(const std::string& moduleName, boost::weak_ptr<vo::DynamicObject> object)
    : moduleName_(moduleName), object_(std::move(object)) {}

ZRProxy::~ZRProxy() = default;

ZRValue ZRProxy::metaCall(std::string_view method, const ZRValue* args, std::size_t count) {
  // Holding a strong reference for the duration of the call keeps the module from being destroyed
  // under it; if that reference is the last one, the module goes away here, after the call.
  boost::shared_ptr<vo::DynamicObject> object = object_.lock();
  if (!object) {
    if (object_.empty() && moduleName_.empty())
      throw ZRError(moduleName_, std::string(method), "This object is null");
    throw ZRError(moduleName_, std::string(method), "module destroyed");
  }
  try {
    return object->metaCall(method, args, count);
  } catch (const ZRError& e) {
    // Errors the framework raised about this very call already name module and method.
    if (e.getModuleName() == moduleName_ && e.getMethodName() == method) throw;
    throw ZRError(moduleName_, std::string(method), e.what());
  } catch (const std::exception& e) {
    throw ZRError(moduleName_, std::string(method), e.what());
  } catch (...) {
    throw ZRError(moduleName_, std::string(method), "unknown exception");
  }
}

}  // namespace ZR
