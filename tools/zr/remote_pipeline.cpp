#include "remote_pipeline.h"

#include "eventclient.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>

#include <zrcommon/zrmodule.h>
#include <zrcommon/zrservicenames.h>
#include <zrproxies/zrmemoryproxy.h>

namespace zr {

RemotePipeline::RemotePipeline(const PipelineConfig& config, const DirectoryOptions& directory,
                               Sink sink)
    : sink_(std::move(sink)) {
  for (const std::string& e : config.extractors)
    if (std::find(extractors_.begin(), extractors_.end(), e) == extractors_.end())
      extractors_.push_back(e);
  char host[256] = "host";
  gethostname(host, sizeof host - 1);
  name_ = std::string("zr-run-") + host + "-" + std::to_string(getpid());
  // Raised by this run after the extractors' last results: events reach a subscriber in the
  // order they were raised, so once it arrives, every result has.
  marker_ = name_ + "/Done";
  std::vector<std::string> needed{ZR::kMemoryServiceName, ZR::kAudioDeviceServiceName};
  needed.insert(needed.end(), extractors_.begin(), extractors_.end());
  broker_ = joinNetwork(directory, name_, "tcp://127.0.0.1:0", "", needed);
  try {
    ZR::ZRMemoryProxy memory(broker_);
    for (const std::string& e : extractors_)
      for (const std::string& ev : memory.getExtractorEvent(e)) producerOf_[ev] = e;
    client_ = ZR::ZRModule::createModule<EventClient>(
        broker_, name_, "RunClient", "The zr tool: receives the results it prints.",
        [this](const std::string& event, const ZR::ZRValue& value) { receive(event, value); });
    device_ = broker_->getProxy(ZR::kAudioDeviceServiceName, 0);
    device_->call<void>("hold");
    held_ = true;
    memory.declareEvent(marker_, "");
    subscribeNewModule(memory, marker_, name_, "onEvent");
    subscribed_.push_back(marker_);
    // The device says when the input ended; nobody needs to ask it again and again.
    memory.subscribeToEvent(ZR::kEndOfStreamEvent, name_, "onEvent");
    subscribed_.push_back(ZR::kEndOfStreamEvent);
    subscribeClient(*broker_, memory, extractors_, name_, config, subscribed_);
  } catch (...) {
    unsubscribeAll();
    if (held_) device_->call<void>("release");
    broker_->shutdown();
    throw;
  }
}

RemotePipeline::~RemotePipeline() {
  {
    std::lock_guard<std::mutex> lock(sinkMutex_);
    sink_ = nullptr;
  }
  unsubscribeAll();
  client_.reset();
  broker_->shutdown();
}

void RemotePipeline::unsubscribeAll() {
  ZR::ZRMemoryProxy memory(broker_);
  for (const std::string& ev : subscribed_) {
    try {
      memory.unsubscribeToEvent(ev, name_);
    } catch (const ZR::ZRError& e) {
      std::fprintf(stderr, "zr: %s\n", e.what());
    }
  }
  subscribed_.clear();
}

void RemotePipeline::receive(const std::string& event, const ZR::ZRValue& value) {
  std::lock_guard<std::mutex> lock(sinkMutex_);
  if (event == marker_ || event == ZR::kEndOfStreamEvent) {
    (event == marker_ ? marked_ : ended_) = true;
    changed_.notify_all();
    return;
  }
  auto it = producerOf_.find(event);
  const std::string extractor =
      it == producerOf_.end() ? event.substr(0, event.find('/')) : it->second;
  const std::string prefix = extractor + "/";
  const std::string shortName =
      event.compare(0, prefix.size(), prefix) == 0 ? event.substr(prefix.size()) : event;
  if (sink_) sink_(Result{extractor, shortName, value});
}

void RemotePipeline::start() {
  // The device counts its deliveries since each subscriber first came: this run's are those
  // from here on.
  rate_ = device_->call<int>("getSampleRate");
  perBuffer_ = device_->call<int>("getSamplesPerBuffer");
  for (const std::string& e : extractors_) before_[e] = deliveredTo(e);
  device_->call<void>("release");
  held_ = false;
}

bool RemotePipeline::waitForEnd(int timeoutMs) {
  std::unique_lock<std::mutex> lock(sinkMutex_);
  return changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [this] { return ended_; });
}

int RemotePipeline::deliveredTo(const std::string& extractor) {
  try {
    return device_->call<int>("getDeliveredBufferCount", extractor);
  } catch (const ZR::ZRError&) {
    return 0;  // an extractor that does not listen to the device, or not yet
  }
}

double RemotePipeline::audioSeconds(double cap) {
  int delivered = 0;
  for (const std::string& e : extractors_)
    delivered = std::max(delivered, deliveredTo(e) - before_[e]);
  const double seconds = rate_ > 0 ? static_cast<double>(delivered) * perBuffer_ / rate_ : 0.0;
  return cap > 0 ? std::min(seconds, cap) : seconds;
}

void RemotePipeline::finish() {
  for (const std::string& e : extractors_) {
    auto p = broker_->getProxy(e, 0);
    const auto methods = p->call<std::vector<std::string>>("getMethodList");
    if (std::find(methods.begin(), methods.end(), "flush") != methods.end()) p->call<void>("flush");
  }
  ZR::ZRMemoryProxy(broker_).raiseEvent(marker_, ZR::ZRValue(0));
  std::unique_lock<std::mutex> lock(sinkMutex_);
  if (!changed_.wait_for(lock, std::chrono::seconds(10), [this] { return marked_; }))
    std::fprintf(stderr, "zr: the last results did not arrive within 10 s\n");
  lock.unlock();
  unsubscribeAll();
}

}  // namespace zr
