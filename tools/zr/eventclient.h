#pragma once

#include <functional>
#include <string>
#include <utility>

#include <zrcommon/zrmodule.h>

namespace zr {

/// The tool's client module (of `zr run`, in process or across processes, and of `zr watch`):
/// ZRMemory calls its "onEvent" for each event it subscribed to, from the broker's pool, and it
/// hands the event to its receiver.
class EventClient : public ZR::ZRModule {
 public:
  using Receiver = std::function<void(const std::string& event, const ZR::ZRValue& value)>;
  EventClient(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name,
              const std::string& className, const std::string& description, Receiver receiver)
      : ZRModule(broker, name), receiver_(std::move(receiver)) {
    setModuleDescription(description);
    functionName("onEvent", className, "Receives one event from ZRMemory.", 0);
    addParam("eventName", "Name of the event.");
    addParam("value", "Value raised with it.");
    addParam("subscriberIdentifier", "Name of the subscriber.");
    bindMethod(&EventClient::onEvent);
  }
  void onEvent(const std::string& eventName, const ZR::ZRValue& value, const std::string&) {
    receiver_(eventName, value);
  }

 private:
  Receiver receiver_;
};

}  // namespace zr
