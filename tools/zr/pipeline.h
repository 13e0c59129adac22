#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include <zraudiodevice/zraudiodevice.h>
#include <zrcommon/zrbroker.h>
#include <zrextractors/zrextractorregistry.h>
#include <zrmemory/zrmemory.h>
#include <zrproxies/zrmemoryproxy.h>

#include "output.h"

namespace zr {

/// What one run is made of.
struct PipelineConfig {
  ZR::ZRAudioDeviceOptions device;
  /// Extractor types, each created once under its own type name.
  std::vector<std::string> extractors;
  /// Every extractor's period in ms, and precision (0 to 1); unset: each one's own default.
  std::optional<int> period;
  std::optional<float> precision;
  /// Options (--array) handed to each extractor that takes them.
  ZR::ZRExtractorRegistry::Options options;
};

/// Subscribes `client` to every event of each extractor through the memory service (which
/// subscribes it to the extractor), or to an extractor without events directly, then gives each
/// the configured period and precision. The events it subscribed to are added to `subscribed`.
/// A direct "subscribe" whose start failed is taken back before its ZRError goes on.
void subscribeClient(ZR::ZRBroker& broker, ZR::ZRMemoryProxy& memory,
                     const std::vector<std::string>& extractors, const std::string& client,
                     const PipelineConfig& config, std::vector<std::string>& subscribed);

/// One `zr run`, in process: a broker with "ZRMemory", "ZRAudioDevice", the extractors and the
/// tool's own client module "zr", which subscribes to every event the extractors declare through
/// the memory service, as any client would (and so subscribes to the extractors themselves).
///
/// The constructor builds and subscribes everything with the device held, so that no extractor
/// misses the start of the input; start() lets the sound flow. Results reach the sink from the
/// broker's pool, one at a time, in the order the memory service delivers them, until finish()
/// returns. The other calls belong to the thread that owns the pipeline: waitForEnd blocks up to
/// its timeout, finish until every result was delivered (bounded by the waits inside), the
/// destructor until the broker has shut down.
class RunPipeline {
 public:
  using Sink = std::function<void(const Result&)>;

  /// Throws ZRError for an unknown extractor or an input that cannot be started.
  RunPipeline(const PipelineConfig& config, const ZR::ZRExtractorRegistry& registry, Sink sink);
  ~RunPipeline();
  RunPipeline(const RunPipeline&) = delete;
  RunPipeline& operator=(const RunPipeline&) = delete;

  void start();
  /// True once the input has ended (a file, raw input or timed signal ran out, or the source
  /// failed) and every buffer was processed; false when `timeoutMs` passed first.
  bool waitForEnd(int timeoutMs);
  /// Seconds of input the extractors have received so far (at most `cap` when cap > 0).
  double audioSeconds(double cap = 0.0);
  /// Closes what is still open in the extractors (their remote "flush", where they have one),
  /// lets every result reach the sink, then unsubscribes the tool.
  void finish();

 private:
  std::vector<std::string> extractors_;
  boost::shared_ptr<ZR::ZRBroker> broker_;
  boost::shared_ptr<ZR::ZRMemory> memory_;
  boost::shared_ptr<ZR::ZRAudioDevice> device_;
  boost::shared_ptr<ZR::ZRModuleCore> client_;
  std::map<std::string, std::string> producerOf_;  // event -> extractor module
  std::vector<std::string> subscribed_;
  std::mutex sinkMutex_;
  Sink sink_;
};

}  // namespace zr
