#pragma once

#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include <zrcommon/zrbroker.h>
#include <zrcommon/zrproxy.h>

#include "pipeline.h"
#include "remote.h"

namespace zr {

/// `zr run --directory`: the same run as RunPipeline, on the "ZRMemory", "ZRAudioDevice" and
/// extractors that running hosts publish. This process hosts only its client module
/// "zr-run-<host>-<pid>", which subscribes to the extractors' events through the memory service.
///
/// The constructor holds the device, subscribes, and sets the period and precision asked for;
/// it throws NoDirectory when no directory answers, ZRError when a module is not published or a
/// subscription fails (what it had done is undone). Same threading as RunPipeline: results reach
/// the sink from the broker's pool, one at a time; the other calls belong to the owning thread,
/// and each blocks for the remote calls it makes (finish also for the last result, at most 10 s).
class RemotePipeline {
 public:
  using Sink = RunPipeline::Sink;
  RemotePipeline(const PipelineConfig& config, const DirectoryOptions& directory, Sink sink);
  ~RemotePipeline();
  RemotePipeline(const RemotePipeline&) = delete;
  RemotePipeline& operator=(const RemotePipeline&) = delete;

  void start();
  bool waitForEnd(int timeoutMs);
  double audioSeconds(double cap = 0.0);
  void finish();

 private:
  void receive(const std::string& event, const ZR::ZRValue& value);
  void unsubscribeAll();
  int deliveredTo(const std::string& extractor);

  std::vector<std::string> extractors_;
  std::string name_, marker_;
  boost::shared_ptr<ZR::ZRBroker> broker_;
  boost::shared_ptr<ZR::ZRProxy> device_;
  boost::shared_ptr<ZR::ZRModuleCore> client_;
  std::map<std::string, std::string> producerOf_;
  std::vector<std::string> subscribed_;
  bool held_ = false;
  std::mutex sinkMutex_;
  std::condition_variable changed_;  // the marker or the end of the input came
  bool marked_ = false, ended_ = false;
  int rate_ = 0, perBuffer_ = 0;
  std::map<std::string, int> before_;  // deliveries to each extractor before this run
  Sink sink_;
};

}  // namespace zr
