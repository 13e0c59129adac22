// The transport's I/O loop and its public face: one thread owns every socket and waits on all of
// them at once; other threads reach it through a command queue and an eventfd, or, while it
// sleeps, send a call or its answer themselves.

#include "transportimpl.h"

#include <sys/eventfd.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace ZR {

using namespace net;

namespace net {
namespace {
std::int64_t nowNs(clockid_t clock) {
  timespec ts{};
  clock_gettime(clock, &ts);
  return static_cast<std::int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}
}  // namespace

std::uint64_t realtimeOf(std::int64_t monotonicNs) {
  return static_cast<std::uint64_t>(nowNs(CLOCK_REALTIME) - (nowNs(CLOCK_MONOTONIC) - monotonicNs));
}

std::int64_t monotonicOf(std::uint64_t realtimeNs, std::atomic<std::int64_t>& delay) {
  const std::int64_t ago = nowNs(CLOCK_REALTIME) - static_cast<std::int64_t>(realtimeNs);
  if (ago <= 0) return 0;
  delay = ago;
  return nowNs(CLOCK_MONOTONIC) - ago;
}

bool trySend(zmq::socket_t& socket, Frames& frames) {
  for (std::size_t i = 0; i < frames.size(); ++i) {
    auto flags = zmq::send_flags::dontwait;
    if (i + 1 < frames.size()) flags = flags | zmq::send_flags::sndmore;
    if (!socket.send(frames[i], flags)) {
      if (i == 0) return false;
      // ZeroMQ takes the parts of a message all together once it took the first.
      throw ZRError("zrnet", "send", "a message was cut short");
    }
  }
  return true;
}
}  // namespace net

// ---- answers

ZRAnswer::State::~State() {
  if (!given.exchange(true) && deliver) {
    const ZRError dropped("zrnet", "answer", "the host dropped the call without answering it");
    deliver(ZRValue(), &dropped);
  }
}

void ZRAnswer::reply(ZRValue result) const {
  if (state_ && !state_->given.exchange(true)) state_->deliver(std::move(result), nullptr);
}

void ZRAnswer::fail(const ZRError& error) const {
  if (state_ && !state_->given.exchange(true)) state_->deliver(ZRValue(), &error);
}

// ---- the loop

bool ZRTransport::Impl::post(std::function<void()> command) {
  std::lock_guard<std::mutex> lock(mutex);
  if (stopping) return false;
  // A queue that already holds commands has woken the I/O thread, which takes them all at once.
  const bool first = commands.empty();
  commands.push_back(std::move(command));
  if (first) wake();  // under the lock: the I/O thread closes the descriptor under it
  return true;
}

void ZRTransport::Impl::wake() {
  const std::uint64_t one = 1;
  ssize_t n = ::write(wakeFd, &one, sizeof one);
  (void)n;  // an eventfd at its limit is awake anyway
}

void ZRTransport::Impl::start() {
  wakeFd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (wakeFd < 0) throw ZRError("zrnet", "start", "cannot create the I/O thread's wake-up");
  try {
    if (!options.listen.empty()) listen();
  } catch (...) {
    ::close(wakeFd);
    throw;
  }
  io = std::thread([this] { run(); });
}

void ZRTransport::Impl::stop() {
  {
    std::lock_guard<std::mutex> lock(mutex);
    if (!stopping) {
      stopping = true;
      wake();
    }
  }
  std::lock_guard<std::mutex> lock(joinMutex);
  if (io.joinable() && io.get_id() != std::this_thread::get_id()) io.join();
}

void ZRTransport::Impl::rebuildItems() {
  fds.clear();
  polled.clear();
  fds.push_back({wakeFd, POLLIN, 0});
  auto add = [&](zmq::socket_t* socket, Peer* peer) {
    fds.push_back({socket->get(zmq::sockopt::fd), POLLIN, 0});
    polled.push_back({socket, peer});
  };
  if (router) add(router.get(), nullptr);
  if (zap) add(zap.get(), nullptr);
  if (monitor) add(monitor.get(), nullptr);
  for (auto& [endpoint, peer] : peers) add(peer->socket.get(), peer.get());
  itemsStale = false;
}

bool ZRTransport::Impl::askReadable(Polled& p) {
  // Asking takes what the descriptor signalled: it stays quiet until something new happens.
  const int events = p.socket->get(zmq::sockopt::events);
  p.dirty = false;
  // A peer's queue waiting for room is retried on every pass; the listening socket's, on a timer.
  p.readable =
      (events & ZMQ_POLLIN) || (p.peer && !p.peer->outbox.empty() && (events & ZMQ_POLLOUT));
  return p.readable;
}

void ZRTransport::Impl::markUsed() {
  for (Polled& p : polled) {
    if (!p.peer && p.socket != router.get()) continue;
    bool& used = p.peer ? p.peer->used : routerUsed;
    p.dirty = p.dirty || used;
    used = false;
  }
}

