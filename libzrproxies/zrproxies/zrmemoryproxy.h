#pragma once

#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include <zrcommon/zrbroker.h>
#include <zrcommon/zrproxy.h>
#include <zrvalue/zrvalue.h>

namespace ZR {

/// Typed access to the memory service "ZRMemory": one method per remote method, with the same
/// names, arguments and errors (every failure a ZRError).
///
/// Concurrency: a proxy holds no state of its own beyond its target, so one may be shared by any
/// threads, and every method may run concurrently with any other. Each call is synchronous and
/// runs on the caller's thread without a time limit; only subscribeToEvent and
/// unsubscribeToEvent can block for long: they call the event's producer ("subscribe",
/// "unsubscribe"), and unsubscribeToEvent waits for a callback of that event already running for
/// that module on another thread.
class ZRMemoryProxy {
 public:
  /// Throws ZRError when the broker hosts no "ZRMemory".
  explicit ZRMemoryProxy(boost::shared_ptr<ZRBroker> broker);

  void insertData(const std::string& key, const ZRValue& value);
  /// ZRError for an unknown key.
  ZRValue getData(const std::string& key);
  std::vector<std::string> getDataListName();
  void removeData(const std::string& key);

  void declareEvent(const std::string& eventName, const std::string& producerName);
  /// Stores `value` under the event's name and notifies the event's subscribers. In process it
  /// returns once the event is queued for them, with the service's error if it fails; to a memory
  /// service on another host it goes one way (ZRProxy::send): an error comes back to this proxy's
  /// next raiseEvent. A value given away (`std::move`, or a temporary) goes on without a copy.
  void raiseEvent(const std::string& eventName, ZRValue value);
  /// `callbackMethod` of `moduleName` is called as (eventName, value, subscriberIdentifier).
  void subscribeToEvent(const std::string& eventName, const std::string& moduleName,
                        const std::string& callbackMethod);
  void unsubscribeToEvent(const std::string& eventName, const std::string& moduleName);
  std::vector<std::string> getEventList();
  /// The events `producerName` declared, in declaration order.
  std::vector<std::string> getExtractorEvent(const std::string& producerName);
  std::vector<std::string> getSubscribers(const std::string& eventName);
  /// Events dropped for `moduleName` because it did not keep up, since the service started.
  int getDroppedEventCount(const std::string& moduleName);
  int getRaisedEventCount(const std::string& eventName);

  /// The generic proxy underneath, for methods this class does not wrap.
  const boost::shared_ptr<ZRProxy>& getGenericProxy() const { return proxy_; }

 private:
  boost::weak_ptr<ZRBroker> broker_;
  boost::shared_ptr<ZRProxy> proxy_;
};

}  // namespace ZR
