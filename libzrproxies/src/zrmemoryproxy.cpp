#include "zrproxies/zrmemoryproxy.h"

#include <zrcommon/detail/zrmoduleinternals.h>
#include <zrcommon/zrservicenames.h>

namespace ZR {

ZRMemoryProxy::ZRMemoryProxy(boost::shared_ptr<ZRBroker> broker) : broker_(broker) {
  if (!broker)
    throw ZRError(kMemoryServiceName, "ZRMemoryProxy", "no broker to find the memory service on");
  proxy_ = broker->getProxy(kMemoryServiceName, 0);
}

void ZRMemoryProxy::insertData(const std::string& key, const ZRValue& value) {
  proxy_->call<void>("insertData", key, value);
}

ZRValue ZRMemoryProxy::getData(const std::string& key) {
  return proxy_->call<ZRValue>("getData", key);
}

std::vector<std::string> ZRMemoryProxy::getDataListName() {
  return proxy_->call<std::vector<std::string>>("getDataListName");
}

void ZRMemoryProxy::removeData(const std::string& key) {
  proxy_->call<void>("removeData", key);
}

void ZRMemoryProxy::declareEvent(const std::string& eventName, const std::string& producerName) {
  proxy_->call<void>("declareEvent", eventName, producerName);
  // Listings show what a module declared without asking the memory service.
  if (boost::shared_ptr<ZRBroker> broker = broker_.lock(); broker && !producerName.empty())
    detail::ZRModuleAccess::noteDeclaredEvent(*broker, producerName, eventName);
}

void ZRMemoryProxy::raiseEvent(const std::string& eventName, ZRValue value) {
  // One way: a memory service on another host is not waited for, event by event.
  proxy_->send("raiseEvent", zrValues(eventName, std::move(value)));
}

void ZRMemoryProxy::subscribeToEvent(const std::string& eventName, const std::string& moduleName,
                                     const std::string& callbackMethod) {
  proxy_->call<void>("subscribeToEvent", eventName, moduleName, callbackMethod);
  if (boost::shared_ptr<ZRBroker> broker = broker_.lock())
    detail::ZRModuleAccess::noteSubscription(*broker, eventName, moduleName, callbackMethod, true);
}

void ZRMemoryProxy::unsubscribeToEvent(const std::string& eventName,
                                       const std::string& moduleName) {
  // Forgotten first: a memory service that is gone forgot it anyway.
  if (boost::shared_ptr<ZRBroker> broker = broker_.lock())
    detail::ZRModuleAccess::noteSubscription(*broker, eventName, moduleName, "", false);
  proxy_->call<void>("unsubscribeToEvent", eventName, moduleName);
}

std::vector<std::string> ZRMemoryProxy::getEventList() {
  return proxy_->call<std::vector<std::string>>("getEventList");
}

std::vector<std::string> ZRMemoryProxy::getExtractorEvent(const std::string& producerName) {
  return proxy_->call<std::vector<std::string>>("getExtractorEvent", producerName);
}

std::vector<std::string> ZRMemoryProxy::getSubscribers(const std::string& eventName) {
  return proxy_->call<std::vector<std::string>>("getSubscribers", eventName);
}

int ZRMemoryProxy::getRaisedEventCount(const std::string& eventName) {
  return proxy_->call<int>("getRaisedEventCount", eventName);
}

int ZRMemoryProxy::getDroppedEventCount(const std::string& moduleName) {
  return proxy_->call<int>("getDroppedEventCount", moduleName);
}

}  // namespace ZR