void ZRTransport::Impl::afterInline() {
  // The loop sleeps on what it saw before this command: it is woken for what the command added
  // (a socket, a queue left to send, an earlier deadline) or for input a send took the news of.
  bool wakeLoop = itemsStale || loopNeeded;
  loopNeeded = false;
  if (!wakeLoop) {
    markUsed();
    wakeLoop = askDirty();
  }
  if (wakeLoop) wake();
}

bool ZRTransport::Impl::askDirty() {
  bool ready = false;
  for (Polled& p : polled)
    if (p.dirty && askReadable(p)) ready = true;
  return ready;
}

void ZRTransport::Impl::run() {
  std::unique_lock<std::mutex> own(loopMutex);
  ioThread.store(std::this_thread::get_id());
  for (;;) {
    if (itemsStale) rebuildItems();
    const int timeout = askDirty() ? 0 : static_cast<int>(pollTimeout().count());
    wakeAt = Clock::now() + std::chrono::milliseconds(timeout);
    loopNeeded = false;
    own.unlock();
    const int polledCount = ::poll(fds.data(), fds.size(), timeout);
    const int pollError = errno;
    own.lock();
    if (polledCount < 0) {
      if (pollError != EINTR)
        throw ZRError("zrnet", "poll",
                      std::string("waiting on the sockets failed: ") + std::strerror(pollError));
      for (pollfd& f : fds) f.revents = 0;
    }

    std::uint64_t count;
    if (fds[0].revents & POLLIN) (void)!::read(wakeFd, &count, sizeof count);
    std::deque<std::function<void()>> todo;
    bool stopNow;
    {
      std::lock_guard<std::mutex> lock(mutex);
      todo.swap(commands);
      stopNow = stopping;
    }
    for (auto& c : todo) c();
    if (stopNow) break;
    // Commands may have replaced the peers: only the sockets still polled are asked.
    if (!itemsStale)
      for (std::size_t i = 0; i < polled.size(); ++i)
        if (fds[i + 1].revents & POLLIN) askReadable(polled[i]);

    // A socket read until it had nothing more says so itself next time; one that may hold more
    // than a slice took is asked again.
    for (Polled& p : polled) {
      // A peer lost while reading another leaves the map, and the list goes stale.
      if (itemsStale || !p.readable) continue;
      p.readable = false;
      if (p.peer) {
        p.dirty = !receiveFromPeer(*p.peer);
      } else if (p.socket == router.get()) {
        p.dirty = !receiveFromRouter();
      } else {
        p.dirty = true;
        if (p.socket == zap.get())
          authenticate();
        else
          countConnections();
      }
    }
    flush();
    timers();
    if (!itemsStale) markUsed();
  }
  finish();
}

std::chrono::milliseconds ZRTransport::Impl::pollTimeout() const {
  auto timeout = std::max(std::chrono::milliseconds(1), heartbeat() / 5);
  // A caller's queue is tried again soon while it moves, less often once it is stuck.
  for (auto& [identity, remote] : remotes)
    if (!remote.outbox.empty())
      timeout = std::min(timeout, std::chrono::milliseconds(
                                      remote.outbox.stuckSince == Clock::time_point{} ? 2 : 10));
  const auto now = Clock::now();
  for (auto& [e, peer] : peers)
    for (auto& [id, p] : peer->pending)
      if (p.deadline != Clock::time_point::max())
        timeout = std::min(
            timeout,
            std::max(std::chrono::milliseconds(0),
                     std::chrono::duration_cast<std::chrono::milliseconds>(p.deadline - now) +
                         std::chrono::milliseconds(1)));
  return timeout;
}

void ZRTransport::Impl::sendCredits(const std::string* identity) {
  auto it = identity ? credits.lower_bound({*identity, std::string()}) : credits.begin();
  while (it != credits.end() && (!identity || it->first.first == *identity)) {
    Message m;
    m.type = MsgType::Credit;
    m.stream = it->first.second;
    m.credits = it->second.credits;
    m.delay = static_cast<std::uint64_t>(it->second.delay);
    sendToRemote(it->first.first, encode(m), true, true);
    it = credits.erase(it);
  }
}

void ZRTransport::Impl::flush() {
  sendCredits(nullptr);
  for (auto& entry : peers) {  // (clang does not let a lambda capture a structured binding)
    Peer& peer = *entry.second;
    if (peer.outbox.empty()) continue;
    peer.used = true;
    peer.outbox.flush([&](Frames& f) { return trySend(*peer.socket, f); });
  }
  flushRemotes();
}

Frames ZRTransport::Impl::helloMessage() const {
  Message hello;
  hello.type = MsgType::Hello;
  hello.host = options.hostName;
  hello.endpoint = advertised;
  hello.heartbeatMs = static_cast<std::uint32_t>(heartbeat().count());
  return encode(hello);
}

