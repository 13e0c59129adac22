#pragma once

// Streams of one-way messages from a module of this host to modules of another host: what the
// audio device uses to send each buffer once per receiving host, paced by that host's credits.
// Not installed.

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <zrvalue/zrvalue.h>

namespace ZR {

class ZRBroker;
class ZRTransport;

namespace detail {

/// One stream to one host. Each send() goes out as one message naming the modules it is for and
/// carrying one or more calls (each an array of arguments); the receiving host makes every call
/// on each of those modules, in order, then grants one credit. At most `window` messages are
/// unanswered at once: send() waits for a credit beyond that.
///
/// Concurrency: every member may be called from any thread; send() is meant for one sender at a
/// time (a delivery line's task). send() and waitUntilDrained() block, without a time limit,
/// until a credit comes, the host is lost, or the stream is closed.
class ZRStreamSender {
 public:
  ZRStreamSender(std::weak_ptr<ZRTransport> transport, std::string endpoint, std::string stream,
                 int window);

  /// Sends `calls` of `method` (each an array of arguments) to `modules`. Throws
  /// ZRError(`modules[0]`, `method`, "module destroyed") once the host is lost, or when the stream
  /// is closed.
  void send(const std::vector<std::string>& modules, const std::string& method,
            std::vector<ZRValue> calls);
  /// Waits until every message sent is answered, the host is lost, the stream is closed, or
  /// `stop` is set (then wake()). True when every message was answered.
  bool waitUntilDrained(const std::atomic<bool>* stop = nullptr);

  void grant(std::uint32_t credits);
  void lose();
  void close();
  void wake();
  bool isLost() const;

  const std::string& endpoint() const { return endpoint_; }
  const std::string& stream() const { return stream_; }

 private:
  const std::weak_ptr<ZRTransport> transport_;
  const std::string endpoint_, stream_;
  const int window_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  int unanswered_ = 0;
  bool lost_ = false, closed_ = false;
};

/// A new stream from this broker to the host at `endpoint`, named after `label`; null for a
/// broker that is not in a network.
std::shared_ptr<ZRStreamSender> openStream(ZRBroker& broker, const std::string& endpoint,
                                           const std::string& label, int window);

}  // namespace detail
}  // namespace ZR
