#include "memorycore.h"

#include <algorithm>
#include <climits>

#include <boost/make_shared.hpp>

#include <vo/log.h>

namespace ZR {
namespace detail {

namespace {
const std::chrono::seconds kWarningInterval(1);
// Events one drain task delivers before it lets other work onto the pool.
const int kDrainBatch = 64;

bool sameObject(const boost::weak_ptr<vo::DynamicObject>& a,
                const boost::weak_ptr<vo::DynamicObject>& b) {
  return !a.expired() && !a.owner_before(b) && !b.owner_before(a);
}

std::string quoted(const std::string& s) {
  return "\"" + s + "\"";
}

std::string heldBack(int suppressed) {
  return suppressed > 0 ? " (" + std::to_string(suppressed) + " similar warnings held back)" : "";
}
}  // namespace

bool RateLimiter::allow(int& suppressed) {
  const auto now = std::chrono::steady_clock::now();
  if (started_ && now - last_ < kWarningInterval) {
    ++held_;
    return false;
  }
  started_ = true;
  last_ = now;
  suppressed = held_;
  held_ = 0;
  return true;
}

// Serialises subscribe, unsubscribe and removal for one (subscriber, producer) pair across the
// call to the producer. Refuses a thread that already holds the pair: that thread is inside the
// producer's call for this very pair, and waiting for itself would never end.
class MemoryCore::LinkGuard {
 public:
  LinkGuard(MemoryCore& core, const std::string& subscriber, const std::string& producer,
            const char* operation)
      : core_(core), key_(subscriber, producer) {
    {
      std::lock_guard<std::mutex> lock(core_.mutex_);
      std::shared_ptr<ProducerLink>& slot = core_.links_[key_];
      if (!slot) slot = std::make_shared<ProducerLink>();
      if (slot->owner == std::this_thread::get_id()) {
        core_.fail(operation, "re-entrant call for " + quoted(subscriber) + " and producer " +
                                  quoted(producer) + " while that producer is being called");
      }
      ++slot->users;
      link_ = slot;
    }
    link_->serial.lock();
    std::lock_guard<std::mutex> lock(core_.mutex_);
    link_->owner = std::this_thread::get_id();
  }
  LinkGuard(const LinkGuard&) = delete;
  LinkGuard& operator=(const LinkGuard&) = delete;
  ~LinkGuard() {
    std::lock_guard<std::mutex> lock(core_.mutex_);
    link_->owner = std::thread::id();
    link_->serial.unlock();
    if (--link_->users == 0 && link_->count == 0) core_.links_.erase(key_);
  }

  /// Only under the core's mutex.
  ProducerLink& link() { return *link_; }

 private:
  MemoryCore& core_;
  LinkKey key_;
  std::shared_ptr<ProducerLink> link_;
};

MemoryCore::MemoryCore(const std::string& name, const boost::shared_ptr<ZRBroker>& broker,
                       int queueCapacity)
    : name_(name), broker_(broker), session_(broker->session()), capacity_(queueCapacity) {}

void MemoryCore::fail(const char* operation, const std::string& description) const {
  throw ZRError(name_, operation, description);
}

void MemoryCore::warn(const char* function, const std::string& message) const {
  vo::log::LogStream(vo::LogLevel_Warning, "", function, "zrmemory", 0)
      << name_ << ": " << message << std::endl;
}

void MemoryCore::requireName(const char* operation, const char* what,
                             const std::string& value) const {
  if (value.empty()) fail(operation, std::string(what) + " must not be empty");
}

// ---- Data ----

void MemoryCore::insertData(const std::string& key, const ZRValue& value) {
  requireName("insertData", "the key", key);
  std::lock_guard<std::mutex> lock(mutex_);
  data_[key] = value;
}

ZRValue MemoryCore::getData(const std::string& key) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = data_.find(key);
  if (it == data_.end())
    fail("getData", "nothing is stored under the key " + quoted(key) + "; insert it first");
  return it->second;
}

std::vector<std::string> MemoryCore::getDataListName() {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::string> keys;
  keys.reserve(data_.size());
  for (const auto& entry : data_) keys.push_back(entry.first);
  return keys;
}

void MemoryCore::removeData(const std::string& key) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (data_.erase(key) == 0)
    fail("removeData", "nothing is stored under the key " + quoted(key) + ", nothing to remove");
}

