#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include <zrcommon/zrbroker.h>
#include <zrcommon/zrmodule.h>
#include <zrvalue/zrvalue.h>

namespace ZR {

namespace detail {
class MemoryCore;
}

/// The memory service: named values, and events that modules declare, raise and subscribe to.
///
/// Every remote method below is also a plain C++ member. Event callbacks are delivered on the
/// broker's pool, one strand per subscriber module: each subscriber gets its events in raise
/// order, and a slow or failing one holds up nobody else. raiseEvent never waits for a
/// subscriber; each subscriber has a bounded queue of pending events, and beyond it the oldest
/// pending events are dropped, counted and warned about (log category "zrmemory").
///
/// Subscribing a module to an event that a producer module declared also subscribes it to that
/// producer (its one-argument remote "subscribe") when it is the module's first event of that
/// producer; unsubscribing from its last one calls the producer's "unsubscribe". When a
/// subscriber module goes away, its subscriptions are dropped the same way. When a producer goes
/// away and a module comes back under its name, that module is told "subscribe" for every module
/// still subscribed to its events.
///
/// Concurrency: every method may be called from any thread, callbacks included. Data and event
/// lists take one short lock. raiseEvent never blocks on a subscriber. subscribeToEvent and
/// unsubscribeToEvent call the producer synchronously (changes of one subscriber and producer
/// pair are serialised across that call; nothing is locked while it runs); once
/// unsubscribeToEvent returns, no callback of that event queued before reaches the module, as it
/// also waits for one already running on another thread. waitForDeliveries blocks until the
/// last queued callback has returned.
class ZRMemory : public ZRModule {
 public:
  static constexpr int kDefaultQueueCapacity = 1024;

  /// `queueCapacity`: how many events may wait for one subscriber before the oldest are dropped
  /// (at least 1).
  ZRMemory(boost::shared_ptr<ZRBroker> broker, const std::string& name,
           int queueCapacity = kDefaultQueueCapacity);
  ~ZRMemory() override;

  // Data.
  void insertData(const std::string& key, const ZRValue& value);
  /// ZRError for an unknown key.
  ZRValue getData(const std::string& key);
  /// Keys in alphabetical order, event names included once an event was raised.
  std::vector<std::string> getDataListName();
  /// ZRError for an unknown key.
  void removeData(const std::string& key);

  // Events.
  /// An empty producer declares an event nobody produces. ZRError when another producer
  /// already declared the event.
  void declareEvent(const std::string& event, const std::string& producer);
  void raiseEvent(const std::string& event, const ZRValue& value);
  /// ZRError when the module does not exist or has no method called `callbackMethod`, or when
  /// the producer's "subscribe" fails (nothing is recorded then).
  void subscribeToEvent(const std::string& event, const std::string& module,
                        const std::string& callbackMethod);
  /// ZRError when the module is not subscribed, or when the producer's "unsubscribe" fails (the
  /// subscription stays then).
  void unsubscribeToEvent(const std::string& event, const std::string& module);
  /// Known events in alphabetical order, declared, raised or subscribed to.
  std::vector<std::string> getEventList();
  /// The events `producer` declared, in declaration order; empty for none.
  std::vector<std::string> getExtractorEvent(const std::string& producer);
  /// Subscriber modules of `event` in subscription order; empty for an unknown event.
  std::vector<std::string> getSubscribers(const std::string& event);
  /// How many events were dropped for `module` since this service started (queue overflow).
  int getDroppedEventCount(const std::string& module);
  /// Times `event` was raised since the service started (0 for an unknown event): a rate for
  /// tools, from two readings.
  int getRaisedEventCount(const std::string& event);
  /// [p50, p99, max] ms and the count of the delays from the capture of the sound an event was
  /// raised from to its raise, when raised while this process delivered that sound; empty
  /// otherwise.
  ZRValue getEventLatency(const std::string& event);

  // Host side, not remote.
  int getQueueCapacity() const;
  /// Blocks until no event waits for delivery and no callback runs, or until `timeout` passed;
  /// returns false on timeout. Not from a callback: it would wait for itself.
  bool waitForDeliveries(std::chrono::milliseconds timeout = std::chrono::milliseconds::max());

 private:
  // The state lives apart from the module: deliveries on the pool and the session's removal
  // listener may still hold it while the module is being destroyed.
  std::shared_ptr<detail::MemoryCore> core_;
  boost::shared_ptr<vo::Session> session_;
  unsigned long removalListener_ = 0;
};

}  // namespace ZR
