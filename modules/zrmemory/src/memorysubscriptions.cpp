// Subscriptions to events: who is subscribed to what, the producer each one counts against, and
// the "subscribe" and "unsubscribe" a producer is told, serialised per (subscriber, producer) pair
// across the call; and what happens when a subscriber or a producer goes away and comes back.

#include "memorycore.h"

#include <algorithm>

#include <vo/log.h>

namespace ZR {
namespace detail {

namespace {
const char* kCategory = "zrmemory";
// Messages of events a subscriber on another host may leave unanswered.
const int kRemoteWindow = 16;
}  // namespace

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

// An extractor keeps a subscriber whose start hook failed (by design): left there, it would
// count as served while nothing runs, and a retry would find the producer "started" already.
// Only a producer that lists its subscribers can say whether it kept this one.
void MemoryCore::undoFailedSubscribe(const Target& producer, const std::string& name,
                                     const std::string& module) {
  try {
    const ZRValue info = producer.proxy->call<ZRValue>("getSubscribersInfo");
    bool kept = false;
    for (int i = 0; i < info.getSize() && !kept; ++i)
      kept = info[i].isArray() && info[i].getSize() > 0 && info[i][0].isString() &&
             std::string(info[i][0]) == module;
    if (kept) producer.proxy->call<void>("unsubscribe", module);
  } catch (const ZRError& e) {
    // No subscriber list (not an extractor), or the producer went away: nothing to take back.
    vo::log::LogStream(vo::LogLevel_Verbose, "", "subscribeToEvent", kCategory, 0)
        << name_ << ": after the failed subscription of " << quoted(module) << " to "
        << quoted(name) << ": " << e.what();
  }
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
                              const Delivery& delivery) {
  events_[event].subscriptions.push_back(Subscription{module, callback, producer});
  if (++subscriptionCounts_[module] > 1) return;
  if (const std::shared_ptr<ZRStreamSender> stream = delivery.stream) {
    // A subscriber of another host gets its events in messages of several, each answered once
    // its callbacks ran there.
    line_->addRemote(
        module,
        [stream, module](std::vector<ZRDelivery>& batch, bool lossless, EventLine::Done done) {
          stream->sendCalls({module}, batch, lossless, std::move(done));
        },
        kRemoteWindow, EventLine::Gone(), stream->ioExecutor());
    return;
  }
  const ZRStrand strand = delivery.strand;
  const boost::shared_ptr<ZRProxy> proxy = delivery.proxy;
  line_->add(
      module, [strand](std::function<void()> work) { strand.post(std::move(work)); },
      [proxy](ZRDelivery& call) {
        proxy->metaCall(call.method, call.args.data(), call.args.size());
      });
}

bool MemoryCore::removeLocked(const std::string& event, const std::string& module) {
  auto it = events_.find(event);
  if (it == events_.end()) return false;
  std::vector<Subscription>& subs = it->second.subscriptions;
  auto s = std::find_if(subs.begin(), subs.end(),
                        [&](const Subscription& x) { return x.subscriber == module; });
  if (s == subs.end()) return false;
  subs.erase(s);
  // Nothing of this event starts after the unsubscription returns (the caller waits for one
  // already running, once it holds no lock).
  line_->discard(module, [&](const ZRDelivery& call) { return isEvent(call, event); });
  auto count = subscriptionCounts_.find(module);
  if (count != subscriptionCounts_.end() && --count->second == 0) {
    subscriptionCounts_.erase(count);
    line_->remove(module);
  }
  return true;
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
    link.subscribedAt = 0;
    if (link.users == 0) links_.erase(it);
  }
}

void MemoryCore::subscribeToEvent(const std::string& event, const std::string& module,
                                  const std::string& callback) {
  const char* op = "subscribeToEvent";
  requireName(op, "the event name", event);
  requireName(op, "the module name", module);
  requireName(op, "the callback method", callback);
  awaitPublished(module);
  Delivery fresh;
  fresh.proxy = target(module).proxy;
  if (!fresh.proxy || !fresh.proxy->isValid()) {
    fail(op, "no module called " + quoted(module) + ": only a running module can subscribe to " +
                 "event " + quoted(event));
  }
  bool hasCallback = false;
  if (boost::shared_ptr<vo::DynamicObject> object = session_->service(module)) {
    hasCallback = object->hasMethod(callback);
  } else {
    // A module of another host: its method list says.
    std::vector<std::string> methods;
    try {
      methods = fresh.proxy->call<std::vector<std::string>>("getMethodList");
    } catch (const ZRError& e) {
      fail(op, e.what());
    }
    hasCallback = std::find(methods.begin(), methods.end(), callback) != methods.end();
  }
  if (!hasCallback) {
    fail(op, "module " + quoted(module) + " has no method " + quoted(callback) +
                 " to receive event " + quoted(event));
  }
  boost::shared_ptr<ZRBroker> broker = broker_.lock();
  if (!broker) fail(op, "the broker hosting this service is gone");
  try {
    fresh.strand = broker->makeStrand();
  } catch (const ZRError& e) {
    fail(op, e.what());
  }
  // A subscriber of another host is reached on a stream of its own.
  if (!session_->service(module)) {
    if (const auto where = session_->remoteService(module))
      fresh.stream = openStream(*broker, where->address, name_ + ":" + module);
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

  const Target producerAt = target(producer);
  LinkGuard guard(*this, module, producer, op);
  bool tell = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (Subscription* s = findLocked(event, module)) {
      s->callback = callback;
      return;
    }
    tell = guard.link().subscribedAt != producerAt.incarnation || !producerAt.running();
  }
  if (tell) {
    if (!producerAt.running()) {
      fail(op, "event " + quoted(event) + " is produced by " + quoted(producer) +
                   ", which is not running; start it before subscribing to its events");
    }
    try {
      producerAt.proxy->call<void>("subscribe", module);
    } catch (const ZRError& e) {
      undoFailedSubscribe(producerAt, producer, module);
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
      if (tell) link.subscribedAt = producerAt.incarnation;
      return;
    }
    // Recorded meanwhile against no producer (the event got its producer since), or the module
    // left: the producer keeps our "subscribe" only if other subscriptions rely on it.
    if (existing) existing->callback = callback;
    if (tell) {
      if (link.count == 0)
        undo = true;
      else
        link.subscribedAt = producerAt.incarnation;
    }
  }
  if (undo) {
    try {
      producerAt.proxy->call<void>("unsubscribe", module);
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
        break;
      }
      producer = s->producer;
    }
    const Target producerAt = target(producer);
    LinkGuard guard(*this, module, producer, op);
    bool tell = false;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      Subscription* s = findLocked(event, module);
      if (!s) fail(op, notSubscribed);
      if (s->producer != producer) continue;  // unsubscribed and resubscribed meanwhile
      tell = guard.link().count == 1 && guard.link().subscribedAt == producerAt.incarnation &&
             isCurrentLocked(producer, producerAt.incarnation);
    }
    if (tell && producerAt.proxy) {
      try {
        producerAt.proxy->call<void>("unsubscribe", module);
      } catch (const ZRError& e) {
        // A producer that went away meanwhile serves nobody any more: nothing to undo.
        std::lock_guard<std::mutex> lock(mutex_);
        if (producerAt.proxy->isValid() && isCurrentLocked(producer, producerAt.incarnation))
          fail(op, e.what());
      }
    }
    std::lock_guard<std::mutex> lock(mutex_);
    ProducerLink& link = guard.link();
    if (removeLocked(event, module) && --link.count == 0) link.subscribedAt = 0;
    break;
  }
  // Outside every lock: the running callback may call this service.
  line_->awaitCurrent(module, [&](const ZRDelivery& call) { return isEvent(call, event); });
}