// ---- Events ----

void MemoryCore::declareEvent(const std::string& event, const std::string& producer) {
  requireName("declareEvent", "the event name", event);
  std::lock_guard<std::mutex> lock(mutex_);
  EventRecord& record = events_[event];
  if (producer.empty() || record.producer == producer) return;
  if (!record.producer.empty()) {
    fail("declareEvent", "event " + quoted(event) + " is already declared by " +
                             quoted(record.producer) + ", so " + quoted(producer) +
                             " cannot declare it; give the event another name");
  }
  record.producer = producer;
  producerEvents_[producer].push_back(event);
}

void MemoryCore::raiseEvent(const std::string& event, const ZRValue& value) {
  requireName("raiseEvent", "the event name", event);
  std::vector<boost::shared_ptr<MemorySubscriber>> wake;
  std::vector<std::string> warnings;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    data_[event] = value;
    for (const Subscription& s : events_[event].subscriptions) {
      auto it = subscribers_.find(s.subscriber);
      if (it == subscribers_.end()) continue;
      MemorySubscriber& sub = *it->second;
      sub.queue.push_back(PendingEvent{event, value, s.callback});
      ++outstanding_;
      if (static_cast<int>(sub.queue.size()) > capacity_) {
        sub.queue.pop_front();
        --outstanding_;
        const long long total = ++dropped_[sub.name];
        int suppressed = 0;
        if (sub.dropWarnings.allow(suppressed)) {
          warnings.push_back(quoted(sub.name) + " does not keep up with its events: its " +
                             std::to_string(capacity_) +
                             " pending events are full, the oldest is " + "dropped (" +
                             std::to_string(total) + " dropped so far)" + heldBack(suppressed));
        }
      }
      if (!sub.scheduled) {
        sub.scheduled = true;
        wake.push_back(it->second);
      }
    }
  }
  for (const auto& s : wake) schedule(s);
  for (const auto& w : warnings) warn("raiseEvent", w);
}

std::vector<std::string> MemoryCore::getEventList() {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::string> names;
  names.reserve(events_.size());
  for (const auto& entry : events_) names.push_back(entry.first);
  return names;
}

std::vector<std::string> MemoryCore::getExtractorEvent(const std::string& producer) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = producerEvents_.find(producer);
  return it == producerEvents_.end() ? std::vector<std::string>() : it->second;
}

std::vector<std::string> MemoryCore::getSubscribers(const std::string& event) {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::string> names;
  auto it = events_.find(event);
  if (it != events_.end())
    for (const Subscription& s : it->second.subscriptions) names.push_back(s.subscriber);
  return names;
}

int MemoryCore::getDroppedEventCount(const std::string& module) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = dropped_.find(module);
  return it == dropped_.end() ? 0 : static_cast<int>(std::min<long long>(it->second, INT_MAX));
}

// ---- Subscriptions ----
//
// The core's mutex is never held while another module runs: a producer's "subscribe" may call
// back into this service (insertData, declareEvent, even subscribing someone else). What must
// not interleave are two changes of the same (subscriber, producer) pair: two threads could both
// see "first subscription" and subscribe twice, or an unsubscribe's "unsubscribe" could overtake
// a concurrent subscribe's "subscribe" and leave the producer serving nobody while we believe it
// serves the module. So each pair has a ProducerLink whose `serial` mutex is held from the
// decision, through the producer call, to the record: `count` is the number of subscriptions of
// the module counted against the producer, and `subscribedAt` the producer instance that was told
// "subscribe". The producer is told "subscribe" when it is not subscribedAt (first subscription,
// or the producer was restarted), and "unsubscribe" when the last counted subscription goes.
// A failed producer call changes nothing. Lock order: a link's `serial`, then the core's mutex.