void ZRTransport::Impl::finish() {
  Message bye;
  bye.type = MsgType::Bye;
  for (auto& [endpoint, peer] : peers) {
    Frames f = encode(bye);
    try {
      trySend(*peer->socket, f);
    } catch (const zmq::error_t&) {
    }
    failAll(*peer, kShuttingDown);
    peer->socket->close();
  }
  peers.clear();
  if (router) {
    for (auto& [identity, remote] : remotes) sendToRemote(identity, encode(bye), false, true);
    awaitCallersGone();
    router->close();
    monitor->close();
  }
  if (zap) zap->close();
  // Commands that raced with the stop still hold promises: they fail now.
  std::deque<std::function<void()>> late;
  {
    std::lock_guard<std::mutex> lock(mutex);
    late.swap(commands);
  }
  stopped = true;
  for (auto& c : late) c();
  std::lock_guard<std::mutex> lock(mutex);
  ::close(wakeFd);
  wakeFd = -1;
}

// ---- the public face

ZRTransport::ZRTransport(ZRTransportOptions options, CallHandler handler,
                         ZRTransportExecutors executors)
    : impl_(std::make_shared<Impl>(std::move(options), std::move(handler), std::move(executors))) {
  if (!impl_->executors.post || !impl_->executors.makeSerial)
    throw ZRError("zrnet", "ZRTransport", "an executor and serial executors are required");
  impl_->start();
}

ZRTransport::ZRTransport(ZRTransportOptions options, SyncHandler handler,
                         ZRTransportExecutors executors)
    : ZRTransport(std::move(options), answering(std::move(handler)), std::move(executors)) {}

ZRTransport::~ZRTransport() {
  shutdown();
}

ZRTransport::CallHandler ZRTransport::answering(SyncHandler handler) {
  return [handler = std::move(handler)](const ZRIncomingCall& c, ZRAnswer answer) {
    try {
      answer.reply(handler(c));
    } catch (const ZRError& e) {
      answer.fail(e);
    } catch (const std::exception& e) {
      answer.fail(ZRError(c.module, c.method, e.what()));
    }
  };
}

std::string ZRTransport::endpoint() const {
  return impl_->advertised;
}

std::future<ZRValue> ZRTransport::callAsync(const std::string& endpoint, const std::string& module,
                                            const std::string& method, std::vector<ZRValue> args,
                                            const ZRCallOptions& options) {
  auto promise = std::make_shared<std::promise<ZRValue>>();
  std::future<ZRValue> result = promise->get_future();
  auto m = std::make_shared<Message>();
  m->type = MsgType::Call;
  m->module = module;
  m->method = method;
  m->caller = options.caller;
  m->args = std::move(args);
  Clock::time_point deadline = Clock::time_point::max();
  if (options.deadline.count() > 0) {
    deadline = Clock::now() + options.deadline;
    m->deadlineMs = static_cast<std::uint32_t>(options.deadline.count());
  }
  Impl* impl = impl_.get();
  if (!impl->runInline([&] { impl->startCall(endpoint, std::move(*m), deadline, promise); }) &&
      !impl->post([impl, endpoint, m, deadline, promise] {
        impl->startCall(endpoint, std::move(*m), deadline, promise);
      }))
    promise->set_exception(std::make_exception_ptr(ZRError(module, method, kShuttingDown)));
  return result;
}

ZRValue ZRTransport::call(const std::string& endpoint, const std::string& module,
                          const std::string& method, std::vector<ZRValue> args,
                          const ZRCallOptions& options) {
  return callAsync(endpoint, module, method, std::move(args), options).get();
}

void ZRTransport::send(const std::string& endpoint, const std::string& module,
                       const std::string& method, std::vector<ZRValue> args,
                       const ZRSendOptions& options) {
  auto m = std::make_shared<Message>();
  m->type = MsgType::Data;
  m->stream = options.stream;
  m->seq = options.seq;
  m->lossless = options.lossless;
  m->module = module;
  m->method = method;
  m->caller = options.caller;
  m->captured = options.captureNs ? net::realtimeOf(options.captureNs) : 0;
  m->args = std::move(args);
  Impl* impl = impl_.get();
  // One-way messages wait for the loop even when it is free: it sends many in one pass, where
  // senders each on their own would contend for it message by message.
  if (std::this_thread::get_id() == impl->ioThread.load())
    impl->startSend(endpoint, std::move(*m));
  else
    impl->post([impl, endpoint, m] { impl->startSend(endpoint, std::move(*m)); });
}

bool ZRTransport::runOnIoThread(std::function<void()> task) {
  return impl_->post(std::move(task));
}

void ZRTransport::setServerKey(const std::string& endpoint, const std::string& serverPublicKey) {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->serverKeys[endpoint] = serverPublicKey;
}

void ZRTransport::setPeerLostListener(PeerListener listener) {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->peerLost = std::move(listener);
}

void ZRTransport::setCreditListener(CreditListener listener) {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->creditListener = std::move(listener);
}

void ZRTransport::setStreamErrorListener(StreamErrorListener listener) {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->streamErrorListener = std::move(listener);
}

void ZRTransport::shutdown() {
  impl_->stop();
}

}  // namespace ZR
