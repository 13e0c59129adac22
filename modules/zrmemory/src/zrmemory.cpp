#include "zrmemory/zrmemory.h"

#include <algorithm>
#include <climits>

#include "memorycore.h"

namespace ZR {

namespace {
// The declaring class of the remote methods below.
const char* kClassName = "ZRMemory";
}  // namespace

ZRMemory::ZRMemory(boost::shared_ptr<ZRBroker> broker, const std::string& name, int queueCapacity)
    : ZRModule(broker, name) {
  if (queueCapacity < 1) {
    throw ZRError(name, kClassName,
                  "the queue capacity must be at least 1, not " + std::to_string(queueCapacity));
  }
  core_ = std::make_shared<detail::MemoryCore>(name, broker, queueCapacity);
  session_ = broker->session();
  // The session may still call a listener it copied before the disconnect in the destructor:
  // hence a weak reference to the state, never `this`.
  std::weak_ptr<detail::MemoryCore> weak = core_;
  removalListener_ = session_->connectServiceRemoved([weak](const std::string& module) {
    if (std::shared_ptr<detail::MemoryCore> core = weak.lock()) core->moduleRemoved(module);
  });

  functionName("insertData", kClassName, "Stores a value under a key, replacing any value there.",
               0);
  addParam("key", "Name of the data.");
  addParam("value", "Value to store.");
  bindMethod(&ZRMemory::insertData);

  functionName("getData", kClassName, "Gives the value stored under a key.", 0);
  addParam("key", "Name of the data; an error when nothing is stored under it.");
  setReturn("value", "The stored value.");
  bindMethod(&ZRMemory::getData);

  functionName("getDataListName", kClassName, "Lists the keys that hold a value.", 0);
  setReturn("keys", "Keys in alphabetical order, including the names of raised events.");
  bindMethod(&ZRMemory::getDataListName);

  functionName("removeData", kClassName, "Removes a key and its value.", 0);
  addParam("key", "Name of the data; an error when nothing is stored under it.");
  bindMethod(&ZRMemory::removeData);

  functionName("declareEvent", kClassName, "Declares an event and the module that raises it.", 0);
  addParam("event", "Name of the event.");
  addParam("producer",
           "Name of the module that raises the event; empty when no module produces it.");
  bindMethod(&ZRMemory::declareEvent);

  functionName("raiseEvent", kClassName,
               "Stores a value under an event's name and sends it to the event's subscribers.", 0);
  addParam("event", "Name of the event; an undeclared event becomes known without a producer.");
  addParam("value", "Value of the event.");
  bindMethod(&ZRMemory::raiseEvent);

  functionName("subscribeToEvent", kClassName,
               "Subscribes a module to an event, and to the event's producer on its first event "
               "of that producer.",
               0);
  addParam("event", "Name of the event.");
  addParam("module", "Name of the subscribing module.");
  addParam("callbackMethod",
           "Method of the subscribing module, called as callbackMethod(eventName, value, "
           "subscriberIdentifier) for each raised event.");
  bindMethod(&ZRMemory::subscribeToEvent);

  functionName("unsubscribeToEvent", kClassName,
               "Unsubscribes a module from an event, and from the event's producer after its last "
               "event of that producer.",
               0);
  addParam("event", "Name of the event.");
  addParam("module", "Name of the subscribed module; an error when it is not subscribed.");
  bindMethod(&ZRMemory::unsubscribeToEvent);

  functionName("getEventList", kClassName, "Lists the known events.", 0);
  setReturn("events", "Event names in alphabetical order.");
  bindMethod(&ZRMemory::getEventList);

  functionName("getExtractorEvent", kClassName, "Lists the events that a module produces.", 0);
  addParam("producer", "Name of the producing module.");
  setReturn("events", "The events it declared, in declaration order; empty when none.");
  bindMethod(&ZRMemory::getExtractorEvent);

  functionName("getSubscribers", kClassName, "Lists the modules subscribed to an event.", 0);
  addParam("event", "Name of the event.");
  setReturn("subscribers", "Module names in subscription order; empty for an unknown event.");
  bindMethod(&ZRMemory::getSubscribers);

  functionName("getDroppedEventCount", kClassName,
               "Gives how many events a subscriber lost because it did not keep up.", 0);
  addParam("module", "Name of the subscriber module.");
  setReturn("dropped", "Events dropped for it since the service started.");
  bindMethod(&ZRMemory::getDroppedEventCount);

  functionName("getRaisedEventCount", kClassName, "Gives how many times an event was raised.", 0);
  addParam("event", "Name of the event.");
  setReturn("raised", "Times it was raised since the service started; 0 for an unknown event.");
  bindMethod(&ZRMemory::getRaisedEventCount);

  functionName("getEventLatency", kClassName,
               "Gives how late an event is: from the capture of the sound it was raised from to "
               "the raise, over its last 1000 raises (raises during a delivery of sound to a "
               "module of this host only).",
               0);
  addParam("event", "Name of the event.");
  setReturn("latency",
            "[p50, p99, max] in milliseconds (floats) and the raises measured (int); empty when "
            "none was.");
  bindMethod(&ZRMemory::getEventLatency);
}

ZRMemory::~ZRMemory() {
  session_->disconnectServiceRemoved(removalListener_);
  core_->close();
}

void ZRMemory::insertData(const std::string& key, const ZRValue& value) {
  core_->insertData(key, value);
}

ZRValue ZRMemory::getData(const std::string& key) {
  return core_->getData(key);
}

std::vector<std::string> ZRMemory::getDataListName() {
  return core_->getDataListName();
}

void ZRMemory::removeData(const std::string& key) {
  core_->removeData(key);
}

void ZRMemory::declareEvent(const std::string& event, const std::string& producer) {
  core_->declareEvent(event, producer);
}

void ZRMemory::raiseEvent(const std::string& event, const ZRValue& value) {
  core_->raiseEvent(event, value);
}

void ZRMemory::subscribeToEvent(const std::string& event, const std::string& module,
                                const std::string& callbackMethod) {
  core_->subscribeToEvent(event, module, callbackMethod);
}

void ZRMemory::unsubscribeToEvent(const std::string& event, const std::string& module) {
  core_->unsubscribeToEvent(event, module);
}

std::vector<std::string> ZRMemory::getEventList() {
  return core_->getEventList();
}

std::vector<std::string> ZRMemory::getExtractorEvent(const std::string& producer) {
  return core_->getExtractorEvent(producer);
}

std::vector<std::string> ZRMemory::getSubscribers(const std::string& event) {
  return core_->getSubscribers(event);
}

int ZRMemory::getRaisedEventCount(const std::string& event) {
  return core_->getRaisedEventCount(event);
}

ZRValue ZRMemory::getEventLatency(const std::string& event) {
  detail::ZRLatencyFigures f;
  ZRValue v;
  if (!core_->eventLatency(event, f)) {
    v.arraySetSize(0);
    return v;
  }
  v.arraySetSize(4);
  v[0] = static_cast<float>(f.p50Ms);
  v[1] = static_cast<float>(f.p99Ms);
  v[2] = static_cast<float>(f.maxMs);
  v[3] = static_cast<int>(std::min<std::int64_t>(f.count, INT_MAX));
  return v;
}

int ZRMemory::getDroppedEventCount(const std::string& module) {
  return core_->getDroppedEventCount(module);
}

int ZRMemory::getQueueCapacity() const {
  return core_->queueCapacity();
}

bool ZRMemory::waitForDeliveries(std::chrono::milliseconds timeout) {
  return core_->waitForDeliveries(timeout);
}

}  // namespace ZR