Subscription* MemoryCore::findLocked(const std::string& event, const std::string& module) {
  auto it = events_.find(event);
  if (it == events_.end()) return nullptr;
  for (Subscription& s : it->second.subscriptions)
    if (s.subscriber == module) return &s;
  return nullptr;
}

void MemoryCore::recordLocked(const std::string& event, const std::string& module,
                              const std::string& callback, const std::string& producer,
                              const boost::shared_ptr<MemorySubscriber>& fresh) {
  events_[event].subscriptions.push_back(Subscription{module, callback, producer});
  boost::shared_ptr<MemorySubscriber>& sub = subscribers_[module];
  if (!sub) sub = fresh;
  ++sub->subscriptions;
}

bool MemoryCore::removeLocked(const std::string& event, const std::string& module) {
  auto it = events_.find(event);
  if (it == events_.end()) return false;
  std::vector<Subscription>& subs = it->second.subscriptions;
  auto s = std::find_if(subs.begin(), subs.end(),
                        [&](const Subscription& x) { return x.subscriber == module; });
  if (s == subs.end()) return false;
  subs.erase(s);
  auto sit = subscribers_.find(module);
  if (sit == subscribers_.end()) return true;
  MemorySubscriber& sub = *sit->second;
  // Nothing of this event starts after the unsubscription returns.
  const std::size_t before = sub.queue.size();
  sub.queue.erase(std::remove_if(sub.queue.begin(), sub.queue.end(),
                                 [&](const PendingEvent& p) { return p.event == event; }),
                  sub.queue.end());
  outstanding_ -= static_cast<long>(before - sub.queue.size());
  if (--sub.subscriptions == 0) {
    closeSubscriberLocked(sub);
    subscribers_.erase(sit);
  }
  if (outstanding_ == 0) idle_.notify_all();
  return true;
}

void MemoryCore::closeSubscriberLocked(MemorySubscriber& subscriber) {
  subscriber.closed = true;
  outstanding_ -= static_cast<long>(subscriber.queue.size());
  subscriber.queue.clear();
  if (outstanding_ == 0) idle_.notify_all();
}

void MemoryCore::dropLinkRecordsLocked(const std::string& module, const std::string& producer) {
  std::vector<std::string> events;
  for (const auto& [event, record] : events_)
    for (const Subscription& s : record.subscriptions)
      if (s.subscriber == module && s.producer == producer) events.push_back(event);
  for (const std::string& event : events) removeLocked(event, module);
  auto it = links_.find(LinkKey(module, producer));
  if (it == links_.end()) return;
  ProducerLink& link = *it->second;
  link.count = std::max(0, link.count - static_cast<int>(events.size()));
  if (link.count == 0) {
    link.subscribedAt.reset();
    if (link.users == 0) links_.erase(it);
  }
}

