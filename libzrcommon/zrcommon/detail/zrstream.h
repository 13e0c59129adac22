#pragma once

// Streams of one-way messages from this host to modules of another host: the audio device's
// buffers, the memory service's event callbacks, and a proxy's one-way calls (a remote
// "raiseEvent"). Not installed.

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <zrcommon/detail/zrdeliveryline.h>
#include <zrerror/zrerror.h>
#include <zrvalue/zrvalue.h>

namespace ZR {

class ZRBroker;
class ZRTransport;

namespace detail {

/// One stream to one host. send() hands a message to the transport at once: how many go
/// unanswered is the caller's business (a delivery line's window). Each message's `done` runs
/// once: when the receiver's credit for it comes (with the stream error it sent first, if any),
/// or with "module destroyed" when the host is lost or the stream closed.
///
/// Concurrency: every member may be called from any thread; send() is meant for one sender at a
/// time (the messages of a stream go out in the order of the calls). `done` runs on the
/// transport's I/O thread for answers, on the thread of lose() or close() otherwise, with no lock
/// of the stream held; it must not block.
class ZRStreamSender {
 public:
  using Done = std::function<void(const ZRError* failure)>;

  ZRStreamSender(std::weak_ptr<ZRTransport> transport, std::string endpoint, std::string stream);
  ~ZRStreamSender();
  ZRStreamSender(const ZRStreamSender&) = delete;
  ZRStreamSender& operator=(const ZRStreamSender&) = delete;

  /// Sends `args` as a call of `method` on `module` of the other host (an empty module fans the
  /// message out: args[0] names the modules, each further argument is one call's arguments).
  /// `captureNs`: the capture time (monotonic) of the sound it carries or was made from; 0: none.
  void send(const std::string& module, const std::string& method, std::vector<ZRValue> args,
            bool lossless, Done done, std::int64_t captureNs = 0);
  /// Sends one message of `calls` (all of one method) to each of `modules`, taking their
  /// arguments; its capture time is the first call's.
  void sendCalls(const std::vector<std::string>& modules, std::vector<ZRDelivery>& calls,
                 bool lossless, Done done);
  /// Told, on the transport's I/O thread, how late after capture the messages that carried a
  /// capture time started on the other host (the longest of those one credit answers). It must
  /// return at once. Set it before the first send.
  void setDelayListener(std::function<void(std::int64_t ns)> listener);

  /// Runs `task` on the transport's I/O thread, after what it is doing now: where a stream's
  /// user sends what queued meanwhile, in one message. False when the transport is gone.
  bool post(std::function<void()> task);
  /// post() as an executor, which throws ZRError when refused: a delivery line's pump.
  std::function<void(std::function<void()>)> ioExecutor();

  /// From the transport: the receiver answered `credits` more messages, in order; those that
  /// carried a capture time started at most `delayNs` after it (0: none carried one).
  void grant(std::uint32_t credits, std::int64_t delayNs = 0);
  /// From the transport: message `seq` failed with `error` (its credit follows).
  void error(std::uint64_t seq, const ZRError& error);
  /// The host died: what waits fails, and later sends fail at once.
  void lose();
  /// Fails what waits; later sends fail at once.
  void close();
  bool isLost() const;

  const std::string& endpoint() const { return endpoint_; }
  const std::string& stream() const { return stream_; }

 private:
  struct Unanswered {
    std::uint64_t seq;
    std::string module, method;
    Done done;
    std::optional<ZRError> error;
  };
  void failAll(bool lost);

  const std::weak_ptr<ZRTransport> transport_;
  const std::string endpoint_, stream_;
  mutable std::mutex mutex_;
  std::deque<Unanswered> unanswered_;
  std::uint64_t nextSeq_ = 1;
  bool lost_ = false, closed_ = false;
  std::function<void(std::int64_t)> delayListener_;
};

/// A new stream from this broker to the host at `endpoint`, named after `label`, told of its
/// credits, errors and host's death; null for a broker that is not in a network.
std::shared_ptr<ZRStreamSender> openStream(ZRBroker& broker, const std::string& endpoint,
                                           const std::string& label);

}  // namespace detail
}  // namespace ZR
