// The memory service's core: named values, events declared and raised into each subscriber's
// queue, the lists, and finding modules by name here or on other hosts. Subscriptions, with the
// producers they start and stop, are memorysubscriptions.cpp.

#include "memorycore.h"

#include <zrcommon/zrservicenames.h>

#include <algorithm>
#include <climits>

#include <boost/make_shared.hpp>

#include <vo/log.h>
#include <zrcommon/detail/zrcaller.h>
#include <zrcommon/detail/zrmoduleinternals.h>

namespace ZR {
namespace detail {

namespace {
const char* kCategory = "zrmemory";
// How long a name unknown here may take to arrive from the directory: a module of another host
// that just registered can call this service before its name has reached this host.
const int kPublishWaitMs = 5000;
// Events one drain task delivers before it lets other work onto the pool, and events one message
// to another host carries when more wait.
const int kDrainBatch = 64;
const int kMessageBatch = 256;

// `to = from`, into the storage `to` already has where both have the same shape: an event's value
// is much like its last one, and copying it afresh (and freeing the last) cost more than all the
// rest of raising it. `from` is the caller's, never part of `to`.
void assignReusing(ZRValue& to, const ZRValue& from, int depth = 0) {
  const int n = from.getSize();
  if (!from.isArray() || !to.isArray() || to.getSize() != n || depth > 8) {
    to = from;
    return;
  }
  for (int i = 0; i < n; ++i) assignReusing(to[i], from[i], depth + 1);
}

std::string heldBack(std::int64_t suppressed) {
  return suppressed > 0 ? " (" + std::to_string(suppressed) + " similar warnings held back)" : "";
}

template <class Dropped>
std::shared_ptr<EventLine> makeEventLine(const std::string& name, int capacity,
                                         const std::shared_ptr<Dropped>& dropped) {
  EventLine::Options o;
  o.onDrop = [dropped](const std::string& sub, const ZRDelivery& call) {
    if (call.args.empty() || !call.args[0].isString()) return;
    std::lock_guard<std::mutex> lock(dropped->mutex);
    dropped->pending.emplace_back(sub, call.args[0].toStringRef());
    dropped->any = true;
  };
  o.policy = ZRDeliveryPolicy::DropOldest;  // raiseEvent never waits for a subscriber
  o.capacity = static_cast<std::size_t>(capacity);
  o.batch = kDrainBatch;
  o.messageBatch = kMessageBatch;
  o.localWindow = capacity;
  o.removeWhenRefused = false;
  o.category = kCategory;
  o.publishFunction = "raiseEvent";
  o.deliverFunction = "deliver";
  o.texts.dropped = [name, capacity](const std::string& sub, std::int64_t total,
                                     std::int64_t suppressed) {
    return name + ": " + quoted(sub) + " does not keep up with its events: its " +
           std::to_string(capacity) + " pending events are full, the oldest is dropped (" +
           std::to_string(total) + " dropped so far)" + heldBack(suppressed);
  };
  o.texts.failed = [name](const std::string& sub, const ZRDelivery& call,
                          const std::string& failure, std::int64_t suppressed) {
    const std::string event =
        call.args.empty() || !call.args[0].isString() ? std::string() : call.args[0].toStringRef();
    return name + ": delivering event " + quoted(event) + " to " + quoted(sub) + " through " +
           quoted(call.method) + " failed: " + failure + heldBack(suppressed);
  };
  o.texts.refused = [name](const std::string& sub, const std::string& why,
                           std::int64_t suppressed) {
    return name + ": events for " + quoted(sub) + " are dropped: " + why + heldBack(suppressed);
  };
  return std::make_shared<EventLine>(std::move(o));
}
}  // namespace

MemoryCore::MemoryCore(const std::string& name, const boost::shared_ptr<ZRBroker>& broker,
                       int queueCapacity)
    : name_(name),
      broker_(broker),
      session_(broker->session()),
      capacity_(queueCapacity),
      restarts_(broker->makeStrand()),
      line_(makeEventLine(name, queueCapacity, dropped_)) {}

void MemoryCore::fail(const char* operation, const std::string& description) const {
  throw ZRError(name_, operation, description);
}

void MemoryCore::warn(const char* function, const std::string& message) const {
  zrDeliveryWarn(kCategory, function, name_ + ": " + message);
}

void MemoryCore::requireName(const char* operation, const char* what,
                             const std::string& value) const {
  if (value.empty()) fail(operation, std::string(what) + " must not be empty");
}

// ---- Modules by name ----
//
// Subscribers and producers may live on this host or another: they are reached through the
// broker's proxies by name, and told apart across a departure and a return by an incarnation
// number, which moduleRemoved retires.

std::uint64_t MemoryCore::incarnationLocked(const std::string& name) {
  std::uint64_t& n = incarnations_[name];
  if (n == 0) n = ++lastIncarnation_;
  return n;
}

bool MemoryCore::isCurrentLocked(const std::string& name, std::uint64_t incarnation) const {
  auto it = incarnations_.find(name);
  return incarnation != 0 && it != incarnations_.end() && it->second == incarnation;
}

void MemoryCore::awaitPublished(const std::string& name) {
  boost::shared_ptr<ZRBroker> broker = broker_.lock();
  if (!broker || broker->endpoint().empty() || session_->hasService(name)) return;
  session_->waitForService(name).async().wait(kPublishWaitMs);
}

MemoryCore::Target MemoryCore::target(const std::string& name) {
  Target t;
  if (boost::shared_ptr<ZRBroker> broker = broker_.lock()) {
    try {
      t.proxy = broker->getProxy(name, 0);
    } catch (const ZRError&) {
      // Not running: the caller says so in its own words.
    }
  }
  std::lock_guard<std::mutex> lock(mutex_);
  t.incarnation = incarnationLocked(name);
  return t;
}

// ---- Data ----

void MemoryCore::insertData(const std::string& key, const ZRValue& value) {
  requireName("insertData", "the key", key);
  std::lock_guard<std::mutex> lock(mutex_);
  assignReusing(data_[key], value);
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

// An event a module declared is raised from elsewhere only by that module's host: the connection
// it comes on must be the one of the host where the directory lists the producer (its CURVE key,
// or without CURVE the address the host gave for itself).
void MemoryCore::checkRaiser(const std::string& event, const ZRCaller& from) {
  std::string producer;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = events_.find(event);
    if (it != events_.end()) producer = it->second.producer;
  }
  if (producer.empty()) return;  // nobody's: anyone may raise it
  std::string endpoint, key;
  boost::shared_ptr<ZRBroker> broker = broker_.lock();
  const bool published = broker && ZRModuleAccess::publisher(*broker, producer, endpoint, key);
  const bool same = published && (key.empty() ? from.endpoint == endpoint : from.key == key);
  const bool local = session_->hasService(producer) && !session_->remoteService(producer);
  if (same && !local) return;
  fail("raiseEvent", "event " + quoted(event) + " belongs to " + quoted(producer) +
                         ", which declared it; host " + from.host +
                         (from.endpoint.empty() ? "" : " (" + from.endpoint + ")") +
                         " may not raise it");
}

bool MemoryCore::eventLatency(const std::string& event, detail::ZRLatencyFigures& out) {
  std::shared_ptr<detail::ZRLatencyWindow> window;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = events_.find(event);
    if (it == events_.end() || !it->second.latency) return false;
    window = it->second.latency;
  }
  out = window->figures();
  return true;
}

void MemoryCore::raiseEvent(const std::string& event, const ZRValue& value) {
  requireName("raiseEvent", "the event name", event);
  if (const ZRCaller* from = ZRCaller::current()) checkRaiser(event, *from);
  std::vector<std::string> warnings;
  {
    // Queued under the lock, so that an unsubscription either sees the event queued (and
    // discards it) or happens before it is raised.
    std::lock_guard<std::mutex> lock(mutex_);
    assignReusing(data_[event], value);
    EventRecord& record = events_[event];
    ++record.raised;
    const std::int64_t captured = detail::zrCurrentCaptureNs();
    if (captured) {
      if (!record.latency) record.latency = std::make_shared<detail::ZRLatencyWindow>();
      record.latency->add(detail::zrMonotonicNs() - captured);
    }
    // The capture time goes on with the event, so that its subscribers (a recorder, an extractor
    // of results) know what sound it was made from.
    for (const Subscription& s : record.subscriptions)
      line_->push(s.subscriber,
                  ZRDelivery{s.callback, zrValues(event, value, s.subscriber), captured}, nullptr,
                  &warnings);
  }
  for (const auto& w : warnings) zrDeliveryWarn(kCategory, "raiseEvent", w);
  announceDrops();
}

void MemoryCore::announceDrops() {
  if (!dropped_->any.load()) return;
  std::vector<std::pair<std::string, std::string>> drops;
  {
    std::lock_guard<std::mutex> lock(dropped_->mutex);
    drops.swap(dropped_->pending);
    dropped_->any = false;
  }
  for (const auto& [subscriber, event] : drops) {
    // An announcement that was dropped itself is counted, not announced: no cascade.
    if (event == kEventDroppedEvent) continue;
    ZRValue record;
    record.arraySetSize(3);
    const std::pair<const char*, ZRValue> fields[] = {
        {"subscriber", ZRValue(subscriber)},
        {"event", ZRValue(event)},
        {"dropped", ZRValue(getDroppedEventCount(subscriber))}};
    for (int i = 0; i < 3; ++i) {
      record[i].arraySetSize(2);
      record[i][0] = fields[i].first;
      record[i][1] = fields[i].second;
    }
    raiseEvent(kEventDroppedEvent, record);
  }
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

int MemoryCore::getRaisedEventCount(const std::string& event) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = events_.find(event);
  return it == events_.end() ? 0
                             : static_cast<int>(std::min<std::int64_t>(it->second.raised, INT_MAX));
}

int MemoryCore::getDroppedEventCount(const std::string& module) {
  ZRDeliveryCounts counts;
  if (!line_->counts(module, counts)) return 0;
  return static_cast<int>(std::min<std::int64_t>(counts.dropped, INT_MAX));
}

void MemoryCore::close() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    closed_ = true;
    subscriptionCounts_.clear();
  }
  line_->clear(true);
}

bool MemoryCore::waitForDeliveries(std::chrono::milliseconds timeout) {
  if (timeout == std::chrono::milliseconds::max()) timeout = std::chrono::milliseconds(-1);
  return line_->waitUntilIdle(timeout);
}

}  // namespace detail
}  // namespace ZR
