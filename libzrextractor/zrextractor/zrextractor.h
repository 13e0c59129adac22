#pragma once

#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>

#include <zrcommon/zrmodule.h>
#include <zrextractor/zrextractorparameters.h>
#include <zrvalue/zrvalue.h>

namespace ZR {

class ZRBroker;
class ZRExtractorPrivate;

/// The base of every extractor: a module that computes something, publishes it to "ZRMemory",
/// and works only while at least one client module is subscribed to it.
///
/// Subscribers are kept by module name, each with a period (ms) and a precision. Periods are
/// clamped into [getMinimumPeriod(), getMaximumPeriod()]; all requests are reconciled into one
/// current period (the smallest) and precision (the largest). The derived class is told through
/// xStartDetection when the first client arrives, xUpdateParameters whenever the requests change
/// while it runs, and xStopDetection when the last client leaves.
///
/// Concurrency: remote calls arrive on the platform's threads, so every member may run at once
/// with every other. subscribe and unsubscribe hold subscriptionMutex throughout, hooks included:
/// starts and stops never overlap and alternate strictly, and each of these calls blocks for as
/// long as a concurrent subscribe or unsubscribe and its hook take. updatePeriod and
/// updatePrecision do not take subscriptionMutex: their xUpdateParameters may run while a start
/// or stop hook runs, or alongside another update's, and an update racing the last departure
/// gets "no module subscribed". The queries take only the registry lock, shared and briefly, and
/// nothing holds it while a hook runs, so a hook may call them; a hook must not call subscribe or
/// unsubscribe of its own extractor (deadlock). The constructor blocks, without a time limit,
/// until the broker hosts "ZRMemory". declareEvent and declareMemoryKey are not guarded: declare
/// before the module is reachable.
class ZRExtractor : public ZRModule {
 public:
  /// Blocks until the broker hosts "ZRMemory".
  ZRExtractor(boost::shared_ptr<ZRBroker> broker, const std::string& name);
  virtual ~ZRExtractor();

  virtual void subscribe(const std::string& name, const int& period, const float& precision);
  /// Subscribes with the current period and precision, or the defaults when nobody is subscribed.
  virtual void subscribe(const std::string& name);
  virtual void updatePeriod(const std::string& name, const int& period);
  virtual void updatePrecision(const std::string& name, const float& precision);
  virtual void unsubscribe(const std::string& name);
  virtual int getCurrentPeriod();
  virtual float getCurrentPrecision();
  virtual int getMyPeriod(const std::string& name);
  virtual float getMyPrecision(const std::string& name);

  /// The first client arrived.
  virtual void xStartDetection(int period, float precision) = 0;
  /// The reconciled period or precision was recomputed while clients remain. Runs under
  /// subscriptionMutex from subscribe and unsubscribe, but without it from updatePeriod and
  /// updatePrecision, so it may overlap a start or stop hook or another update.
  virtual void xUpdateParameters(int period, float precision);
  /// The last client left.
  virtual void xStopDetection() = 0;

  virtual int getDefaultPeriod();
  virtual float getDefaultPrecision();
  virtual int getMinimumPeriod();
  /// A negative maximum means no upper bound.
  virtual int getMaximumPeriod();

  /// The declared events followed by the declared memory keys.
  virtual std::vector<std::string> getOutputNames();

  /// Array of [name, period, precision] per subscriber, by ascending name.
  ZRValue getSubscribersInfo();
  std::vector<std::string> getEventList();
  std::vector<std::string> getMemoryKeyList();
  /// Declares an event this extractor raises in "ZRMemory". Declare before the module is
  /// reachable: the lists are not guarded.
  void declareEvent(const std::string& name);
  /// Declares a memory key this extractor writes; the key starts out as an empty array.
  void declareMemoryKey(const std::string& name);

  /// Recomputes the current values from all subscribers and calls xUpdateParameters(int, float).
  void xUpdateParameters();

 private:
  int clampPeriod(int period, const char* function);

  ZRExtractorPrivate* _p;

 protected:
  /// Serialises subscribe and unsubscribe and the start and stop hooks.
  boost::mutex subscriptionMutex;
};

}  // namespace ZR
