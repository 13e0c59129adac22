#pragma once

// The delivery line: how a producer hands work items to named subscribers without waiting for
// them one by one. Shared by the audio device (buffers) and the memory service (event callbacks),
// and meant for remote delivery too; it knows nothing of what an item is.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <exception>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <zrerror/zrerror.h>

namespace ZR {
namespace detail {

/// What a full subscriber queue does to its producer.
enum class ZRDeliveryPolicy {
  Lossless,    ///< the producer waits for room: files, host-fed streams; nothing is lost
  DropOldest,  ///< the producer never waits: the oldest pending item goes (live sources, events)
};

/// Lets a repeated warning out at most once per interval and counts the ones held back. Not
/// thread-safe: each is guarded by its owner's lock. The clock is injectable for tests.
class ZRWarningLimiter {
 public:
  using Clock = std::function<std::chrono::steady_clock::time_point()>;
  explicit ZRWarningLimiter(std::chrono::steady_clock::duration interval = std::chrono::seconds(1),
                            Clock clock = Clock());
  /// True when a warning may go out now; `heldBack` is then how many were held back since the
  /// last one that went out.
  bool allow(std::int64_t& heldBack);

 private:
  std::chrono::steady_clock::duration interval_;
  Clock clock_;
  bool used_ = false;
  std::chrono::steady_clock::time_point last_;
  std::int64_t held_ = 0;
};

/// One subscriber's accounting; kept by name after it leaves, so that a subscriber that comes
/// back continues its counts.
struct ZRDeliveryCounts {
  std::int64_t delivered = 0;   ///< items its sink took without throwing
  std::int64_t dropped = 0;     ///< items dropped because its queue was full
  std::int64_t failed = 0;      ///< items whose sink threw (never counted as delivered)
  std::int64_t mostQueued = 0;  ///< the most items that ever waited for it at once
};

/// Logs one warning of a delivery line (outside every lock of the line).
void zrDeliveryWarn(const std::string& category, const std::string& function,
                    const std::string& message);

/// A bounded queue per subscriber, drained in order by one task at a time on that subscriber's
/// executor (a ZRStrand of the broker's pool), with an explicit policy for a full queue,
/// rate-limited warnings, per-subscriber counts and an idle notification.
///
/// Concurrency: every method may be called from any thread. publish/push never call a sink
/// themselves; sinks run without any lock of the line held, so a sink may call back into the
/// line (remove itself, publish). Blocking: publish/push wait only under the Lossless policy,
/// until the fullest target queue is down to `resumeAt` or the subscriber leaves or `stop` is
/// set and wake() called; waitUntilIdle waits for every queue to empty and every sink to return;
/// remove/discard with `waitForCurrent` wait for a matching item running on another thread.
template <class Item>
class ZRDeliveryLine : public std::enable_shared_from_this<ZRDeliveryLine<Item>> {
 public:
  using Sink = std::function<void(Item&)>;                  // throws on failure
  using Post = std::function<void(std::function<void()>)>;  // throws ZRError when refused
  using Gone = std::function<bool()>;                       // after a failure: leave for good?
  using Match = std::function<bool(const Item&)>;

  /// The texts of the line's warnings, which belong to its owner.
  struct Texts {
    std::function<std::string(const std::string& subscriber, std::int64_t dropped,
                              std::int64_t heldBack)>
        dropped;
    std::function<std::string(const std::string& subscriber, const Item& item,
                              const std::string& failure, std::int64_t heldBack)>
        failed;
    std::function<std::string(const std::string& subscriber)> gone;
    std::function<std::string(const std::string& subscriber, const std::string& why,
                              std::int64_t heldBack)>
        refused;
  };

  struct Options {
    ZRDeliveryPolicy policy = ZRDeliveryPolicy::Lossless;
    std::size_t capacity = 32;  ///< items that may wait for one subscriber (at least 1)
    /// Lossless: a waiting producer goes on once the fullest queue is down to this, so that it
    /// wakes once per half queue rather than once per item.
    std::size_t resumeAt = 16;
    int batch = 1;  ///< items one task delivers before it lets other work onto the executor
    /// Refusal by the executor (the broker is shut down): false keeps the subscriber, dropping
    /// only what it refused.
    bool removeWhenRefused = true;
    std::string category;                     ///< log category of the warnings
    std::string publishFunction = "publish";  ///< function named by overflow/refusal warnings
    std::string deliverFunction = "deliver";  ///< function named by failure warnings
    Texts texts;
    ZRWarningLimiter::Clock clock;  ///< empty: the steady clock
  };

