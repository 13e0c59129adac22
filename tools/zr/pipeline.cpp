#include "pipeline.h"

#include "eventclient.h"
#include "gaps.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>

#include <zrcommon/detail/zrlatencywindow.h>
#include <zrcommon/zrmodule.h>
#include <zrcommon/zrservicenames.h>
#include <zrproxies/zrmemoryproxy.h>

namespace zr {

PipelineSite inProcess(const PipelineConfig& config, const ZR::ZRExtractorRegistry& registry) {
  for (const std::string& e : config.extractors) registry.require(e);
  PipelineSite site;
  site.broker = ZR::ZRBroker::createBroker("zr");
  site.client = "zr";
  try {
    // A queue deep enough that a live run's results wait for the writer rather than drop.
    site.modules.push_back(
        ZR::ZRModule::createModule<ZR::ZRMemory>(site.broker, ZR::kMemoryServiceName, 1 << 20));
    site.modules.push_back(ZR::ZRModule::createModule<ZR::ZRAudioDevice>(
        site.broker, ZR::kAudioDeviceServiceName, config.device));
    for (const std::string& e : config.extractors)
      if (!site.broker->hasModule(e))  // each runs once, however often it is named
        site.modules.push_back(
            registry.create(e, site.broker, e, registry.optionsFor(e, config.options)));
  } catch (...) {
    while (!site.modules.empty()) site.modules.pop_back();
    site.broker->shutdown();
    throw;
  }
  return site;
}

PipelineSite onNetwork(const PipelineConfig& config, const DirectoryOptions& directory,
                       const ListenOptions& listen) {
  PipelineSite site;
  site.client = clientName("run");
  std::vector<std::string> needed{ZR::kMemoryServiceName, ZR::kAudioDeviceServiceName};
  needed.insert(needed.end(), config.extractors.begin(), config.extractors.end());
  site.broker = joinNetwork(directory, site.client, listen, needed);
  return site;
}

Pipeline::Pipeline(const PipelineConfig& config, PipelineSite site, Sink sink, SoundSink sound)
    : site_(std::move(site)), sink_(std::move(sink)) {
  for (const std::string& e : config.extractors)
    if (std::find(extractors_.begin(), extractors_.end(), e) == extractors_.end())
      extractors_.push_back(e);
  // Raised by this run after the extractors' last results: events reach a subscriber in the
  // order they were raised, so once it arrives, every result has.
  marker_ = site_.client + "/Done";
  const std::string& client = site_.client;
  try {
    ZR::ZRMemoryProxy memory(site_.broker);
    for (const std::string& e : extractors_)
      for (const std::string& ev : memory.getExtractorEvent(e)) producerOf_[ev] = e;
    client_ = ZR::ZRModule::createModule<EventClient>(
        site_.broker, client, "RunClient", "The zr tool: receives the results it prints.",
        [this](const std::string& event, const ZR::ZRValue& value) { receive(event, value); });
    device_ = std::make_unique<ZR::ZRAudioDeviceProxy>(site_.broker);
    device_->hold();
    held_ = true;
    memory.declareEvent(marker_, "");
    subscribeNewModule(memory, marker_, client, "onEvent");
    subscribed_.push_back(marker_);
    // The device says when the input ended; nobody needs to ask it again and again.
    memory.subscribeToEvent(ZR::kEndOfStreamEvent, client, "onEvent");
    subscribed_.push_back(ZR::kEndOfStreamEvent);
    // Subscribing to their events subscribes the tool to each extractor, which starts it (with
    // its default period and precision); the device is held until all of them listen.
    subscribeClient(*site_.broker, memory, extractors_, client, config, subscribed_);
    // Known once the extractors listen (a device opens its input at its first subscriber), and
    // before any result comes.
    rate_ = device_->getSampleRate();
    perBuffer_ = device_->getSamplesPerBuffer();
    if (sound) {
      const int rate = rate_;
      soundClient_ = ZR::ZRModule::createModule<SoundClient>(
          site_.broker, client + "-sound",
          [sound, rate](int channels, int frames, const ZR::ZRValue& t, const ZR::ZRValue& b) {
            sound(ZR::kAudioDeviceServiceName, rate, channels, frames, t, b);
          });
      device_->subscribe(soundClient_->getName());
      soundSubscribed_ = true;
    }
  } catch (...) {
    unsubscribeAll();
    if (held_) device_->release();
    client_.reset();
    soundClient_.reset();
    while (!site_.modules.empty()) site_.modules.pop_back();
    site_.broker->shutdown();
    throw;
  }
}

void subscribeClient(ZR::ZRBroker& broker, ZR::ZRMemoryProxy& memory,
                     const std::vector<std::string>& extractors, const std::string& client,
                     const PipelineConfig& config, std::vector<std::string>& subscribed) {
  for (const std::string& e : extractors) {
    const std::vector<std::string> events = memory.getExtractorEvent(e);
    if (events.empty())
      std::fprintf(stderr, "zr: %s declares no events: it runs, but has nothing to show\n",
                   e.c_str());
    for (const std::string& ev : events) {
      memory.subscribeToEvent(ev, client, "onEvent");
      subscribed.push_back(ev);
    }
    boost::shared_ptr<ZR::ZRProxy> extractor = broker.getProxy(e, 0);
    if (events.empty()) {
      try {
        extractor->call<void>("subscribe", client);
      } catch (const ZR::ZRError&) {
        // An extractor keeps a subscriber whose start failed: a failed start is no subscription.
        try {
          extractor->call<void>("unsubscribe", client);
        } catch (const ZR::ZRError&) {
          // It did not keep it.
        }
        throw;
      }
    }
    if (config.period) extractor->call<void>("updatePeriod", client, *config.period);
    if (config.precision) extractor->call<void>("updatePrecision", client, *config.precision);
  }
  subscribeToGaps(memory, client, subscribed);
}

Pipeline::~Pipeline() {
  {
    std::lock_guard<std::mutex> lock(sinkMutex_);
    sink_ = nullptr;  // a result still in flight must not reach a writer that is gone
  }
  unsubscribeAll();
  client_.reset();
  soundClient_.reset();
  device_.reset();
  while (!site_.modules.empty()) site_.modules.pop_back();
  site_.broker->shutdown();
}

void Pipeline::unsubscribeAll() {
  if (soundClient_ && std::exchange(soundSubscribed_, false)) {
    try {
      device_->unsubscribe(soundClient_->getName());
    } catch (const ZR::ZRError& e) {
      std::fprintf(stderr, "zr: %s\n", e.what());
    }
  }
  if (subscribed_.empty()) return;
  try {
    ZR::ZRMemoryProxy memory(site_.broker);
    for (const std::string& ev : subscribed_) {
      try {
        memory.unsubscribeToEvent(ev, site_.client);
      } catch (const ZR::ZRError& e) {
        std::fprintf(stderr, "zr: %s\n", e.what());
      }
    }
  } catch (const ZR::ZRError& e) {
    // The memory service is gone (its host was stopped first): nothing is left to undo there.
    std::fprintf(stderr, "zr: %s\n", e.what());
  }
  subscribed_.clear();
}

void Pipeline::receive(const std::string& event, const ZR::ZRValue& value) {
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
  Result r{extractor, shortName, value};
  r.sampleRate = rate_;
  r.captureNs = ZR::detail::zrCurrentCaptureNs();
  r.fullName = event;
  if (sink_) sink_(r);
}

void Pipeline::start() {
  // A published device counts its deliveries since each subscriber first came: this run's are
  // those from here on.
  for (const std::string& e : extractors_) before_[e] = deliveredTo(e);
  device_->release();
  held_ = false;
}

bool Pipeline::waitForEnd(int timeoutMs) {
  std::unique_lock<std::mutex> lock(sinkMutex_);
  return changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [this] { return ended_; });
}

