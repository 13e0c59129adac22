#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include <vo/session.h>
#include <zrcommon/zrbroker.h>
#include <zrcommon/zrproxy.h>
#include <zrvalue/zrvalue.h>

namespace ZR {
namespace detail {

/// Lets a repeated warning out at most once a second, and says how many were held back.
class RateLimiter {
 public:
  bool allow(int& suppressed);

 private:
  std::chrono::steady_clock::time_point last_;
  bool started_ = false;
  int held_ = 0;
};

struct PendingEvent {
  std::string event;
  ZRValue value;
  std::string callback;
};

/// One subscriber module's delivery line. Exists while the module has at least one subscription.
struct MemorySubscriber {
  std::string name;
  ZRStrand strand;
  boost::shared_ptr<ZRProxy> proxy;
  // Guarded by MemoryCore::mutex_.
  std::deque<PendingEvent> queue;
  bool scheduled = false;  // a drain task is posted or running
  bool closed = false;
  int subscriptions = 0;
  RateLimiter dropWarnings;
  // Only touched by the drain, which the strand serialises.
  RateLimiter failureWarnings;
};

struct Subscription {
  std::string subscriber;
  std::string callback;
  /// The producer whose link counts this subscription (empty: none). Fixed when recorded, so
  /// that undoing it touches the same link even if the event got a producer since.
  std::string producer;
};

struct EventRecord {
  std::string producer;
  std::vector<Subscription> subscriptions;
};

/// Whether one subscriber is subscribed to one producer. `serial` is held across the call to
/// the producer, so that the decision (first or last subscription), the call and the record
/// happen as one step for that pair, without holding the core's mutex during the call.
struct ProducerLink {
  std::mutex serial;
  // The rest is guarded by MemoryCore::mutex_.
  std::thread::id owner;
  int users = 0;  // threads holding or waiting for `serial`
  int count = 0;  // subscriptions of the subscriber counted against this producer
  /// The producer instance that was told "subscribe"; expired or unset when none was.
  boost::weak_ptr<vo::DynamicObject> subscribedAt;
};

class MemoryCore : public std::enable_shared_from_this<MemoryCore> {
 public:
  MemoryCore(const std::string& name, const boost::shared_ptr<ZRBroker>& broker, int queueCapacity);

  void insertData(const std::string& key, const ZRValue& value);
  ZRValue getData(const std::string& key);
  std::vector<std::string> getDataListName();
  void removeData(const std::string& key);

  void declareEvent(const std::string& event, const std::string& producer);
  void raiseEvent(const std::string& event, const ZRValue& value);
  void subscribeToEvent(const std::string& event, const std::string& module,
                        const std::string& callbackMethod);
  void unsubscribeToEvent(const std::string& event, const std::string& module);
  std::vector<std::string> getEventList();
  std::vector<std::string> getExtractorEvent(const std::string& producer);
  std::vector<std::string> getSubscribers(const std::string& event);
  int getDroppedEventCount(const std::string& module);

  int queueCapacity() const { return capacity_; }
  bool waitForDeliveries(std::chrono::milliseconds timeout);
  /// A module left the session: drop its subscriptions, unsubscribing it from its producers.
  void moduleRemoved(const std::string& module);
  /// The service is going away: stop delivering and ignore further removals.
  void close();

 private:
  class LinkGuard;
  using LinkKey = std::pair<std::string, std::string>;  // subscriber, producer

  [[noreturn]] void fail(const char* operation, const std::string& description) const;
  void warn(const char* function, const std::string& message) const;
  void requireName(const char* operation, const char* what, const std::string& value) const;

  Subscription* findLocked(const std::string& event, const std::string& module);
  void recordLocked(const std::string& event, const std::string& module,
                    const std::string& callback, const std::string& producer,
                    const boost::shared_ptr<MemorySubscriber>& fresh);
  bool removeLocked(const std::string& event, const std::string& module);
  void dropLinkRecordsLocked(const std::string& module, const std::string& producer);
  void closeSubscriberLocked(MemorySubscriber& subscriber);

  void schedule(const boost::shared_ptr<MemorySubscriber>& subscriber);
  void drain(const boost::shared_ptr<MemorySubscriber>& subscriber);
  void deliver(MemorySubscriber& subscriber, const PendingEvent& pending);

  const std::string name_;
  const boost::weak_ptr<ZRBroker> broker_;
  // Held strongly: removals are still reported while the broker itself is being destroyed.
  const boost::shared_ptr<vo::Session> session_;
  const int capacity_;

  // Never held while calling another module or logging.
  std::mutex mutex_;
  std::condition_variable idle_;
  bool closed_ = false;
  std::map<std::string, ZRValue> data_;
  std::map<std::string, EventRecord> events_;
  std::map<std::string, std::vector<std::string>> producerEvents_;
  std::map<std::string, boost::shared_ptr<MemorySubscriber>> subscribers_;
  std::map<LinkKey, std::shared_ptr<ProducerLink>> links_;
  std::map<std::string, long long> dropped_;
  long outstanding_ = 0;  // events queued or being delivered, over all subscribers
};

}  // namespace detail
}  // namespace ZR