  explicit ZRDeliveryLine(Options options) : options_(std::move(options)) {
    options_.capacity = std::max<std::size_t>(1, options_.capacity);
    options_.resumeAt = std::min(options_.resumeAt, options_.capacity - 1);
    options_.batch = std::max(1, options_.batch);
  }
  ZRDeliveryLine(const ZRDeliveryLine&) = delete;
  ZRDeliveryLine& operator=(const ZRDeliveryLine&) = delete;

  const Options& options() const { return options_; }

  /// Adds a subscriber. False when one of that name is there already (it is kept as it is, with
  /// its queue and counts) or the line is closed.
  bool add(const std::string& name, Post post, Sink sink, Gone gone = Gone()) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (closed_ || subscribers_.count(name)) return false;
    auto sub = std::make_shared<Subscriber>(options_);
    sub->name = name;
    sub->post = std::move(post);
    sub->sink = std::move(sink);
    sub->gone = std::move(gone);
    sub->counts = &counts_[name];
    subscribers_[name] = std::move(sub);
    return true;
  }

  /// Removes a subscriber and discards its pending items; a producer waiting for it goes on.
  /// With `waitForCurrent`, also waits for its item running on another thread, if any, so that
  /// nothing queued before reaches it afterwards. False when there was no such subscriber.
  bool remove(const std::string& name, bool waitForCurrent = false) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      auto it = subscribers_.find(name);
      if (it == subscribers_.end()) return false;
      retireLocked(it);
    }
    room_.notify_all();
    settled_.notify_all();
    if (waitForCurrent) awaitCurrent(name, Match());
    return true;
  }

  /// Discards the pending items of `name` that `which` matches, and, with `waitForCurrent`, waits
  /// for a matching item of `name` running on another thread. Returns how many were discarded.
  std::size_t discard(const std::string& name, const Match& which, bool waitForCurrent = false) {
    std::size_t n = 0;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      auto it = subscribers_.find(name);
      if (it != subscribers_.end()) {
        std::deque<Item>& q = it->second->queue;
        const std::size_t before = q.size();
        q.erase(std::remove_if(q.begin(), q.end(), which), q.end());
        n = before - q.size();
      }
    }
    if (n) {
      room_.notify_all();
      settled_.notify_all();
    }
    if (waitForCurrent) awaitCurrent(name, which);
    return n;
  }

  /// Waits until no item of `name` that `which` matches (any, when empty) runs in a sink on
  /// another thread. Call it holding no lock that a sink may take.
  void awaitCurrent(const std::string& name, const Match& which) {
    std::unique_lock<std::mutex> lock(mutex_);
    settled_.wait(lock, [&] {
      for (const Current& c : current_)
        if (c.name == name && c.thread != std::this_thread::get_id() && (!which || which(*c.item)))
          return false;
      return true;
    });
  }

  /// Removes every subscriber; with `forGood`, refuses new ones from now on.
  void clear(bool forGood = false) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      closed_ = closed_ || forGood;
      while (!subscribers_.empty()) retireLocked(subscribers_.begin());
    }
    room_.notify_all();
    settled_.notify_all();
  }

  /// Queues `item` for every subscriber. Lossless: first waits while any queue is full, until
  /// `stop` is set (then queues nothing and returns false). Returns false too when nobody is
  /// subscribed once it is queued. Warnings go to `warnings` when given (the caller logs them
  /// after its own locks), otherwise out at once.
  bool publish(const Item& item, const std::atomic<bool>* stop = nullptr,
               std::vector<std::string>* warnings = nullptr) {
    std::vector<std::string> own;
    std::vector<std::string>& out = warnings ? *warnings : own;
    bool anyone = false;
    {
      std::unique_lock<std::mutex> lock(mutex_);
      if (!waitForRoomLocked(lock, nullptr, stop)) return false;
      std::vector<std::shared_ptr<Subscriber>> targets;
      targets.reserve(subscribers_.size());
      for (auto& entry : subscribers_) targets.push_back(entry.second);
      for (auto& sub : targets) queueLocked(sub, item, out);
      anyone = !subscribers_.empty();
    }
    if (!warnings) emit(own);
    return anyone;
  }

  /// Queues `item` for `name` only (nothing when there is no such subscriber). Same waits and
  /// warnings as publish.
  bool push(const std::string& name, Item item, const std::atomic<bool>* stop = nullptr,
            std::vector<std::string>* warnings = nullptr) {
    std::vector<std::string> own;
    std::vector<std::string>& out = warnings ? *warnings : own;
    bool queued = false;
    {
      std::unique_lock<std::mutex> lock(mutex_);
      if (!waitForRoomLocked(lock, &name, stop)) return false;
      auto it = subscribers_.find(name);
      if (it != subscribers_.end()) {
        std::shared_ptr<Subscriber> sub = it->second;
        queueLocked(sub, std::move(item), out);
        queued = true;
      }
    }
    if (!warnings) emit(own);
    return queued;
  }

  /// Lossless only: queues `item` for every subscriber if every queue has room, otherwise
  /// queues nothing and returns false.
  bool tryPublish(const Item& item) {
    std::vector<std::string> warnings;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (options_.policy == ZRDeliveryPolicy::Lossless && anyFullLocked(nullptr)) return false;
      std::vector<std::shared_ptr<Subscriber>> targets;
      for (auto& entry : subscribers_) targets.push_back(entry.second);
      for (auto& sub : targets) queueLocked(sub, item, warnings);
    }
    emit(warnings);
    return true;
  }

  /// Wakes producers and idle waiters so that they look at their `stop` flags again: set the
  /// flag first.
  void wake() {
    { std::lock_guard<std::mutex> lock(mutex_); }
    room_.notify_all();
    settled_.notify_all();
  }

  /// True when no item waits and no sink runs.
  bool isIdle() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return idleLocked();
  }

  /// Waits until idle, until `stop` is set (and wake() called), or until `timeout` passed (<0:
  /// no limit). True when idle.
  bool waitUntilIdle(std::chrono::milliseconds timeout = std::chrono::milliseconds(-1),
                     const std::atomic<bool>* stop = nullptr) {
    std::unique_lock<std::mutex> lock(mutex_);
    auto done = [&] { return idleLocked() || (stop && *stop); };
    if (timeout.count() < 0)
      settled_.wait(lock, done);
    else
      settled_.wait_for(lock, timeout, done);
    return idleLocked();
  }

  /// Waits until a producer waits for room (Lossless), or until `timeout` passed. For hosts that
  /// want to know their stream is held back by a subscriber.
  bool waitUntilProducerWaits(std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex_);
    return settled_.wait_for(lock, timeout, [&] { return waiting_ > 0; });
  }

  std::vector<std::string> subscribers() const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> names;
    for (const auto& entry : subscribers_) names.push_back(entry.first);
    return names;
  }
  bool has(const std::string& name) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return subscribers_.count(name) != 0;
  }
  /// Counts of `name`; false when it never subscribed.
  bool counts(const std::string& name, ZRDeliveryCounts& out) const {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = counts_.find(name);
    if (it == counts_.end()) return false;
    out = it->second;
    return true;
  }
  /// Items waiting for `name` now (0 for none).
  std::size_t queued(const std::string& name) const {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = subscribers_.find(name);
    return it == subscribers_.end() ? 0 : it->second->queue.size();
  }

 private:
  struct Subscriber {
    explicit Subscriber(const Options& o)
        : dropWarnings(std::chrono::seconds(1), o.clock),
          failureWarnings(std::chrono::seconds(1), o.clock) {}
    std::string name;
    Post post;
    Sink sink;
    Gone gone;
    ZRDeliveryCounts* counts = nullptr;  // in counts_, which never erases
    // Guarded by the line's mutex.
    std::deque<Item> queue;
    bool scheduled = false;  // a task is posted or running
    bool active = true;
    ZRWarningLimiter dropWarnings, failureWarnings;
  };
  struct Current {
    std::string name;
    const Item* item;
    std::thread::id thread;
  };

  void emit(const std::vector<std::string>& warnings) const {
    for (const std::string& w : warnings)
      zrDeliveryWarn(options_.category, options_.publishFunction, w);
  }

  bool anyFullLocked(const std::string* only) const {
    if (only) {
      auto it = subscribers_.find(*only);
      return it != subscribers_.end() && it->second->queue.size() >= options_.capacity;
    }
    for (const auto& entry : subscribers_)
      if (entry.second->queue.size() >= options_.capacity) return true;
    return false;
  }
  bool anyAboveLocked(const std::string* only, std::size_t size) const {
    if (only) {
      auto it = subscribers_.find(*only);
      return it != subscribers_.end() && it->second->queue.size() > size;
    }
    for (const auto& entry : subscribers_)
      if (entry.second->queue.size() > size) return true;
    return false;
  }

  // False when `stop` ended the wait.
  bool waitForRoomLocked(std::unique_lock<std::mutex>& lock, const std::string* only,
                         const std::atomic<bool>* stop) {
    if (options_.policy == ZRDeliveryPolicy::Lossless && anyFullLocked(only)) {
      ++waiting_;
      settled_.notify_all();  // for waitUntilProducerWaits
      room_.wait(lock, [&] { return (stop && *stop) || !anyAboveLocked(only, options_.resumeAt); });
      --waiting_;
    }
    return !(stop && *stop);
  }

  template <class I>
  void queueLocked(const std::shared_ptr<Subscriber>& sub, I&& item,
                   std::vector<std::string>& warnings) {
    if (options_.policy == ZRDeliveryPolicy::DropOldest && sub->queue.size() >= options_.capacity) {
      sub->queue.pop_front();
      const std::int64_t dropped = ++sub->counts->dropped;
      std::int64_t heldBack = 0;
      if (sub->dropWarnings.allow(heldBack) && options_.texts.dropped)
        warnings.push_back(options_.texts.dropped(sub->name, dropped, heldBack));
    }
    sub->queue.push_back(std::forward<I>(item));
    sub->counts->mostQueued =
        std::max(sub->counts->mostQueued, static_cast<std::int64_t>(sub->queue.size()));
    if (!sub->scheduled) scheduleLocked(sub, warnings);
  }

  // False when the executor refused the task.
  bool scheduleLocked(const std::shared_ptr<Subscriber>& sub, std::vector<std::string>& warnings) {
    sub->scheduled = true;
    try {
      std::weak_ptr<ZRDeliveryLine> self = this->shared_from_this();
      sub->post([self, sub] {
        if (auto line = self.lock()) line->drain(sub);
      });
      return true;
    } catch (const ZRError& e) {
      sub->scheduled = false;
      sub->queue.clear();
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

  void retireLocked(typename std::map<std::string, std::shared_ptr<Subscriber>>::iterator it) {
    it->second->active = false;
    it->second->queue.clear();
    subscribers_.erase(it);
  }

  bool idleLocked() const {
    if (!current_.empty()) return false;
    for (const auto& entry : subscribers_)
      if (!entry.second->queue.empty()) return false;
    return true;
  }

  void drain(const std::shared_ptr<Subscriber>& sub) {
    std::vector<std::string> refusal;
    for (int n = 0;; ++n) {
      Item item;
      typename std::list<Current>::iterator current;
      {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!sub->active || sub->queue.empty()) {
          sub->scheduled = false;
          settled_.notify_all();
          return;
        }
        if (n == options_.batch) {
          // Still scheduled: the next task goes on from here.
          if (!scheduleLocked(sub, refusal)) break;
          return;
        }
        item = std::move(sub->queue.front());
        sub->queue.pop_front();
        current =
            current_.insert(current_.end(), Current{sub->name, &item, std::this_thread::get_id()});
        if (waiting_ && sub->queue.size() <= options_.resumeAt) room_.notify_all();
      }
      deliverOne(sub, item, current);
    }
    emit(refusal);
  }

  void deliverOne(const std::shared_ptr<Subscriber>& sub, Item& item,
                  typename std::list<Current>::iterator current) {
    std::string failure;
    try {
      sub->sink(item);
    } catch (const std::exception& e) {
      failure = e.what();
    } catch (...) {
      failure = "unknown exception";
    }
    const bool gone = !failure.empty() && sub->gone && sub->gone();
    std::string warning;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      std::int64_t heldBack = 0;
      if (failure.empty()) {
        ++sub->counts->delivered;
      } else {
        ++sub->counts->failed;
        if (gone) {
          if (options_.texts.gone) warning = options_.texts.gone(sub->name);
          auto it = subscribers_.find(sub->name);
          if (it != subscribers_.end() && it->second == sub) retireLocked(it);
          sub->active = false;
        } else if (sub->failureWarnings.allow(heldBack) && options_.texts.failed) {
          warning = options_.texts.failed(sub->name, item, failure, heldBack);
        }
      }
    }
    // Warned about before the delivery counts as over, so that whoever waits for idle sees it.
    if (!warning.empty()) zrDeliveryWarn(options_.category, options_.deliverFunction, warning);
    {
      std::lock_guard<std::mutex> lock(mutex_);
      // What the item holds goes before anyone is told the delivery is over; under the lock, as
      // awaitCurrent may be looking at it.
      item = Item();
      current_.erase(current);
      if (gone && waiting_) room_.notify_all();  // it may be the one waited for
    }
    settled_.notify_all();
  }

  Options options_;
  mutable std::mutex mutex_;
  std::condition_variable room_;     // producers wait here for room
  std::condition_variable settled_;  // idle waiters and awaitCurrent wait here
  bool closed_ = false;
  int waiting_ = 0;  // producers waiting for room
  std::map<std::string, std::shared_ptr<Subscriber>> subscribers_;
  std::map<std::string, ZRDeliveryCounts> counts_;  // every subscriber that ever was
  std::list<Current> current_;                      // items inside a sink now
};

}  // namespace detail
}  // namespace ZR
