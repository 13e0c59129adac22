// How queued calls reach their subscribers: local ones run on their strand, one task at a time
// within their window; remote ones leave in batches within theirs; and what happens when a call
// is over (counts, warnings, a subscriber that is gone, room for producers and waiters).

#include "zrdeliverylineimpl.h"

#include <zrcommon/detail/zrlatencywindow.h>

namespace ZR {
namespace detail {

void ZRDeliveryLine::drain(const SubscriberPtr& sub) {
  std::vector<std::string> refusal;
  for (int n = 0;; ++n) {
    Entry entry;
    std::list<Current>::iterator current;
    std::vector<Entry> dead;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      dead.swap(graveyard_);
      if (!sub->active || sub->queue.empty() || sub->underWay >= options_.localWindow) {
        // Parked when its window is full: the call that ends schedules it again.
        sub->scheduled = false;
        settled_.notify_all();
        return;
      }
      if (n == options_.batch) {
        // Still scheduled: the next task goes on from here.
        if (!scheduleLocked(sub, refusal)) break;
        return;
      }
      entry = std::move(sub->queue.front());
      sub->queue.pop_front();
      ++sub->underWay;
      current = current_.insert(current_.end(), Current{sub->name, {}, std::this_thread::get_id()});
      if (waiting_ && sub->queue.size() <= options_.resumeAt) room_.notify_all();
    }
    runLocal(sub, entry, current);
  }
  emit(refusal);
}

void ZRDeliveryLine::runLocal(const SubscriberPtr& sub, Entry& entry,
                              std::list<Current>::iterator current) {
  auto call = std::make_shared<ZRDelivery>(std::move(entry.call));
  {
    std::lock_guard<std::mutex> lock(mutex_);
    current->calls.push_back(call.get());
  }
  auto failure = std::make_shared<std::string>();
  std::weak_ptr<ZRDeliveryLine> weak = shared_from_this();
  // Over once the call has returned and what it sent on is over too; the delivery that queued
  // it is let go only then.
  auto completion = std::make_shared<ZRCompletion>(
      [weak, sub, call, failure, holds = std::move(entry.holds)]() mutable {
        if (auto line = weak.lock()) {
          const ZRError error(sub->name, call->method, *failure);
          line->finished(sub, 1, *call, failure->empty() ? nullptr : &error, false);
        }
        holds.reset();
      });
  {
    ZRDeliveryScope scope(ZRDeliveryContext{losslessFor(entry), std::move(completion)});
    const detail::ZRCaptureScope capture(call->captureNs);
    try {
      sub->call(*call);
    } catch (const std::exception& e) {
      *failure = e.what();
    } catch (...) {
      *failure = "unknown exception";
    }
  }
  {
    std::lock_guard<std::mutex> lock(mutex_);
    current_.erase(current);
  }
  settled_.notify_all();
}

void ZRDeliveryLine::postPumpLocked(const SubscriberPtr& sub) {
  sub->pumpPosted = true;
  // Held by the task: what a proxy sends one way goes even when the proxy is gone meanwhile.
  std::shared_ptr<ZRDeliveryLine> self = shared_from_this();
  try {
    sub->post([self, sub] { self->pump(sub); });
  } catch (const std::exception&) {
    // Refused (the transport is going away): what queues stays until the subscriber leaves.
    sub->pumpPosted = false;
  }
}

void ZRDeliveryLine::pump(const SubscriberPtr& sub) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    sub->pumpPosted = false;
    if (sub->pumping) return;  // that thread looks at the queue again before it stops
    sub->pumping = true;
  }
  for (;;) {
    struct Batch {
      std::vector<ZRDelivery> seen;  // method and first argument of each, for waiters
      std::vector<ZRCompletionToken> holds;
    };
    auto batch = std::make_shared<Batch>();
    std::vector<ZRDelivery> calls;
    std::list<Current>::iterator current;
    bool lossless = false;
    std::string method;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (!sub->active || sub->queue.empty() || !sub->mayPump(options_)) {
        sub->pumping = false;
        return;
      }
      // One method per message; as many calls as wait, up to the batch.
      method = sub->queue.front().call.method;
      while (!sub->queue.empty() &&
             calls.size() < static_cast<std::size_t>(options_.messageBatch) &&
             sub->queue.front().call.method == method) {
        Entry& e = sub->queue.front();
        lossless = lossless || losslessFor(e);
        ZRDelivery seen{e.call.method, {}};
        if (!e.call.args.empty()) seen.args.push_back(e.call.args.front());
        batch->seen.push_back(std::move(seen));
        calls.push_back(std::move(e.call));
        if (e.holds) batch->holds.push_back(std::move(e.holds));
        sub->queue.pop_front();
      }
      ++sub->underWay;
      Current c{sub->name, {}, std::thread::id()};
      for (const ZRDelivery& d : batch->seen) c.calls.push_back(&d);
      current = current_.insert(current_.end(), std::move(c));
      if (waiting_ && sub->queue.size() <= options_.resumeAt) room_.notify_all();
    }
    // Held until the other host answers, so that the calls still queued behind go out then.
    std::shared_ptr<ZRDeliveryLine> line = shared_from_this();
    auto once = std::make_shared<std::atomic<bool>>(false);
    Done done = [line, sub, batch, current, once](const ZRError* failure) {
      if (once->exchange(true)) return;
      {
        std::lock_guard<std::mutex> lock(line->mutex_);
        line->current_.erase(current);
      }
      line->finished(sub, batch->seen.size(), batch->seen.front(), failure, true);
      // The deliveries that queued these calls go on now, whoever still holds a copy of this.
      std::vector<ZRCompletionToken> holds;
      holds.swap(batch->holds);
    };
    try {
      sub->send(calls, lossless, done);
    } catch (const std::exception& e) {
      const ZRError error(sub->name, method, e.what());
      done(&error);
    }
  }
}

void ZRDeliveryLine::finished(const SubscriberPtr& sub, std::size_t calls, const ZRDelivery& first,
                              const ZRError* failure, bool remote) {
  const bool gone = failure && sub->gone && sub->gone();
  std::string warning;
  std::vector<std::string> refusal;
  std::vector<Entry> dead;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    --sub->underWay;
    std::int64_t heldBack = 0;
    if (!failure) {
      sub->counts->delivered += static_cast<std::int64_t>(calls);
    } else {
      sub->counts->failed += static_cast<std::int64_t>(calls);
      if (gone) {
        if (options_.texts.gone) warning = options_.texts.gone(sub->name);
        auto it = subscribers_.find(sub->name);
        if (it != subscribers_.end() && it->second == sub) retireLocked(it);
        sub->active = false;
      } else if (sub->failureWarnings.allow(heldBack) && options_.texts.failed) {
        warning = options_.texts.failed(sub->name, first, failure->getDescription(), heldBack);
      }
    }
    // A drain parked on a full window goes on.
    if (!remote && sub->active && !sub->scheduled && !sub->queue.empty())
      scheduleLocked(sub, refusal);
    if (gone && waiting_) room_.notify_all();  // it may be the one waited for
    dead.swap(graveyard_);
  }
  // Warned about before anyone learns the call is over, so that whoever waits for idle sees it.
  if (!warning.empty()) zrDeliveryWarn(options_.category, options_.deliverFunction, warning);
  emit(refusal);
  settled_.notify_all();
  dead.clear();
  if (remote) pump(sub);
}

}  // namespace detail
}  // namespace ZR
