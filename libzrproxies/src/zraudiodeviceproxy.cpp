#include "zrproxies/zraudiodeviceproxy.h"

namespace ZR {

ZRAudioDeviceProxy::ZRAudioDeviceProxy(boost::shared_ptr<ZRBroker> broker,
                                       const std::string& moduleName) {
  if (!broker)
    throw ZRError(moduleName, "ZRAudioDeviceProxy", "no broker to find the audio device on");
  proxy_ = broker->getProxy(moduleName, 0);
}

void ZRAudioDeviceProxy::subscribe(const std::string& moduleName) {
  proxy_->call<void>("subscribe", moduleName);
}

void ZRAudioDeviceProxy::unsubscribe(const std::string& moduleName) {
  proxy_->call<void>("unsubscribe", moduleName);
}

void ZRAudioDeviceProxy::hold() {
  proxy_->call<void>("hold");
}

void ZRAudioDeviceProxy::release() {
  proxy_->call<void>("release");
}

std::vector<std::string> ZRAudioDeviceProxy::getSubscribers() {
  return proxy_->call<std::vector<std::string>>("getSubscribers");
}

int ZRAudioDeviceProxy::getSampleRate() {
  return proxy_->call<int>("getSampleRate");
}

int ZRAudioDeviceProxy::getChannelCount() {
  return proxy_->call<int>("getChannelCount");
}

int ZRAudioDeviceProxy::getSamplesPerBuffer() {
  return proxy_->call<int>("getSamplesPerBuffer");
}

int ZRAudioDeviceProxy::getDeliveredBufferCount(const std::string& moduleName) {
  return proxy_->call<int>("getDeliveredBufferCount", moduleName);
}

int ZRAudioDeviceProxy::getDroppedBufferCount(const std::string& moduleName) {
  return proxy_->call<int>("getDroppedBufferCount", moduleName);
}

bool ZRAudioDeviceProxy::isEndOfStream() {
  return proxy_->call<bool>("isEndOfStream");
}

std::string ZRAudioDeviceProxy::getSourceDescription() {
  return proxy_->call<std::string>("getSourceDescription");
}

void ZRAudioDeviceProxy::startRecording(const std::string& path) {
  proxy_->call<void>("startRecording", path);
}

int ZRAudioDeviceProxy::stopRecording() {
  return proxy_->call<int>("stopRecording");
}

}  // namespace ZR
