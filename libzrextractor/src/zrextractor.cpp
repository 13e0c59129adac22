#include "zrextractor/zrextractor.h"

#include <boost/thread/locks.hpp>

#include <vo/log.h>
#include <zrcommon/zrfunctor.h>

#include "zrextractor_p.h"

namespace ZR {

namespace {

// The source path every error of the extractor base carries.
const char* const kSourcePath = "../libzrextractor/src/zrextractor";
const char* const kCategory = "core.extractor";

const char* const kSubscribeDescription =
    "Subscribes to the extractor. This causes the extractor to start writing information to "
    "memory using the keys described by getOutputNames(). These can be accessed in memory using "
    "ZRMemory.getData(\"keyName\"). In many cases you can avoid calling subscribe on the "
    "extractor by just calling ZRMemory.subscribeToEvent() supplying a callback method. This "
    "will automatically subscribe to the extractor for you.";

typedef boost::unique_lock<boost::shared_mutex> WriteLock;
typedef boost::shared_lock<boost::shared_mutex> ReadLock;

}  // namespace

ZRExtractor::ZRExtractor(boost::shared_ptr<ZRBroker> broker, const std::string& name)
    : ZRModule(broker, name), _p(new ZRExtractorPrivate(broker, name)) {
  try {
    functionName("subscribe", "ZRExtractor", kSubscribeDescription, 0);
    addParam("name", "Name of the module which subscribes.");
    addParam("period", "Refresh period (in milliseconds) if relevant.");
    addParam("precision", "Precision of the extractor if relevant.");
    getCurrentMethodDescription();
    {
      boost::shared_ptr<ZRFunctorBase> functor =
          createFunctor<ZRExtractor, std::string, int, float, void>(this, &ZRExtractor::subscribe);
      bindMethodOverload(functor);
    }

    functionName("subscribe", "ZRExtractor", kSubscribeDescription, 0);
    addParam("name", "Name of the module which subscribes.");
    getCurrentMethodDescription();
    {
      boost::shared_ptr<ZRFunctorBase> functor =
          createFunctor<ZRExtractor, std::string, void>(this, &ZRExtractor::subscribe);
      bindMethodOverload(functor);
    }

    functionName("unsubscribe", "ZRExtractor", "Unsubscribes from the extractor.", 0);
    addParam("name", "Name of the module which had subscribed.");
    objectBuilder().advertiseMethod(methodBuilder(), this, &ZRExtractor::unsubscribe, 0);

    functionName("updatePeriod", "ZRExtractor", "Updates the period if relevant.", 0);
    addParam("name", "Name of the module which has subscribed.");
    addParam("period", "Refresh period (in milliseconds).");
    objectBuilder().advertiseMethod(methodBuilder(), this, &ZRExtractor::updatePeriod, 0);

    functionName("updatePrecision", "ZRExtractor", "Updates the precision if relevant.", 0);
    addParam("name", "Name of the module which has subscribed.");
    addParam("precision", "Precision of the extractor.");
    objectBuilder().advertiseMethod(methodBuilder(), this, &ZRExtractor::updatePrecision, 0);

    functionName("getCurrentPeriod", "ZRExtractor", "Gets the current period.", 0);
    setReturn("period", "Refresh period (in milliseconds).");
    objectBuilder().advertiseMethod(methodBuilder(), this, &ZRExtractor::getCurrentPeriod, 0);

    functionName("getCurrentPrecision", "ZRExtractor", "Gets the current precision.", 0);
    setReturn("precision", "Precision of the extractor.");
    objectBuilder().advertiseMethod(methodBuilder(), this, &ZRExtractor::getCurrentPrecision, 0);

    functionName("getMyPeriod", "ZRExtractor", "Gets the period for a specific subscription.", 0);
    addParam("name", "Name of the module which has subscribed.");
    setReturn("period", "Refresh period (in milliseconds).");
    objectBuilder().advertiseMethod(methodBuilder(), this, &ZRExtractor::getMyPeriod, 0);

    functionName("getMyPrecision", "ZRExtractor", "Gets the precision for a specific subscription.",
                 0);
    addParam("name", "name of the module which has subscribed");
    setReturn("precision", "precision of the extractor");
    objectBuilder().advertiseMethod(methodBuilder(), this, &ZRExtractor::getMyPrecision, 0);

    functionName("getSubscribersInfo", "ZRExtractor", "Gets the parameters given by the module.",
                 0);
    setReturn("subscribersInfo", "Array of names and parameters of all subscribers.");
    objectBuilder().advertiseMethod(methodBuilder(), this, &ZRExtractor::getSubscribersInfo, 0);

    functionName("getOutputNames", "ZRExtractor", "Get the list of values updated in ZRMemory.", 0);
    setReturn("outputNames", "Array of values updated by this extractor in ZRMemory");
    objectBuilder().advertiseMethod(methodBuilder(), this, &ZRExtractor::getOutputNames, 0);

    functionName("getEventList", "ZRExtractor", "Get the list of events updated in ZRMemory.", 0);
    setReturn("outputNames", "Array of events updated by this extractor in ZRMemory");
    objectBuilder().advertiseMethod(methodBuilder(), this, &ZRExtractor::getEventList, 0);

    functionName("getMemoryKeyList", "ZRExtractor", "Get the list of events updated in ZRMemory.",
                 0);
    setReturn("outputNames", "Array of events updated by this extractor in ZRMemory");
    objectBuilder().advertiseMethod(methodBuilder(), this, &ZRExtractor::getMemoryKeyList, 0);

    _p->subscribers.clear();
    _p->subscriberCount.store(0);
  } catch (...) {
    delete _p;
    throw;
  }
}

ZRExtractor::~ZRExtractor() {
  // No hook here: an extractor destroyed with subscribers does not stop its detection.
  delete _p;
}

int ZRExtractor::clampPeriod(int period, const char* function) {
  const int minimum = getMinimumPeriod();
  if (period < minimum) {
    vo::log::LogStream(vo::LogLevel_Warning, "", function, kCategory, 0)
        << getName() << " requested period is too small; subscribe with period = " << minimum
        << " ms." << std::endl;
    period = minimum;
  }
  const int maximum = getMaximumPeriod();
  if (maximum >= 0 && period > maximum) {
    vo::log::LogStream(vo::LogLevel_Warning, "", function, kCategory, 0)
        << getName() << " requested period is too big; subscribe with period = " << maximum
        << " ms." << std::endl;
    period = maximum;
  }
  return period;
}

void ZRExtractor::subscribe(const std::string& name, const int& period, const float& precision) {
  boost::unique_lock<boost::mutex> subscriptionLock(subscriptionMutex);
  const int clamped = clampPeriod(period, "subscribe");

  // The map's shape only changes under subscriptionMutex, which is held.
  if (_p->subscribers.empty()) {
    {
      WriteLock lock(_p->registryLock);
      _p->currentPeriod = clamped;
      _p->currentPrecision = precision;
      ZRExtractorParameters& entry = _p->subscribers[name];
      entry.period = clamped;
      entry.precision = precision;
      _p->subscriberCount.store(static_cast<int>(_p->subscribers.size()));
    }
    xStartDetection(clamped, precision);
    return;
  }

  {
    WriteLock lock(_p->registryLock);
    if (_p->subscribers.find(name) != _p->subscribers.end()) {
      vo::log::LogStream(vo::LogLevel_Warning, "", "subscribe", kCategory, 0)
          << getName() << " the module is already subscribed: will just update the parameters."
          << std::endl;
    }
    ZRExtractorParameters& entry = _p->subscribers[name];
    entry.period = clamped;
    entry.precision = precision;
    _p->subscriberCount.store(static_cast<int>(_p->subscribers.size()));
  }
  xUpdateParameters();
  vo::log::LogStream(vo::LogLevel_Verbose, "", "subscribe", kCategory, 0)
      << getName() << " received subscribe from " << name << std::endl;
}

void ZRExtractor::subscribe(const std::string& name) {
  int period;
  float precision;
  if (_p->subscriberCount.load() != 0) {
    period = getCurrentPeriod();
    precision = getCurrentPrecision();
  } else {
    period = getDefaultPeriod();
    precision = getDefaultPrecision();
  }
  subscribe(name, period, precision);
}

void ZRExtractor::unsubscribe(const std::string& name) {
  boost::unique_lock<boost::mutex> subscriptionLock(subscriptionMutex);
  if (_p->subscribers.find(name) == _p->subscribers.end()) {
    vo::log::LogStream(vo::LogLevel_Warning, "", "unsubscribe", kCategory, 0)
        << getName() << " received unsubscribe from non-subscribed module " << name << std::endl;
    throw ZRError("ZRExtractor", "received unsubscribe from non-subscribed module: ", name,
                  kSourcePath, __LINE__);
  }
  {
    WriteLock lock(_p->registryLock);
    _p->subscribers.erase(name);
    _p->subscriberCount.store(static_cast<int>(_p->subscribers.size()));
  }
  if (!_p->subscribers.empty()) {
    xUpdateParameters();
  } else {
    {
      WriteLock lock(_p->registryLock);
      _p->currentPeriod = -1;
      _p->currentPrecision = -1.0f;
    }
    xStopDetection();
  }
  vo::log::LogStream(vo::LogLevel_Verbose, "", "unsubscribe", kCategory, 0)
      << getName() << " received unsubscribe from " << name << std::endl;
}

void ZRExtractor::updatePeriod(const std::string& name, const int& period) {
  {
    WriteLock lock(_p->registryLock);
    std::map<std::string, ZRExtractorParameters>::iterator it = _p->subscribers.find(name);
    if (it == _p->subscribers.end())
      throw ZRError("ZRExtractor", "updateParam: unknown module name: ", name, kSourcePath,
                    __LINE__);
    it->second.period = clampPeriod(period, "updatePeriod");
  }
  xUpdateParameters();
}

void ZRExtractor::updatePrecision(const std::string& name, const float& precision) {
  {
    WriteLock lock(_p->registryLock);
    std::map<std::string, ZRExtractorParameters>::iterator it = _p->subscribers.find(name);
    if (it == _p->subscribers.end())
      throw ZRError("ZRExtractor", "updateParam: unknown module name: ", name, kSourcePath,
                    __LINE__);
    it->second.precision = precision;
  }
  xUpdateParameters();
}

void ZRExtractor::xUpdateParameters() {
  int period;
  float precision;
  {
    WriteLock lock(_p->registryLock);
    if (_p->subscribers.empty())
      throw ZRError(getName(), "xUpdateParameters", "no module subscribed", kSourcePath, __LINE__);
    std::map<std::string, ZRExtractorParameters>::const_iterator it = _p->subscribers.begin();
    period = it->second.period;
    precision = it->second.precision;
    for (; it != _p->subscribers.end(); ++it) {
      if (it->second.period < period) period = it->second.period;
      if (it->second.precision > precision) precision = it->second.precision;
    }
    _p->currentPeriod = period;
    _p->currentPrecision = precision;
  }
  xUpdateParameters(period, precision);
}

void ZRExtractor::xUpdateParameters(int /*period*/, float /*precision*/) {}

int ZRExtractor::getCurrentPeriod() {
  ReadLock lock(_p->registryLock);
  return _p->currentPeriod;
}

float ZRExtractor::getCurrentPrecision() {
  ReadLock lock(_p->registryLock);
  return _p->currentPrecision;
}

int ZRExtractor::getMyPeriod(const std::string& name) {
  ReadLock lock(_p->registryLock);
  std::map<std::string, ZRExtractorParameters>::const_iterator it = _p->subscribers.find(name);
  if (it == _p->subscribers.end())
    throw ZRError("ZRExtractor", "getMyPeriod: unknown module name: ", name, kSourcePath, __LINE__);
  return it->second.period;
}

float ZRExtractor::getMyPrecision(const std::string& name) {
  ReadLock lock(_p->registryLock);
  std::map<std::string, ZRExtractorParameters>::const_iterator it = _p->subscribers.find(name);
  if (it == _p->subscribers.end())
    throw ZRError("ZRExtractor", "getMyPrecision: unknown module name: ", name, kSourcePath,
                  __LINE__);
  return it->second.precision;
}

ZRValue ZRExtractor::getSubscribersInfo() {
  ReadLock lock(_p->registryLock);
  ZRValue info;
  info.arraySetSize(static_cast<int>(_p->subscribers.size()));
  int i = 0;
  for (std::map<std::string, ZRExtractorParameters>::const_iterator it = _p->subscribers.begin();
       it != _p->subscribers.end(); ++it, ++i) {
    ZRValue entry;
    entry.arraySetSize(3);
    entry[0] = ZRValue(it->first);
    entry[1] = it->second.period;
    entry[2] = it->second.precision;
    info[i] = entry;
  }
  return info;
}

int ZRExtractor::getDefaultPeriod() {
  return 30;
}
float ZRExtractor::getDefaultPrecision() {
  return 0.0f;
}
int ZRExtractor::getMinimumPeriod() {
  return 1;
}
int ZRExtractor::getMaximumPeriod() {
  return -1;
}

std::vector<std::string> ZRExtractor::getOutputNames() {
  return _p->getOutputNames();
}

std::vector<std::string> ZRExtractor::getEventList() {
  return _p->eventList;
}

std::vector<std::string> ZRExtractor::getMemoryKeyList() {
  return _p->memoryKeyList;
}

void ZRExtractor::declareEvent(const std::string& name) {
  _p->eventList.push_back(name);
  _p->memoryProxy->declareEvent(name, _p->extractorName);
}

void ZRExtractor::declareMemoryKey(const std::string& name) {
  _p->declareMemoryKey(name);
}

}  // namespace ZR
