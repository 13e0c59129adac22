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

/// The tool's sound client (of a recording `zr run` or `zr record`): the audio device calls its
/// "processRemote" for each buffer, in order, and it hands the buffer to its receiver.
class SoundClient : public ZR::ZRModule {
 public:
  using Receiver = std::function<void(int channels, int frames, const ZR::ZRValue& timestamp,
                                      const ZR::ZRValue& samples)>;
  SoundClient(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name, Receiver receiver)
      : ZRModule(broker, name), receiver_(std::move(receiver)) {
    setModuleDescription("The zr tool: receives the sound it records.");
    functionName("processRemote", "SoundClient", "Receives one buffer of sound.", 0);
    addParam("nbOfChannels", "Channels.");
    addParam("nbOfSamplesByChannel", "Samples per channel.");
    addParam("timestamp", "Where the buffer is in its stream.");
    addParam("buffer", "Interleaved 16-bit samples.");
    bindMethod(&SoundClient::processRemote);
  }
  void processRemote(const int& channels, const int& frames, const ZR::ZRValue& timestamp,
                     const ZR::ZRValue& buffer) {
    receiver_(channels, frames, timestamp, buffer);
  }

 private:
  Receiver receiver_;
};

}  // namespace zr
