#pragma once

// What a delivery sets off, and when it is over: the platform's way to pace a lossless pipeline
// (a file run) from its last subscriber back to its source without blocking any pool thread, and
// to answer a call only once the one-way messages it sent have been taken. Not installed.
//
// A delivery is an incoming one-way message or call, or an item a delivery line hands to a local
// subscriber. While it runs, it is the current delivery of its thread. What it sends on (a
// one-way message to another host, an item queued in a line) holds its completion until that is
// over; the delivery is over when it has returned and everything holding its completion is over.
// A lossless delivery's items are never dropped, and its messages say so to their receivers,
// whose credits then wait for what those messages set off in turn.

#include <functional>
#include <memory>

namespace ZR {
namespace detail {

/// Runs `done` when the last reference goes (on that thread). Hold it by ZRCompletionToken.
class ZRCompletion {
 public:
  explicit ZRCompletion(std::function<void()> done) : done_(std::move(done)) {}
  ~ZRCompletion();
  ZRCompletion(const ZRCompletion&) = delete;
  ZRCompletion& operator=(const ZRCompletion&) = delete;

 private:
  std::function<void()> done_;
};
using ZRCompletionToken = std::shared_ptr<ZRCompletion>;

struct ZRDeliveryContext {
  /// Nothing this delivery sets off may be dropped.
  bool lossless = false;
  /// Null when nothing waits for what this delivery sends on.
  ZRCompletionToken completion;

  /// The delivery running on this thread; null outside of any.
  static const ZRDeliveryContext* current();
};

/// Makes a delivery the current one of this thread for the scope's life (scopes nest).
class ZRDeliveryScope {
 public:
  explicit ZRDeliveryScope(ZRDeliveryContext context);
  ~ZRDeliveryScope();
  ZRDeliveryScope(const ZRDeliveryScope&) = delete;
  ZRDeliveryScope& operator=(const ZRDeliveryScope&) = delete;

 private:
  ZRDeliveryContext context_;
  const ZRDeliveryContext* previous_;
};

/// What a one-way message sent now must hold until it is over: the current delivery's
/// completion, if something waits for it.
ZRCompletionToken completionForMessage();
/// What an item queued in a line now must hold until it is delivered: the current delivery's
/// completion if that delivery is lossless (a line item of a lossy delivery paces nothing).
ZRCompletionToken completionForItem();
/// True when the current delivery is lossless.
bool currentDeliveryIsLossless();

}  // namespace detail
}  // namespace ZR
