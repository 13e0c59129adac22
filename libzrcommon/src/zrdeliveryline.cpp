// The delivery line's queues: subscribers coming and going, calls queued under each policy, and
// the waits of producers and of those who want the line idle. Delivering is zrdeliveryrun.cpp.

#include "zrdeliverylineimpl.h"

#include <algorithm>

#include <vo/log.h>

namespace ZR {
namespace detail {

ZRWarningLimiter::ZRWarningLimiter(std::chrono::steady_clock::duration interval, Clock clock)
    : interval_(interval), clock_(std::move(clock)) {}

bool ZRWarningLimiter::allow(std::int64_t& heldBack) {
  const auto now = clock_ ? clock_() : std::chrono::steady_clock::now();
  if (used_ && now - last_ < interval_) {
    ++held_;
    return false;
  }
  used_ = true;
  last_ = now;
  heldBack = held_;
  held_ = 0;
  return true;
}

void zrDeliveryWarn(const std::string& category, const std::string& function,
                    const std::string& message) {
  vo::log::LogStream(vo::LogLevel_Warning, "", function.c_str(), category.c_str(), 0) << message;
}

ZRDeliveryLine::ZRDeliveryLine(Options options) : options_(std::move(options)) {
  options_.capacity = std::max<std::size_t>(1, options_.capacity);
  options_.resumeAt = std::min(options_.resumeAt, options_.capacity - 1);
  options_.batch = std::max(1, options_.batch);
  options_.messageBatch = std::max(1, options_.messageBatch);
  options_.messageMinimum =
      std::clamp(options_.messageMinimum, 1,
                 std::min(options_.messageBatch, static_cast<int>(options_.capacity)));
  options_.localWindow = std::max(1, options_.localWindow);
}

ZRDeliveryLine::~ZRDeliveryLine() = default;

bool ZRDeliveryLine::addLocked(const std::string& name, SubscriberPtr sub) {
  if (closed_ || subscribers_.count(name)) return false;
  sub->name = name;
  sub->counts = &counts_[name];
  subscribers_[name] = std::move(sub);
  return true;
}

bool ZRDeliveryLine::add(const std::string& name, Post post, Call call, Gone gone) {
  auto sub = std::make_shared<Subscriber>(options_);
  sub->post = std::move(post);
  sub->call = std::move(call);
  sub->gone = std::move(gone);
  std::lock_guard<std::mutex> lock(mutex_);
  return addLocked(name, std::move(sub));
}

bool ZRDeliveryLine::addRemote(const std::string& name, Send send, int window, Gone gone,
                               Post pump) {
  auto sub = std::make_shared<Subscriber>(options_);
  sub->send = std::move(send);
  sub->post = std::move(pump);
  sub->window = std::max(1, window);
  sub->gone = std::move(gone);
  std::lock_guard<std::mutex> lock(mutex_);
  return addLocked(name, std::move(sub));
}

bool ZRDeliveryLine::remove(const std::string& name, bool waitForCurrent) {
  std::vector<Entry> dead;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = subscribers_.find(name);
    if (it == subscribers_.end()) return false;
    retireLocked(it);
    dead.swap(graveyard_);
  }
  room_.notify_all();
  settled_.notify_all();
  dead.clear();
  if (waitForCurrent) awaitCurrent(name, Match());
  return true;
}

std::size_t ZRDeliveryLine::discard(const std::string& name, const Match& which,
                                    bool waitForCurrent) {
  std::deque<Entry> discarded;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = subscribers_.find(name);
    if (it != subscribers_.end()) {
      std::deque<Entry> kept;
      for (Entry& e : it->second->queue) (which(e.call) ? discarded : kept).push_back(std::move(e));
      it->second->queue.swap(kept);
    }
  }
  const std::size_t n = discarded.size();
  if (n) {
    room_.notify_all();
    settled_.notify_all();
  }
  discarded.clear();
  if (waitForCurrent) awaitCurrent(name, which);
  return n;
}

void ZRDeliveryLine::awaitCurrent(const std::string& name, const Match& which) {
  std::unique_lock<std::mutex> lock(mutex_);
  settled_.wait(lock, [&] {
    for (const Current& c : current_) {
      if (c.name != name || c.thread == std::this_thread::get_id()) continue;
      for (const ZRDelivery* call : c.calls)
        if (!which || which(*call)) return false;
    }
    return true;
  });
}