void MemoryCore::moduleRemoved(const std::string& module) {
  const char* fn = "moduleRemoved";
  {
    std::lock_guard<std::mutex> lock(mutex_);
    incarnations_.erase(module);  // whoever comes back under the name is another module
  }
  producerRemoved(module);
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
    // A producer of this host is told here. In a network, each broker's reaper unsubscribes a
    // departed module from its own modules that list their subscribers (zrreaper.h), so such a
    // producer, here or on another host, is left to it: telling it twice would race. During
    // shutdown the producer may be gone already: then there is nobody to tell.
    bool tellHere = false;
    if (boost::shared_ptr<vo::DynamicObject> local = session_->service(producer)) {
      boost::shared_ptr<ZRBroker> broker = broker_.lock();
      tellHere = !(broker && !broker->endpoint().empty() && local->hasMethod("getSubscribersInfo"));
    }
    const Target producerAt = tellHere ? target(producer) : Target();
    bool tell = false;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      tell = producerAt.proxy && guard->link().count > 0 &&
             guard->link().subscribedAt == producerAt.incarnation;
    }
    if (tell) {
      try {
        producerAt.proxy->call<void>("unsubscribe", module);
      } catch (const ZRError& e) {
        if (producerAt.proxy->isValid()) {
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

// A producer that goes away while modules are subscribed to its events forgets them with its
// state. The record of which instance was told "subscribe" is retired now, and the next module
// registered under that name is told "subscribe" for each of them, so that it serves them again.
void MemoryCore::producerRemoved(const std::string& producer) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (closed_) return;
    bool served = false;
    for (auto& [key, link] : links_) {
      if (key.second != producer || link->count == 0) continue;
      link->subscribedAt = 0;
      served = true;
    }
    if (!served || !awaitedProducers_.insert(producer).second) return;
  }
  std::weak_ptr<MemoryCore> weak = shared_from_this();
  // The continuation runs in the thread that registers the new module, under the broker's lock:
  // it only posts.
  session_->waitForService(producer).async().connect([weak, producer](const vo::Future<void>& f) {
    std::shared_ptr<MemoryCore> self = weak.lock();
    if (!self) return;
    if (f.hasError()) {  // the session closed: nobody comes back
      std::lock_guard<std::mutex> lock(self->mutex_);
      self->awaitedProducers_.erase(producer);
      return;
    }
    try {
      self->restarts_.post([weak, producer] {
        if (std::shared_ptr<MemoryCore> core = weak.lock()) core->restartProducer(producer);
      });
    } catch (const ZRError& e) {
      self->warn("moduleRemoved", "cannot restart " + quoted(producer) + ": " + e.what());
      std::lock_guard<std::mutex> lock(self->mutex_);
      self->awaitedProducers_.erase(producer);
    }
  });
}

void MemoryCore::restartProducer(const std::string& producer) {
  const char* fn = "restartProducer";
  const Target producerAt = target(producer);
  std::vector<std::string> subscribers;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    awaitedProducers_.erase(producer);
    if (closed_) return;
    for (const auto& [key, link] : links_)
      if (key.second == producer && link->count > 0) subscribers.push_back(key.first);
  }
  for (const std::string& module : subscribers) {
    try {
      LinkGuard guard(*this, module, producer, fn);
      {
        std::lock_guard<std::mutex> lock(mutex_);
        // Settled meanwhile: unsubscribed, or subscribed again by a subscribeToEvent.
        if (guard.link().count == 0 || guard.link().subscribedAt == producerAt.incarnation)
          continue;
      }
      if (!producerAt.running()) return;  // gone again: its removal waits for the next one
      try {
        producerAt.proxy->call<void>("subscribe", module);
      } catch (const ZRError&) {
        undoFailedSubscribe(producerAt, producer, module);
        throw;
      }
      std::lock_guard<std::mutex> lock(mutex_);
      if (guard.link().count > 0) guard.link().subscribedAt = producerAt.incarnation;
    } catch (const ZRError& e) {
      warn(fn, "could not subscribe " + quoted(module) + " again to " + quoted(producer) +
                   ", which came back: " + e.what());
    }
  }
}

}  // namespace detail
}  // namespace ZR
