#include "zrextractor_p.h"

#include <boost/make_shared.hpp>

#include <zrcommon/zrservicenames.h>

namespace ZR {

ZRExtractorPrivate::ZRExtractorPrivate(boost::shared_ptr<ZRBroker> broker, const std::string& name)
    : extractorName(name), currentPeriod(-1), currentPrecision(-1.0f) {
  // Dropping the synchronous future at once blocks until the service exists.
  broker->session()->waitForService(kMemoryServiceName);
  memoryProxy = boost::make_shared<ZRMemoryProxy>(broker);
}

void ZRExtractorPrivate::declareMemoryKey(const std::string& name) {
  memoryKeyList.push_back(name);
  ZRValue empty;
  empty.arraySetSize(0);
  memoryProxy->insertData(name, empty);
}

std::vector<std::string> ZRExtractorPrivate::getOutputNames() const {
  std::vector<std::string> names(eventList);
  names.insert(names.end(), memoryKeyList.begin(), memoryKeyList.end());
  return names;
}

}  // namespace ZR