void ZRDeliveryLine::clear(bool forGood) {
  std::vector<Entry> dead;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    closed_ = closed_ || forGood;
    while (!subscribers_.empty()) retireLocked(subscribers_.begin());
    dead.swap(graveyard_);
  }
  room_.notify_all();
  settled_.notify_all();
}

bool ZRDeliveryLine::publish(ZRDelivery call, const std::atomic<bool>* stop,
                             std::vector<std::string>* warnings) {
  std::vector<std::string> own;
  std::vector<std::string>& out = warnings ? *warnings : own;
  std::vector<SubscriberPtr> toPump;
  Entry proto{std::move(call), currentDeliveryIsLossless(), holdFor()};
  bool anyone = false;
  std::vector<Entry> dead;
  std::vector<std::pair<std::string, ZRDelivery>> drops;
  {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!proto.keep && !waitForRoomLocked(lock, nullptr, stop)) return false;
    std::vector<SubscriberPtr> targets;
    targets.reserve(subscribers_.size());
    for (auto& entry : subscribers_) targets.push_back(entry.second);
    // Each subscriber its own copy; the last takes the original.
    for (std::size_t i = 0; i < targets.size(); ++i)
      queueLocked(targets[i], i + 1 < targets.size() ? Entry(proto) : std::move(proto), out,
                  toPump);
    anyone = !subscribers_.empty();
    dead.swap(graveyard_);
    drops.swap(drops_);
  }
  for (auto& sub : toPump) pump(sub);
  if (!warnings) emit(own);
  reportDrops(drops);
  return anyone;
}

bool ZRDeliveryLine::push(const std::string& name, ZRDelivery call, const std::atomic<bool>* stop,
                          std::vector<std::string>* warnings) {
  std::vector<std::string> own;
  std::vector<std::string>& out = warnings ? *warnings : own;
  std::vector<SubscriberPtr> toPump;
  Entry entry{std::move(call), currentDeliveryIsLossless(), holdFor()};
  bool queued = false;
  std::vector<Entry> dead;
  std::vector<std::pair<std::string, ZRDelivery>> drops;
  {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!entry.keep && !waitForRoomLocked(lock, &name, stop)) return false;
    auto it = subscribers_.find(name);
    if (it != subscribers_.end()) {
      SubscriberPtr sub = it->second;
      queueLocked(sub, std::move(entry), out, toPump);
      queued = true;
    }
    dead.swap(graveyard_);
    drops.swap(drops_);
  }
  for (auto& sub : toPump) pump(sub);
  if (!warnings) emit(own);
  reportDrops(drops);
  return queued;
}

void ZRDeliveryLine::wake() {
  { std::lock_guard<std::mutex> lock(mutex_); }
  room_.notify_all();
  settled_.notify_all();
}

bool ZRDeliveryLine::isIdle() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return idleLocked();
}

bool ZRDeliveryLine::waitUntilIdle(std::chrono::milliseconds timeout,
                                   const std::atomic<bool>* stop) {
  std::unique_lock<std::mutex> lock(mutex_);
  auto done = [&] { return idleLocked() || (stop && *stop); };
  if (timeout.count() < 0)
    settled_.wait(lock, done);
  else
    settled_.wait_for(lock, timeout, done);
  return idleLocked();
}

bool ZRDeliveryLine::waitUntilProducerWaits(std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(mutex_);
  return settled_.wait_for(lock, timeout, [&] { return waiting_ > 0; });
}

std::vector<std::string> ZRDeliveryLine::subscribers() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::string> names;
  for (const auto& entry : subscribers_) names.push_back(entry.first);
  return names;
}

bool ZRDeliveryLine::has(const std::string& name) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return subscribers_.count(name) != 0;
}

bool ZRDeliveryLine::counts(const std::string& name, ZRDeliveryCounts& out) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = counts_.find(name);
  if (it == counts_.end()) return false;
  out = it->second;
  return true;
}

std::size_t ZRDeliveryLine::queued(const std::string& name) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = subscribers_.find(name);
  return it == subscribers_.end() ? 0 : it->second->queue.size();
}

// ---- internals

void ZRDeliveryLine::emit(const std::vector<std::string>& warnings) const {
  for (const std::string& w : warnings)
    zrDeliveryWarn(options_.category, options_.publishFunction, w);
}

ZRCompletionToken ZRDeliveryLine::holdFor() const {
  return options_.heldByAnyDelivery ? completionForMessage() : completionForItem();
}

