#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include <vo/session.h>
#include <zrcommon/detail/zrcaller.h>
#include <zrcommon/detail/zrdeliveryline.h>
#include <zrcommon/detail/zrlatencywindow.h>
#include <zrcommon/detail/zrstream.h>
#include <zrcommon/zrbroker.h>
#include <zrcommon/zrproxy.h>
#include <zrvalue/zrvalue.h>

namespace ZR {
namespace detail {

/// The callbacks' queues: each holds calls `callback(event, value, subscriber)`.
using EventLine = ZRDeliveryLine;

inline bool isEvent(const ZRDelivery& call, const std::string& event) {
  return !call.args.empty() && call.args[0].isString() && call.args[0].toStringRef() == event;
}

inline std::string quoted(const std::string& s) {
  return "\"" + s + "\"";
}

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
  std::int64_t raised = 0;  // since the service started
  // From the capture of the sound it was raised from, when raised during a delivery of it.
  std::shared_ptr<detail::ZRLatencyWindow> latency;
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
  /// The incarnation of the producer that was told "subscribe"; 0 when none was.
  std::uint64_t subscribedAt = 0;
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
  /// Raises kEventDroppedEvent for each event dropped since the last call.
  void announceDrops();
  void subscribeToEvent(const std::string& event, const std::string& module,
                        const std::string& callbackMethod);
  void unsubscribeToEvent(const std::string& event, const std::string& module);
  std::vector<std::string> getEventList();
  std::vector<std::string> getExtractorEvent(const std::string& producer);
  std::vector<std::string> getSubscribers(const std::string& event);
  int getDroppedEventCount(const std::string& module);
  int getRaisedEventCount(const std::string& event);
  /// False when `event` was never raised from a buffer of sound delivered in this process.
  bool eventLatency(const std::string& event, detail::ZRLatencyFigures& out);

  int queueCapacity() const { return capacity_; }
  bool waitForDeliveries(std::chrono::milliseconds timeout);
  /// A module left the session: drop its subscriptions, unsubscribing it from its producers (in
  /// a network, only from local ones that keep no subscriber list: each broker's reaper sees to
  /// the others); if it was a producer that modules are subscribed to, tell it "subscribe" again
  /// for each of them when a module of that name comes back.
  void moduleRemoved(const std::string& module);
  /// The service is going away: stop delivering and ignore further removals.
  void close();

 private:
  class LinkGuard;
  using LinkKey = std::pair<std::string, std::string>;  // subscriber, producer

  [[noreturn]] void fail(const char* operation, const std::string& description) const;
  void checkRaiser(const std::string& event, const ZRCaller& from);
  void warn(const char* function, const std::string& message) const;
  void requireName(const char* operation, const char* what, const std::string& value) const;

  /// A module by name, here or on another host: a proxy (null when there is none) and the
  /// incarnation of the name it was found under.
  struct Target {
    boost::shared_ptr<ZRProxy> proxy;
    std::uint64_t incarnation = 0;
    bool running() const { return proxy && proxy->isValid(); }
  };
  Target target(const std::string& name);
  /// In a network: waits a moment for a name that has not reached this host yet.
  void awaitPublished(const std::string& name);
  /// The incarnation of `name`: a number that changes each time the name leaves the session,
  /// so that a module coming back under it counts as another one, local or remote alike.
  std::uint64_t incarnationLocked(const std::string& name);
  bool isCurrentLocked(const std::string& name, std::uint64_t incarnation) const;
  /// After a producer's "subscribe" failed: takes the subscriber back if the producer kept it.
  void undoFailedSubscribe(const Target& producer, const std::string& name,
                           const std::string& module);

  Subscription* findLocked(const std::string& event, const std::string& module);
  /// How a subscriber is reached: through a proxy on a strand of this host, or on a stream to
  /// its own host.
  struct Delivery {
    ZRStrand strand;
    boost::shared_ptr<ZRProxy> proxy;
    std::shared_ptr<ZRStreamSender> stream;
  };
  void recordLocked(const std::string& event, const std::string& module,
                    const std::string& callback, const std::string& producer,
                    const Delivery& delivery);
  bool removeLocked(const std::string& event, const std::string& module);
  void dropLinkRecordsLocked(const std::string& module, const std::string& producer);
  void producerRemoved(const std::string& producer);
  void restartProducer(const std::string& producer);

  const std::string name_;
  const boost::weak_ptr<ZRBroker> broker_;
  // Held strongly: removals are still reported while the broker itself is being destroyed.
  const boost::shared_ptr<vo::Session> session_;
  const int capacity_;

  // Never held while calling another module or logging.
  std::mutex mutex_;
  bool closed_ = false;
  std::map<std::string, ZRValue> data_;
  std::map<std::string, EventRecord> events_;
  std::map<std::string, std::vector<std::string>> producerEvents_;
  std::map<std::string, int> subscriptionCounts_;  // per subscriber module, while it has any
  std::map<LinkKey, std::shared_ptr<ProducerLink>> links_;
  std::set<std::string> awaitedProducers_;  // gone producers whose return restarts them
  std::map<std::string, std::uint64_t> incarnations_;
  std::uint64_t lastIncarnation_ = 0;
  // Serialises those restarts on the pool, away from the thread that registers the producer.
  ZRStrand restarts_;
  // The callbacks' queues; its lock nests inside mutex_.
  // Events the line dropped, announced once the core's mutex is free.
  struct Dropped {
    std::atomic<bool> any{false};  // raises look here before they take the lock
    std::mutex mutex;
    std::vector<std::pair<std::string, std::string>> pending;  // subscriber, event
  };
  const std::shared_ptr<Dropped> dropped_ = std::make_shared<Dropped>();
  const std::shared_ptr<EventLine> line_;
};

}  // namespace detail
}  // namespace ZR
