#pragma once

// The delivery line: how a producer hands calls to named subscribers without waiting for them one
// by one, in process or on other hosts. Shared by the audio device (buffers to "processRemote"),
// the memory service (event callbacks) and proxies sending one way (a remote "raiseEvent").

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <zrcommon/detail/zrdeliverycontext.h>
#include <zrerror/zrerror.h>
#include <zrvalue/zrvalue.h>

namespace ZR {
namespace detail {

/// What a full subscriber queue does to its producer.
enum class ZRDeliveryPolicy {
  Lossless,    ///< the producer waits for room: files, host-fed streams; nothing is lost
  DropOldest,  ///< the producer never waits: the oldest pending call goes (live sources, events)
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
  std::int64_t delivered = 0;   ///< calls that ran (or were taken by the other host) without error
  std::int64_t dropped = 0;     ///< calls dropped because its queue was full
  std::int64_t failed = 0;      ///< calls that failed (never counted as delivered)
  std::int64_t mostQueued = 0;  ///< the most calls that ever waited for it at once
};

/// Logs one warning of a delivery line (outside every lock of the line).
void zrDeliveryWarn(const std::string& category, const std::string& function,
                    const std::string& message);

/// One call on its way: `method` of the subscriber with `args`.
struct ZRDelivery {
  std::string method;
  std::vector<ZRValue> args;
  /// The capture time (monotonic ns) of the sound the call carries or was made from; 0: none.
  std::int64_t captureNs = 0;
};

/// A bounded queue per subscriber with an explicit policy for a full queue, rate-limited
/// warnings, per-subscriber counts and an idle notification. A local subscriber's calls run one
/// task at a time on its executor (a strand of the broker's pool); a remote one's go out in
/// batches, at most `window` of them unanswered, sent from whichever thread finds room (the
/// producer's, or the one that learns a batch was answered), never from a pool task of their own.
///
/// Lossless deliveries: a call queued while a lossless delivery runs on the producer's thread
/// (see zrdeliverycontext.h) is never dropped and never waits for room (what is upstream bounds
/// it), and holds that delivery until it is delivered itself. A call is delivered losslessly (a
/// local subscriber's call runs as a lossless delivery; a remote one's message says so) when it
/// was queued so, or when the line's deliveries are all lossless (Options::losslessDeliveries).
///
/// Concurrency: every method may be called from any thread. publish/push never run a local
/// subscriber's call themselves; calls run without any lock of the line held, so a subscriber may
/// call back into the line (remove itself, publish). Blocking: publish/push wait only under the
/// Lossless policy, until the fullest target queue is down to `resumeAt` or the subscriber
/// leaves or `stop` is set and wake() called; waitUntilIdle waits for every queue to empty and
/// every call to be over; remove/discard with `waitForCurrent` wait for a matching call running
/// on another thread, or unanswered on another host.
class ZRDeliveryLine : public std::enable_shared_from_this<ZRDeliveryLine> {
 public:
  using Call = std::function<void(ZRDelivery&)>;             // runs a local call; throws on failure
  using Done = std::function<void(const ZRError* failure)>;  // a batch is over (null: it ran)
  /// Hands a batch of calls of one method to another host (it may take their arguments); `done`
  /// once they are over there.
  using Send = std::function<void(std::vector<ZRDelivery>& batch, bool lossless, Done done)>;
  using Post = std::function<void(std::function<void()>)>;  // throws ZRError when refused
  using Gone = std::function<bool()>;                       // after a failure: leave for good?
  /// Sees a call's method and its first argument only (the rest may be on its way already).
  using Match = std::function<bool(const ZRDelivery&)>;

  /// The texts of the line's warnings, which belong to its owner.
  struct Texts {
    std::function<std::string(const std::string& subscriber, std::int64_t dropped,
                              std::int64_t heldBack)>
        dropped;
    std::function<std::string(const std::string& subscriber, const ZRDelivery& call,
                              const std::string& failure, std::int64_t heldBack)>
        failed;
    std::function<std::string(const std::string& subscriber)> gone;
    std::function<std::string(const std::string& subscriber, const std::string& why,
                              std::int64_t heldBack)>
        refused;
  };

