// A stream of one-way messages to another host: each message waits for its credit, which says
// the receiver is done with it (and with what it set off, when it was lossless).

#include <zrcommon/detail/zrstream.h>

#include <zrerror/zrerrortexts.h>
#include <zrnet/zrtransport.h>

namespace ZR {
namespace detail {

ZRStreamSender::ZRStreamSender(std::weak_ptr<ZRTransport> transport, std::string endpoint,
                               std::string stream)
    : transport_(std::move(transport)),
      endpoint_(std::move(endpoint)),
      stream_(std::move(stream)) {}

ZRStreamSender::~ZRStreamSender() {
  failAll(false);
}

void ZRStreamSender::send(const std::string& module, const std::string& method,
                          std::vector<ZRValue> args, bool lossless, Done done,
                          std::int64_t captureNs) {
  std::shared_ptr<ZRTransport> transport = transport_.lock();
  {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!lost_ && !closed_ && transport) {
      ZRSendOptions o;
      o.stream = stream_;
      o.seq = nextSeq_++;
      o.lossless = lossless;
      o.captureNs = captureNs;
      unanswered_.push_back(Unanswered{o.seq, module, method, std::move(done), std::nullopt});
      // Under the lock: the messages of a stream leave in the order of their numbers.
      transport->send(endpoint_, module, method, std::move(args), o);
      return;
    }
    if (!transport) lost_ = true;
  }
  const ZRError gone(module, method, kModuleDestroyed);
  if (done) done(&gone);
}

void ZRStreamSender::sendCalls(const std::vector<std::string>& modules,
                               std::vector<ZRDelivery>& calls, bool lossless, Done done) {
  std::vector<ZRValue> args;
  args.reserve(calls.size() + 1);
  args.emplace_back(modules);
  for (ZRDelivery& call : calls) {
    ZRValue one;
    one.arrayReserve(static_cast<int>(call.args.size()));
    for (ZRValue& a : call.args) one.arrayPush(std::move(a));
    args.push_back(std::move(one));
  }
  const std::string method = calls.empty() ? std::string() : calls.front().method;
  const std::int64_t captureNs = calls.empty() ? 0 : calls.front().captureNs;
  send("", method, std::move(args), lossless, std::move(done), captureNs);
}

void ZRStreamSender::setDelayListener(std::function<void(std::int64_t ns)> listener) {
  std::lock_guard<std::mutex> lock(mutex_);
  delayListener_ = std::move(listener);
}

bool ZRStreamSender::post(std::function<void()> task) {
  std::shared_ptr<ZRTransport> transport = transport_.lock();
  return transport && transport->runOnIoThread(std::move(task));
}

std::function<void(std::function<void()>)> ZRStreamSender::ioExecutor() {
  std::weak_ptr<ZRTransport> weak = transport_;
  return [weak, stream = stream_](std::function<void()> task) {
    std::shared_ptr<ZRTransport> transport = weak.lock();
    if (!transport || !transport->runOnIoThread(std::move(task)))
      throw ZRError(stream, "send", "the transport is shut down");
  };
}

void ZRStreamSender::grant(std::uint32_t credits, std::int64_t delayNs) {
  std::vector<Unanswered> answered;
  std::function<void(std::int64_t)> delayListener;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (delayNs > 0) delayListener = delayListener_;
    while (credits-- > 0 && !unanswered_.empty()) {
      answered.push_back(std::move(unanswered_.front()));
      unanswered_.pop_front();
    }
  }
  if (delayListener) delayListener(delayNs);
  for (Unanswered& u : answered)
    if (u.done) u.done(u.error ? &*u.error : nullptr);
}

void ZRStreamSender::error(std::uint64_t seq, const ZRError& error) {
  std::lock_guard<std::mutex> lock(mutex_);
  for (Unanswered& u : unanswered_) {
    if (u.seq != seq) continue;
    u.error = error;
    return;
  }
}

void ZRStreamSender::lose() {
  failAll(true);
}

void ZRStreamSender::close() {
  failAll(false);
}

void ZRStreamSender::failAll(bool lost) {
  std::deque<Unanswered> failed;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (lost)
      lost_ = true;
    else
      closed_ = true;
    failed.swap(unanswered_);
  }
  for (Unanswered& u : failed) {
    const ZRError gone(u.module.empty() ? stream_ : u.module, u.method, kModuleDestroyed);
    if (u.done) u.done(&gone);
  }
}

bool ZRStreamSender::isLost() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return lost_;
}

}  // namespace detail
}  // namespace ZR