void MemoryCore::subscribeToEvent(const std::string& event, const std::string& module,
                                  const std::string& callback) {
  const char* op = "subscribeToEvent";
  requireName(op, "the event name", event);
  requireName(op, "the module name", module);
  requireName(op, "the callback method", callback);
  const boost::weak_ptr<vo::DynamicObject> handle = session_->serviceHandle(module);
  {
    boost::shared_ptr<vo::DynamicObject> object = handle.lock();
    if (!object) {
      fail(op, "no module called " + quoted(module) + ": only a running module can subscribe to " +
                   "event " + quoted(event));
    }
    if (!object->hasMethod(callback)) {
      fail(op, "module " + quoted(module) + " has no method " + quoted(callback) +
                   " to receive event " + quoted(event));
    }
  }
  boost::shared_ptr<MemorySubscriber> fresh = boost::make_shared<MemorySubscriber>();
  fresh->name = module;
  fresh->proxy = boost::make_shared<ZRProxy>(module, handle);
  boost::shared_ptr<ZRBroker> broker = broker_.lock();
  if (!broker) fail(op, "the broker hosting this service is gone");
  try {
    fresh->strand = broker->makeStrand();
  } catch (const ZRError& e) {
    fail(op, e.what());
  }
  broker.reset();

  std::string producer;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = events_.find(event);
    if (it != events_.end()) producer = it->second.producer;
    if (producer.empty()) {
      // Checked under the mutex: a removal reported later is sure to see this record.
      if (!session_->hasService(module)) fail(op, "module " + quoted(module) + " went away");
      if (Subscription* s = findLocked(event, module))
        s->callback = callback;
      else
        recordLocked(event, module, callback, "", fresh);
      return;
    }
  }

  const boost::weak_ptr<vo::DynamicObject> producerHandle = session_->serviceHandle(producer);
  LinkGuard guard(*this, module, producer, op);
  bool tell = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (Subscription* s = findLocked(event, module)) {
      s->callback = callback;
      return;
    }
    tell = !sameObject(guard.link().subscribedAt, producerHandle);
  }
  if (tell) {
    if (producerHandle.expired()) {
      fail(op, "event " + quoted(event) + " is produced by " + quoted(producer) +
                   ", which is not running; start it before subscribing to its events");
    }
    try {
      ZRProxy(producer, producerHandle).call<void>("subscribe", module);
    } catch (const ZRError& e) {
      fail(op, e.what());
    }
  }
  bool undo = false;
  bool gone = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    ProducerLink& link = guard.link();
    gone = closed_ || !session_->hasService(module);
    Subscription* existing = gone ? nullptr : findLocked(event, module);
    if (!gone && !existing) {
      recordLocked(event, module, callback, producer, fresh);
      ++link.count;
      if (tell) link.subscribedAt = producerHandle;
      return;
    }
    // Recorded meanwhile against no producer (the event got its producer since), or the module
    // left: the producer keeps our "subscribe" only if other subscriptions rely on it.
    if (existing) existing->callback = callback;
    if (tell) {
      if (link.count == 0)
        undo = true;
      else
        link.subscribedAt = producerHandle;
    }
  }
  if (undo) {
    try {
      ZRProxy(producer, producerHandle).call<void>("unsubscribe", module);
    } catch (const ZRError& e) {
      warn(op, "could not undo the subscription of " + quoted(module) + " to " + quoted(producer) +
                   ": " + e.what());
    }
  }
  if (gone) fail(op, "module " + quoted(module) + " went away while subscribing");
}

void MemoryCore::unsubscribeToEvent(const std::string& event, const std::string& module) {
  const char* op = "unsubscribeToEvent";
  const std::string notSubscribed =
      "module " + quoted(module) + " is not subscribed to event " + quoted(event);
  for (;;) {
    std::string producer;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      Subscription* s = findLocked(event, module);
      if (!s) fail(op, notSubscribed);
      if (s->producer.empty()) {
        removeLocked(event, module);
        return;
      }
      producer = s->producer;
    }
    LinkGuard guard(*this, module, producer, op);
    boost::weak_ptr<vo::DynamicObject> subscribedAt;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      Subscription* s = findLocked(event, module);
      if (!s) fail(op, notSubscribed);
      if (s->producer != producer) continue;  // unsubscribed and resubscribed meanwhile
      if (guard.link().count == 1) subscribedAt = guard.link().subscribedAt;
    }
    if (!subscribedAt.expired()) {
      try {
        ZRProxy(producer, subscribedAt).call<void>("unsubscribe", module);
      } catch (const ZRError& e) {
        // A producer that went away meanwhile serves nobody any more: nothing to undo.
        if (!subscribedAt.expired()) fail(op, e.what());
      }
    }
    std::lock_guard<std::mutex> lock(mutex_);
    ProducerLink& link = guard.link();
    if (removeLocked(event, module) && --link.count == 0) link.subscribedAt.reset();
    return;
  }
}

