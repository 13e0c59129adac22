#include <zrcommon/detail/zrstream.h>

#include <zrerror/zrerror.h>
#include <zrnet/zrtransport.h>

namespace ZR {
namespace detail {

ZRStreamSender::ZRStreamSender(std::weak_ptr<ZRTransport> transport, std::string endpoint,
                               std::string stream, int window)
    : transport_(std::move(transport)),
      endpoint_(std::move(endpoint)),
      stream_(std::move(stream)),
      window_(window < 1 ? 1 : window) {}

void ZRStreamSender::send(const std::vector<std::string>& modules, const std::string& method,
                          std::vector<ZRValue> calls) {
  const std::string module = modules.empty() ? std::string() : modules.front();
  {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return lost_ || closed_ || unanswered_ < window_; });
    if (lost_ || closed_) throw ZRError(module, method, "module destroyed");
    ++unanswered_;
  }
  std::shared_ptr<ZRTransport> transport = transport_.lock();
  if (!transport) {
    lose();
    throw ZRError(module, method, "module destroyed");
  }
  ZRValue names;
  names.arraySetSize(static_cast<int>(modules.size()));
  for (std::size_t i = 0; i < modules.size(); ++i) names[static_cast<int>(i)] = modules[i];
  calls.insert(calls.begin(), std::move(names));
  // An empty module name: the receiving host fans the message out to the named modules.
  transport->send(endpoint_, "", method, std::move(calls), stream_);
}

bool ZRStreamSender::waitUntilDrained(const std::atomic<bool>* stop) {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait(lock, [&] { return lost_ || closed_ || unanswered_ == 0 || (stop && *stop); });
  return unanswered_ == 0;
}

void ZRStreamSender::grant(std::uint32_t credits) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    unanswered_ -= std::min<int>(unanswered_, static_cast<int>(credits));
  }
  changed_.notify_all();
}

void ZRStreamSender::lose() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    lost_ = true;
  }
  changed_.notify_all();
}

void ZRStreamSender::close() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    closed_ = true;
  }
  changed_.notify_all();
}

void ZRStreamSender::wake() {
  { std::lock_guard<std::mutex> lock(mutex_); }
  changed_.notify_all();
}

bool ZRStreamSender::isLost() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return lost_;
}

}  // namespace detail
}  // namespace ZR
