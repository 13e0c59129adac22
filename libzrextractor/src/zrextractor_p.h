#pragma once

#include <atomic>
#include <map>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <boost/thread/shared_mutex.hpp>

#include <zrcommon/zrbroker.h>
#include <zrextractor/zrextractorparameters.h>
#include <zrproxies/zrmemoryproxy.h>

namespace ZR {

class ZRExtractorPrivate {
 public:
  /// Blocks until "ZRMemory" is registered, then makes the memory proxy.
  ZRExtractorPrivate(boost::shared_ptr<ZRBroker> broker, const std::string& name);

  void declareMemoryKey(const std::string& name);
  std::vector<std::string> getOutputNames() const;

  std::string extractorName;
  boost::shared_mutex registryLock;
  std::map<std::string, ZRExtractorParameters> subscribers;
  int currentPeriod;
  float currentPrecision;
  boost::shared_ptr<ZRMemoryProxy> memoryProxy;
  std::vector<std::string> eventList;
  std::vector<std::string> memoryKeyList;
  // Mirrors subscribers.size(), updated wherever the map changes, so that the one-argument
  // subscribe can read it without a lock and without a data race.
  std::atomic<int> subscriberCount{0};
};

}  // namespace ZR