void MemoryCore::moduleRemoved(const std::string& module) {
  const char* fn = "moduleRemoved";
  for (;;) {
    std::string producer;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (closed_) return;
      bool found = false;
      for (auto it = events_.begin(); it != events_.end() && !found; ++it) {
        for (const Subscription& s : it->second.subscriptions) {
          if (s.subscriber == module) {
            producer = s.producer;
            found = true;
            break;
          }
        }
      }
      if (!found) return;
      if (producer.empty()) {
        dropLinkRecordsLocked(module, producer);
        continue;
      }
    }
    std::unique_ptr<LinkGuard> guard;
    try {
      guard = std::make_unique<LinkGuard>(*this, module, producer, fn);
    } catch (const ZRError& e) {
      // This thread is inside the producer's call for this very pair; that call's own ending
      // sees the module gone and settles the producer.
      warn(fn, e.what());
      std::lock_guard<std::mutex> lock(mutex_);
      dropLinkRecordsLocked(module, producer);
      continue;
    }
    boost::weak_ptr<vo::DynamicObject> subscribedAt;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (guard->link().count > 0) subscribedAt = guard->link().subscribedAt;
    }
    // During shutdown the producer may be gone already: then there is nobody to tell.
    if (!subscribedAt.expired()) {
      try {
        ZRProxy(producer, subscribedAt).call<void>("unsubscribe", module);
      } catch (const ZRError& e) {
        if (!subscribedAt.expired()) {
          warn(fn, "could not unsubscribe " + quoted(module) + ", which went away, from " +
                       quoted(producer) + ": " + e.what() +
                       "; its subscriptions are dropped anyway");
        }
      }
    }
    std::lock_guard<std::mutex> lock(mutex_);
    dropLinkRecordsLocked(module, producer);
  }
}

void MemoryCore::close() {
  std::lock_guard<std::mutex> lock(mutex_);
  closed_ = true;
  for (auto& entry : subscribers_) closeSubscriberLocked(*entry.second);
  subscribers_.clear();
  idle_.notify_all();
}

// ---- Delivery ----

void MemoryCore::schedule(const boost::shared_ptr<MemorySubscriber>& subscriber) {
  try {
    subscriber->strand.post([self = shared_from_this(), subscriber] { self->drain(subscriber); });
    return;
  } catch (const ZRError& e) {
    // The broker is shut down: nothing will run these events, so they must not count as pending.
    int suppressed = 0;
    bool report = false;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      subscriber->scheduled = false;
      outstanding_ -= static_cast<long>(subscriber->queue.size());
      subscriber->queue.clear();
      if (outstanding_ == 0) idle_.notify_all();
      report = subscriber->dropWarnings.allow(suppressed);
    }
    if (report) {
      warn("raiseEvent", "events for " + quoted(subscriber->name) + " are dropped: " + e.what() +
                             heldBack(suppressed));
    }
  }
}

void MemoryCore::drain(const boost::shared_ptr<MemorySubscriber>& subscriber) {
  std::unique_lock<std::mutex> lock(mutex_);
  for (int n = 0;; ++n) {
    if (subscriber->closed || subscriber->queue.empty()) {
      subscriber->scheduled = false;
      return;
    }
    if (n == kDrainBatch) {
      // Still scheduled: the repost continues where this task stops.
      lock.unlock();
      schedule(subscriber);
      return;
    }
    {
      PendingEvent pending = std::move(subscriber->queue.front());
      subscriber->queue.pop_front();
      lock.unlock();
      deliver(*subscriber, pending);
    }
    lock.lock();
    if (--outstanding_ == 0) idle_.notify_all();
  }
}

void MemoryCore::deliver(MemorySubscriber& subscriber, const PendingEvent& pending) {
  std::string failure;
  try {
    subscriber.proxy->call<void>(pending.callback, pending.event, pending.value, subscriber.name);
    return;
  } catch (const std::exception& e) {
    failure = e.what();
  } catch (...) {
    failure = "unknown exception";
  }
  int suppressed = 0;
  if (!subscriber.failureWarnings.allow(suppressed)) return;
  warn("deliver", "delivering event " + quoted(pending.event) + " to " + quoted(subscriber.name) +
                      " through " + quoted(pending.callback) + " failed: " + failure +
                      heldBack(suppressed));
}

bool MemoryCore::waitForDeliveries(std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(mutex_);
  auto done = [this] { return outstanding_ == 0; };
  if (timeout == std::chrono::milliseconds::max()) {
    idle_.wait(lock, done);
    return true;
  }
  return idle_.wait_for(lock, timeout, done);
}

}  // namespace detail
}  // namespace ZR
