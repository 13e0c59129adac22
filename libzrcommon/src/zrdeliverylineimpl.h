#pragma once

// What the delivery line keeps per queued call, per call on its way and per subscriber; shared
// by its queueing (zrdeliveryline.cpp) and its delivering (zrdeliveryrun.cpp). Internal.

#include <zrcommon/detail/zrdeliveryline.h>

namespace ZR {
namespace detail {

struct ZRDeliveryLine::Entry {
  ZRDelivery call;
  bool keep = false;        // queued by a lossless delivery: never dropped, never waits
  ZRCompletionToken holds;  // that delivery, until this call is over
};

struct ZRDeliveryLine::Current {
  std::string name;
  std::vector<const ZRDelivery*> calls;
  std::thread::id thread;  // running here; none: unanswered on another host
};

struct ZRDeliveryLine::Subscriber {
  explicit Subscriber(const Options& o)
      : dropWarnings(std::chrono::seconds(1), o.clock),
        failureWarnings(std::chrono::seconds(1), o.clock) {}
  std::string name;
  Post post;
  Call call;
  Send send;
  int window = 1;
  Gone gone;
  ZRDeliveryCounts* counts = nullptr;  // in counts_, which never erases
  bool remote() const { return static_cast<bool>(send); }
  /// Remote: whether a message may go now (under the line's mutex).
  bool mayPump(const Options& o) const {
    return underWay < window &&
           (underWay == 0 || queue.size() >= static_cast<std::size_t>(o.messageMinimum));
  }
  // Guarded by the line's mutex.
  std::deque<Entry> queue;
  int underWay = 0;         // local: calls not over; remote: batches unanswered
  bool scheduled = false;   // local: a drain task is posted or running
  bool pumping = false;     // remote: a thread is sending its batches
  bool pumpPosted = false;  // remote: a pump task waits on its Post
  bool active = true;
  ZRWarningLimiter dropWarnings, failureWarnings;
};

}  // namespace detail
}  // namespace ZR