  struct Options {
    ZRDeliveryPolicy policy = ZRDeliveryPolicy::Lossless;
    std::size_t capacity = 32;  ///< calls that may wait for one subscriber (at least 1)
    /// Lossless: a waiting producer goes on once the fullest queue is down to this, so that it
    /// wakes once per half queue rather than once per call.
    std::size_t resumeAt = 16;
    int batch = 1;  ///< local: calls one task runs before it lets other work onto the executor
    int messageBatch = 1;  ///< remote: calls one message may carry, when more wait
    /// Remote: while a message is unanswered, the next waits until this many calls wait for it
    /// (fewer messages, each carrying more, for a stream that is not waited for call by call).
    /// With none unanswered a call goes at once, so nothing waits for a call that never comes.
    int messageMinimum = 1;
    /// Local: calls one subscriber may have running or waiting for what they set off.
    int localWindow = 8;
    bool losslessDeliveries = false;
    /// Calls queued by any delivery hold it until they are delivered, not only those of lossless
    /// ones: for a proxy's one-way calls, which a call waits for before it answers.
    bool heldByAnyDelivery = false;
    /// Refusal by the executor (the broker is shut down): false keeps the subscriber, dropping
    /// only what it refused.
    bool removeWhenRefused = true;
    std::string category;                     ///< log category of the warnings
    std::string publishFunction = "publish";  ///< function named by overflow/refusal warnings
    std::string deliverFunction = "deliver";  ///< function named by failure warnings
    Texts texts;
    /// Told of each call dropped from a full queue, on the producer's thread, outside the lock.
    std::function<void(const std::string& subscriber, const ZRDelivery& call)> onDrop;
    ZRWarningLimiter::Clock clock;  ///< empty: the steady clock
  };

  explicit ZRDeliveryLine(Options options);
  ~ZRDeliveryLine();
  ZRDeliveryLine(const ZRDeliveryLine&) = delete;
  ZRDeliveryLine& operator=(const ZRDeliveryLine&) = delete;

  const Options& options() const { return options_; }

  /// Adds a local subscriber, whose calls `call` runs on `post`; or a remote one, whose batches
  /// `send` hands over, at most `window` unanswered, from a task on `pump` (the transport's I/O
  /// thread, so that what queues meanwhile goes in the same batch) or, without one, at once on
  /// the producer's thread. False when one of that name is there already (it is kept as it is,
  /// with its queue and counts) or the line is closed.
  bool add(const std::string& name, Post post, Call call, Gone gone = Gone());
  bool addRemote(const std::string& name, Send send, int window, Gone gone = Gone(),
                 Post pump = Post());

  /// Removes a subscriber and discards its pending calls; a producer waiting for it goes on.
  /// With `waitForCurrent`, also waits for its calls under way elsewhere, so that nothing queued
  /// before reaches it afterwards. False when there was no such subscriber.
  bool remove(const std::string& name, bool waitForCurrent = false);
  /// Discards the pending calls of `name` that `which` matches, and, with `waitForCurrent`, waits
  /// for matching calls under way elsewhere. Returns how many were discarded.
  std::size_t discard(const std::string& name, const Match& which, bool waitForCurrent = false);
  /// Waits until no call of `name` that `which` matches (any, when empty) runs on another thread
  /// or waits for its answer from another host. Call it holding no lock that a call may take.
  void awaitCurrent(const std::string& name, const Match& which);
  /// Removes every subscriber; with `forGood`, refuses new ones from now on.
  void clear(bool forGood = false);

