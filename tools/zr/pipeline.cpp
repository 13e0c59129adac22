#include "pipeline.h"

#include "eventclient.h"
#include "gaps.h"

#include <algorithm>
#include <chrono>
#include <cstdio>

#include <zrcommon/zrmodule.h>
#include <zrcommon/zrservicenames.h>
#include <zrproxies/zrmemoryproxy.h>

namespace zr {

namespace {

std::string shortEventName(const std::string& event, const std::string& extractor) {
  const std::string prefix = extractor + "/";
  return event.compare(0, prefix.size(), prefix) == 0 ? event.substr(prefix.size()) : event;
}

const std::string kClientName = "zr";

}  // namespace

RunPipeline::RunPipeline(const PipelineConfig& config, const ZR::ZRExtractorRegistry& registry,
                         Sink sink)
    : sink_(std::move(sink)) {
  for (const std::string& e : config.extractors)  // each runs once, however often it is named
    if (std::find(extractors_.begin(), extractors_.end(), e) == extractors_.end())
      extractors_.push_back(e);
  for (const std::string& e : extractors_) registry.require(e);

  broker_ = ZR::ZRBroker::createBroker("zr");
  memory_ = ZR::ZRModule::createModule<ZR::ZRMemory>(broker_, ZR::kMemoryServiceName, 1 << 20);
  device_ = ZR::ZRModule::createModule<ZR::ZRAudioDevice>(broker_, ZR::kAudioDeviceServiceName,
                                                          config.device);
  device_->hold();
  for (const std::string& e : extractors_)
    registry.create(e, broker_, e, registry.optionsFor(e, config.options));
  ZR::ZRMemoryProxy memory(broker_);
  for (const std::string& e : extractors_)
    for (const std::string& ev : memory.getExtractorEvent(e)) producerOf_[ev] = e;

  client_ = ZR::ZRModule::createModule<EventClient>(
      broker_, kClientName, "RunClient", "The zr tool: receives the results it prints.",
      [this](const std::string& event, const ZR::ZRValue& value) {
        auto it = producerOf_.find(event);
        const std::string extractor =
            it == producerOf_.end() ? event.substr(0, event.find('/')) : it->second;
        Result r{extractor, shortEventName(event, extractor), value};
        r.sampleRate = device_->getSampleRate();
        std::lock_guard<std::mutex> lock(sinkMutex_);
        if (sink_) sink_(r);
      });

  // Subscribing to its events subscribes the tool to each extractor, which starts it (with its
  // default period and precision); the device is held until all of them listen.
  subscribeClient(*broker_, memory, extractors_, kClientName, config, subscribed_);
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

RunPipeline::~RunPipeline() {
  {
    std::lock_guard<std::mutex> lock(sinkMutex_);
    sink_ = nullptr;  // a result still in flight must not reach a writer that is gone
  }
  client_.reset();
  device_.reset();
  memory_.reset();
  broker_->shutdown();
}

void RunPipeline::start() {
  device_->release();
}

bool RunPipeline::waitForEnd(int timeoutMs) {
  return device_->waitForEndOfStream(timeoutMs);
}

double RunPipeline::audioSeconds(double cap) {
  const double rate = device_->getSampleRate();
  std::int64_t delivered = 0;
  for (const std::string& e : extractors_) {
    try {
      delivered = std::max(delivered, device_->getDeliveryStats(e).delivered);
    } catch (const ZR::ZRError&) {
      // An extractor that does not listen to the device.
    }
  }
  const double seconds =
      rate > 0 ? static_cast<double>(delivered) * device_->getSamplesPerBuffer() / rate : 0.0;
  return cap > 0 ? std::min(seconds, cap) : seconds;  // the last buffer may be short
}

void RunPipeline::finish() {
  device_->waitUntilIdle(5000);
  for (const std::string& e : extractors_) {
    auto p = broker_->getProxy(e, 0);
    const auto methods = p->call<std::vector<std::string>>("getMethodList");
    if (std::find(methods.begin(), methods.end(), "flush") != methods.end()) p->call<void>("flush");
  }
  memory_->waitForDeliveries(std::chrono::seconds(10));
  ZR::ZRMemoryProxy memory(broker_);
  for (const std::string& ev : subscribed_) memory.unsubscribeToEvent(ev, kClientName);
  memory_->waitForDeliveries(std::chrono::seconds(10));
}

}  // namespace zr
