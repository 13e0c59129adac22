#pragma once

// What the pipeline host program and the pipeline tests share: a client module that receives
// memory events, a sink module that receives audio buffers, and an exact rendering of values so
// that results of two runs compare value for value.

#include <cstdio>
#include <functional>
#include <future>
#include <string>

#include <zrcommon/zrmodule.h>
#include <zrvalue/zrvalue.h>

namespace zrtest {

// Floats in hexadecimal: equal texts are equal values, bit for bit.
inline std::string render(const ZR::ZRValue& v) {
  if (v.isFloat()) {
    char text[64];
    std::snprintf(text, sizeof text, "%a", static_cast<double>(v.toFloat()));
    return text;
  }
  if (!v.isArray()) return v.toString();
  std::string s = "[";
  for (int i = 0; i < v.getSize(); ++i) s += (i ? ", " : "") + render(v[i]);
  return s + "]";
}

// Receives memory events through "onEvent" and hands them on.
class PipeClient : public ZR::ZRModule {
 public:
  using Receiver = std::function<void(const std::string& event, const ZR::ZRValue& value)>;
  PipeClient(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name, Receiver receiver)
      : ZRModule(broker, name), receiver_(std::move(receiver)) {
    functionName("onEvent", "PipeClient", "Receives one event.", 0);
    addParam("eventName", "Name of the event.");
    addParam("value", "Its value.");
    addParam("subscriberIdentifier", "Name of the subscriber.");
    bindMethod(&PipeClient::onEvent);
  }
  void onEvent(const std::string& event, const ZR::ZRValue& value, const std::string&) {
    receiver_(event, value);
  }

 private:
  Receiver receiver_;
};

// Receives audio buffers through "processRemote"; a slow one holds each until `gate` is set.
class PipeSink : public ZR::ZRModule {
 public:
  using Receiver = std::function<void(const std::string& sink, int count)>;
  PipeSink(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name, Receiver receiver,
           std::shared_future<void> gate = {})
      : ZRModule(broker, name), receiver_(std::move(receiver)), gate_(std::move(gate)) {
    functionName("processRemote", "PipeSink", "Receives one buffer.", 0);
    addParam("nbOfChannels", "Channels.");
    addParam("nbOfSamplesByChannel", "Samples per channel.");
    addParam("timestamp", "Timestamp.");
    addParam("buffer", "Samples.");
    bindMethod(&PipeSink::processRemote);
  }
  void processRemote(const int&, const int&, const ZR::ZRValue&, const ZR::ZRValue&) {
    receiver_(getName(), ++count_);  // one buffer at a time: the device delivers in order
    if (gate_.valid()) gate_.wait();
  }

 private:
  Receiver receiver_;
  std::shared_future<void> gate_;
  int count_ = 0;
};

}  // namespace zrtest
