#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <boost/weak_ptr.hpp>

#include <vo/dynamicobject.h>
#include <vo/signature.h>
#include <zrerror/zrerror.h>
#include <zrvalue/zrvalue.h>

namespace ZR {

namespace detail {
class ZRModuleLiveness;
}

/// A handle to a named module. Calls are synchronous, by method name, without a time limit; every
/// failure comes out as a ZRError naming the module and the method: "module destroyed" once the
/// module is gone, "This object is null" for an empty proxy, otherwise the error the call raised.
///
/// Contract: one proxy may be used by any number of threads at once, and several proxies to one
/// module too; calls on a module run concurrently unless the module serialises them itself. An
/// in-process call runs on the caller's thread, blocks it for as long as the method runs, and
/// keeps the module alive meanwhile: the broker's shutdown waits for it, and once the broker has
/// let the module go, new calls fail at once with "module destroyed".
///
/// A proxy to a module of another host sends each call to that host, whose pool runs it, and
/// blocks the caller until the answer; it finds the module by name at every call, so a host
/// that comes back under the same names is reached again. Errors are those of the same call in
/// process. When the host dies (or the module leaves), pending and later calls fail with
/// "module destroyed" within about 3 heartbeats.
class ZRProxy {
 public:
  ZRProxy() = default;
  ZRProxy(const std::string& moduleName, boost::weak_ptr<vo::DynamicObject> object);
  virtual ~ZRProxy();

  const std::string& getModuleName() const { return moduleName_; }
  /// False once the module is gone (or for an empty proxy).
  virtual bool isValid() const { return !object_.expired(); }

  /// A time limit for each call of this proxy (zero, the default: none). A remote call past it
  /// fails with "deadline exceeded" and its host is told to drop it. An in-process call runs on
  /// the caller's thread and is not cut short.
  void setDeadline(std::chrono::milliseconds deadline) { deadlineMs_ = deadline.count(); }
  std::chrono::milliseconds deadline() const {
    return std::chrono::milliseconds(deadlineMs_.load());
  }

  /// call<R>(method, args...): R is void, bool, int, float, std::string, ZRValue or
  /// std::vector<std::string>.
  template <class R, class... Args>
  R call(std::string_view method, const Args&... args) {
    std::array<ZRValue, sizeof...(Args)> argv{vo::toArgument(args)...};
    ZRValue result = metaCall(method, argv.data(), argv.size());
    if constexpr (std::is_void_v<R>) {
      return;
    } else {
      return convertResult<R>(method, result);
    }
  }

  /// The dynamic form: arguments and result as values.
  virtual ZRValue metaCall(std::string_view method, const ZRValue* args, std::size_t count);

  /// One way: runs `method` with `args` without waiting for its result, in order with this
  /// proxy's other calls. In process it is metaCall: it runs at once on the caller's thread and
  /// throws what the method throws. To a module of another host it goes on a stream of this
  /// proxy's own, and waits only while that stream is full (never inside a lossless delivery);
  /// an error the module raises is logged and counted on this host, and thrown by this proxy's
  /// next send. What was sent goes out even if the proxy is destroyed meanwhile.
  virtual void send(std::string_view method, std::vector<ZRValue> args);
  template <class... Args>
  void sendArgs(std::string_view method, const Args&... args) {
    send(method, zrValues(vo::toArgument(args)...));
  }
  ZRValue callValues(const std::string& method, const std::vector<ZRValue>& args) {
    return metaCall(method, args.data(), args.size());
  }

 protected:
  /// For proxies that reach their module some other way.
  explicit ZRProxy(const std::string& moduleName) : moduleName_(moduleName) {}

 private:
  template <class R>
  R convertResult(std::string_view method, const ZRValue& result) {
    try {
      return R(vo::TypeTraits<std::decay_t<R>>::get(result));
    } catch (const ZRError& e) {
      throw ZRError(moduleName_, std::string(method),
                    std::string("unexpected result: ") + e.getDescription());
    }
  }

  std::string moduleName_;
  boost::weak_ptr<vo::DynamicObject> object_;
  // Null for an object that is no module.
  std::shared_ptr<detail::ZRModuleLiveness> liveness_;
  std::atomic<long long> deadlineMs_{0};
};

}  // namespace ZR