int Pipeline::deliveredTo(const std::string& extractor) {
  try {
    return device_->getDeliveredBufferCount(extractor);
  } catch (const ZR::ZRError&) {
    return 0;  // an extractor that does not listen to the device, or not yet
  }
}

double Pipeline::audioSeconds(double cap) {
  int delivered = 0;
  for (const std::string& e : extractors_)
    delivered = std::max(delivered, deliveredTo(e) - before_[e]);
  const double seconds = rate_ > 0 ? static_cast<double>(delivered) * perBuffer_ / rate_ : 0.0;
  return cap > 0 ? std::min(seconds, cap) : seconds;  // the last buffer may be short
}

void Pipeline::finish() {
  for (const std::string& e : extractors_) {
    auto p = site_.broker->getProxy(e, 0);
    const auto methods = p->call<std::vector<std::string>>("getMethodList");
    if (std::find(methods.begin(), methods.end(), "flush") != methods.end()) p->call<void>("flush");
  }
  ZR::ZRMemoryProxy(site_.broker).raiseEvent(marker_, ZR::ZRValue(0));
  std::unique_lock<std::mutex> lock(sinkMutex_);
  if (!changed_.wait_for(lock, std::chrono::seconds(10), [this] { return marked_; }))
    std::fprintf(stderr, "zr: the last results did not arrive within 10 s\n");
  lock.unlock();
  unsubscribeAll();
}

}  // namespace zr
