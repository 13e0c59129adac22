#pragma once

#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include <zraudiodevice/zraudiodevice.h>
#include <zrcommon/zrbroker.h>
#include <zrextractors/zrextractorregistry.h>
#include <zrmemory/zrmemory.h>
#include <zrproxies/zraudiodeviceproxy.h>
#include <zrproxies/zrmemoryproxy.h>

#include "output.h"
#include "remote.h"

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

/// Where a run's modules are: the broker the tool's client joins, the client's name, and the
/// modules this process hosts for the run (none when they are published by other hosts).
struct PipelineSite {
  boost::shared_ptr<ZR::ZRBroker> broker;
  std::string client;
  /// Destroyed newest first, before the broker shuts down: extractors before the services.
  std::vector<boost::shared_ptr<ZR::ZRModuleCore>> modules;
};

/// `zr run`: a broker of this process with "ZRMemory", "ZRAudioDevice" on config.device and the
/// extractors, each under its type name; the client is "zr". Throws ZRError for an unknown
/// extractor.
PipelineSite inProcess(const PipelineConfig& config, const ZR::ZRExtractorRegistry& registry);
/// `zr run --directory`: the "ZRMemory", "ZRAudioDevice" and extractors that running hosts
/// publish; this process hosts only the client, "zr-run-<host>-<pid>". Throws NoDirectory when
/// no directory answers, ZRError when a module is not published.
PipelineSite onNetwork(const PipelineConfig& config, const DirectoryOptions& directory,
                       const ListenOptions& listen);

/// One run, wherever its modules are. The tool's client module subscribes to every event the
/// extractors declare through the memory service, as any client would (and so subscribes to
/// the extractors themselves), and to the device's end of stream.
///
/// The constructor holds the device, subscribes, and sets the period and precision asked for,
/// so that no extractor misses the start of the input; it throws ZRError when a subscription
/// fails (what it had done is undone). start() lets the sound flow. Results reach the sink from
/// the broker's pool, one at a time, in the order the memory service delivers them, until
/// finish() returns. The other calls belong to the thread that owns the pipeline, and each
/// blocks for the calls it makes: waitForEnd up to its timeout, finish until every result was
/// delivered (at most 10 s), the destructor until the broker has shut down.
class Pipeline {
 public:
  /// It may take the result: nothing reads it after the sink.
  using Sink = std::function<void(Result&)>;
  /// One buffer of the device: its name, sample rate, then what its "processRemote" got.
  using SoundSink =
      std::function<void(const std::string& device, int sampleRate, int channels, int frames,
                         const ZR::ZRValue& timestamp, const ZR::ZRValue& samples)>;

  /// With `sound`, a module of the client's name and "-sound" is subscribed to the device too,
  /// from its first buffer on, and hands each buffer to it, in order.
  Pipeline(const PipelineConfig& config, PipelineSite site, Sink sink, SoundSink sound = nullptr);
  ~Pipeline();
  Pipeline(const Pipeline&) = delete;
  Pipeline& operator=(const Pipeline&) = delete;

  void start();
  /// True once the input has ended (a file, raw input or timed signal ran out, or the source
  /// failed) and every buffer was processed; false when `timeoutMs` passed first.
  bool waitForEnd(int timeoutMs);
  /// Seconds of input the extractors have received in this run (at most `cap` when cap > 0).
  double audioSeconds(double cap = 0.0);
  /// Closes what is still open in the extractors (their remote "flush", where they have one),
  /// lets every result reach the sink, then unsubscribes the tool.
  void finish();

 private:
  void receive(const std::string& event, const ZR::ZRValue& value);
  void unsubscribeAll();
  int deliveredTo(const std::string& extractor);

  std::vector<std::string> extractors_;
  PipelineSite site_;
  std::string marker_;
  std::unique_ptr<ZR::ZRAudioDeviceProxy> device_;
  boost::shared_ptr<ZR::ZRModuleCore> client_, soundClient_;
  std::map<std::string, std::string> producerOf_;  // event -> extractor module
  std::vector<std::string> subscribed_;
  bool held_ = false, soundSubscribed_ = false;
  std::mutex sinkMutex_;
  std::condition_variable changed_;  // the marker or the end of the input came
  bool marked_ = false, ended_ = false;
  int rate_ = 0, perBuffer_ = 0;
  std::map<std::string, int> before_;  // deliveries to each extractor before this run
  Sink sink_;
};

}  // namespace zr