  /// Queues `call` for every subscriber. Lossless: first waits while any queue is full, until
  /// `stop` is set (then queues nothing and returns false). Returns false too when nobody is
  /// subscribed once it is queued. Warnings go to `warnings` when given (the caller logs them
  /// after its own locks), otherwise out at once.
  bool publish(ZRDelivery call, const std::atomic<bool>* stop = nullptr,
               std::vector<std::string>* warnings = nullptr);
  /// Queues `call` for `name` only (nothing when there is no such subscriber). Same waits and
  /// warnings as publish.
  bool push(const std::string& name, ZRDelivery call, const std::atomic<bool>* stop = nullptr,
            std::vector<std::string>* warnings = nullptr);

  /// Wakes producers and idle waiters so that they look at their `stop` flags again: set the
  /// flag first.
  void wake();
  /// True when no call waits and none is under way.
  bool isIdle() const;
  /// Waits until idle, until `stop` is set (and wake() called), or until `timeout` passed (<0:
  /// no limit). True when idle.
  bool waitUntilIdle(std::chrono::milliseconds timeout = std::chrono::milliseconds(-1),
                     const std::atomic<bool>* stop = nullptr);
  /// Waits until a producer waits for room (Lossless), or until `timeout` passed. For hosts that
  /// want to know their stream is held back by a subscriber.
  bool waitUntilProducerWaits(std::chrono::milliseconds timeout);

  std::vector<std::string> subscribers() const;
  bool has(const std::string& name) const;
  /// Counts of `name`; false when it never subscribed.
  bool counts(const std::string& name, ZRDeliveryCounts& out) const;
  /// Calls waiting for `name` now (0 for none).
  std::size_t queued(const std::string& name) const;

 private:
  struct Entry;
  struct Subscriber;
  struct Current;
  using SubscriberPtr = std::shared_ptr<Subscriber>;
  using SubscriberMap = std::map<std::string, SubscriberPtr>;

  bool addLocked(const std::string& name, SubscriberPtr sub);
  void emit(const std::vector<std::string>& warnings) const;
  bool anyFullLocked(const std::string* only) const;
  bool anyAboveLocked(const std::string* only, std::size_t size) const;
  bool waitForRoomLocked(std::unique_lock<std::mutex>& lock, const std::string* only,
                         const std::atomic<bool>* stop);
  void queueLocked(const SubscriberPtr& sub, Entry entry, std::vector<std::string>& warnings,
                   std::vector<SubscriberPtr>& toPump);
  bool scheduleLocked(const SubscriberPtr& sub, std::vector<std::string>& warnings);
  void retireLocked(SubscriberMap::iterator it);
  /// Calls leaving a queue may hold other deliveries, whose ends run code: they are released
  /// after the lock, by whoever swaps the graveyard out.
  void bury(std::deque<Entry>& queue);
  /// Tells onDrop of the drops taken out of drops_ under the lock.
  void reportDrops(std::vector<std::pair<std::string, ZRDelivery>>& drops) const;
  bool idleLocked() const;
  void drain(const SubscriberPtr& sub);
  void runLocal(const SubscriberPtr& sub, Entry& entry, std::list<Current>::iterator current);
  void pump(const SubscriberPtr& sub);
  void postPumpLocked(const SubscriberPtr& sub);
  void finished(const SubscriberPtr& sub, std::size_t calls, const ZRDelivery& first,
                const ZRError* failure, bool remote);
  bool losslessFor(const Entry& entry) const;
  ZRCompletionToken holdFor() const;

  Options options_;
  mutable std::mutex mutex_;
  std::condition_variable room_;     // producers wait here for room
  std::condition_variable settled_;  // idle waiters and awaitCurrent wait here
  bool closed_ = false;
  int waiting_ = 0;  // producers waiting for room
  SubscriberMap subscribers_;
  std::map<std::string, ZRDeliveryCounts> counts_;  // every subscriber that ever was
  std::list<Current> current_;                      // calls running here or unanswered there
  std::vector<Entry> graveyard_;
  std::vector<std::pair<std::string, ZRDelivery>> drops_;  // for onDrop, after the lock
};

}  // namespace detail
}  // namespace ZR