bool ZRDeliveryLine::losslessFor(const Entry& entry) const {
  return entry.keep || options_.losslessDeliveries;
}

bool ZRDeliveryLine::anyFullLocked(const std::string* only) const {
  return anyAboveLocked(only, options_.capacity - 1);
}

bool ZRDeliveryLine::anyAboveLocked(const std::string* only, std::size_t size) const {
  if (only) {
    auto it = subscribers_.find(*only);
    return it != subscribers_.end() && it->second->queue.size() > size;
  }
  for (const auto& entry : subscribers_)
    if (entry.second->queue.size() > size) return true;
  return false;
}

bool ZRDeliveryLine::waitForRoomLocked(std::unique_lock<std::mutex>& lock, const std::string* only,
                                       const std::atomic<bool>* stop) {
  if (options_.policy == ZRDeliveryPolicy::Lossless && anyFullLocked(only)) {
    ++waiting_;
    settled_.notify_all();  // for waitUntilProducerWaits
    room_.wait(lock, [&] { return (stop && *stop) || !anyAboveLocked(only, options_.resumeAt); });
    --waiting_;
  }
  return !(stop && *stop);
}

void ZRDeliveryLine::queueLocked(const SubscriberPtr& sub, Entry entry,
                                 std::vector<std::string>& warnings,
                                 std::vector<SubscriberPtr>& toPump) {
  if (options_.policy == ZRDeliveryPolicy::DropOldest && !entry.keep &&
      sub->queue.size() >= options_.capacity) {
    // The oldest call that may go; calls of a lossless delivery stay, and upstream bounds them.
    auto oldest =
        std::find_if(sub->queue.begin(), sub->queue.end(), [](const Entry& e) { return !e.keep; });
    if (oldest != sub->queue.end()) {
      if (options_.onDrop) drops_.emplace_back(sub->name, std::move(oldest->call));
      sub->queue.erase(oldest);
      const std::int64_t dropped = ++sub->counts->dropped;
      std::int64_t heldBack = 0;
      if (sub->dropWarnings.allow(heldBack) && options_.texts.dropped)
        warnings.push_back(options_.texts.dropped(sub->name, dropped, heldBack));
    }
  }
  sub->queue.push_back(std::move(entry));
  sub->counts->mostQueued =
      std::max(sub->counts->mostQueued, static_cast<std::int64_t>(sub->queue.size()));
  if (sub->remote()) {
    if (!sub->pumping && !sub->pumpPosted && sub->mayPump(options_)) {
      if (sub->post)
        postPumpLocked(sub);
      else
        toPump.push_back(sub);
    }
  } else if (!sub->scheduled && sub->underWay < options_.localWindow) {
    scheduleLocked(sub, warnings);
  }
}

bool ZRDeliveryLine::scheduleLocked(const SubscriberPtr& sub, std::vector<std::string>& warnings) {
  sub->scheduled = true;
  try {
    std::weak_ptr<ZRDeliveryLine> self = shared_from_this();
    sub->post([self, sub] {
      if (auto line = self.lock()) line->drain(sub);
    });
    return true;
  } catch (const ZRError& e) {
    sub->scheduled = false;
    bury(sub->queue);
    std::int64_t heldBack = 0;
    if (sub->dropWarnings.allow(heldBack) && options_.texts.refused)
      warnings.push_back(options_.texts.refused(sub->name, e.what(), heldBack));
    if (options_.removeWhenRefused) {
      auto it = subscribers_.find(sub->name);
      if (it != subscribers_.end() && it->second == sub) retireLocked(it);
    }
    room_.notify_all();
    settled_.notify_all();
    return false;
  }
}

void ZRDeliveryLine::retireLocked(SubscriberMap::iterator it) {
  it->second->active = false;
  bury(it->second->queue);
  subscribers_.erase(it);
}

void ZRDeliveryLine::reportDrops(std::vector<std::pair<std::string, ZRDelivery>>& drops) const {
  for (const auto& [name, call] : drops) options_.onDrop(name, call);
  drops.clear();
}

void ZRDeliveryLine::bury(std::deque<Entry>& queue) {
  for (Entry& e : queue) graveyard_.push_back(std::move(e));
  queue.clear();
}

bool ZRDeliveryLine::idleLocked() const {
  if (!current_.empty()) return false;
  for (const auto& entry : subscribers_)
    if (!entry.second->queue.empty() || entry.second->underWay > 0) return false;
  return true;
}

}  // namespace detail
}  // namespace ZR
