// Calls and one-way messages coming in on the listening socket: each runs on the serial executor
// of its (connection, module) lane, is answered when the host says so, and a stream's credits
// (and stream errors) go back in the order its messages came.

#include "transportimpl.h"

#include <sys/socket.h>

#include <cerrno>

namespace ZR {

using namespace net;

namespace {
// The address at the other end of a connection, as raw bytes; empty when there is none.
std::string peerAddress(int fd) {
  if (fd < 0) return {};
  sockaddr_storage address{};
  socklen_t size = sizeof address;
  if (::getpeername(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0) return {};
  return std::string(reinterpret_cast<const char*>(&address), size);
}
}  // namespace

bool ZRTransport::Impl::sendRouted(Frames& frames) {
  routerUsed = true;
  try {
    return trySend(*router, frames);
  } catch (const zmq::error_t& e) {
    if (e.num() != EHOSTUNREACH) throw;
    return true;  // that caller is gone: nobody to tell
  }
}

void ZRTransport::Impl::sendToRemote(const std::string& identity, Frames frames, bool keep,
                                     bool control) {
  frames.insert(frames.begin(), zmq::message_t(identity.data(), identity.size()));
  auto it = remotes.find(identity);
  if (it == remotes.end()) {  // one we forgot: now or never
    sendRouted(frames);
    return;
  }
  // Each caller has its own queue: one that does not read holds up nobody else, and what keeps
  // it alive does not wait behind its data.
  Outbox& box = it->second.outbox;
  if ((control ? box.control.empty() : box.empty()) && sendRouted(frames)) return;
  if (!keep) return;
  box.push(std::move(frames), control);
  loopNeeded = true;
  if (!it->second.full && box.bytes > outboxLimit()) {
    it->second.full = true;
    ZRNET_LOG(vo::LogLevel_Warning)
        << "caller " << it->second.host << " does not read its replies (" << box.bytes
        << " bytes wait for it): its calls wait until it does, and it is disconnected if it "
           "reads nothing for "
        << std::chrono::duration_cast<std::chrono::milliseconds>(stallTime(heartbeat())).count()
        << " ms";
  }
}

void ZRTransport::Impl::flushRemotes() {
  const auto now = Clock::now();
  for (auto it = remotes.begin(); it != remotes.end();) {
    const std::string identity = it->first;
    Remote& remote = (it++)->second;  // disconnect() erases it
    if (remote.outbox.empty()) continue;
    remote.outbox.flush([&](Frames& f) { return sendRouted(f); });
    if (remote.full && remote.outbox.bytes <= outboxLimit() / 2) {
      remote.full = false;
      ZRNET_LOG(vo::LogLevel_Info) << "caller " << remote.host << " reads its replies again";
    }
    if (remote.full && remote.outbox.stuckSince != Clock::time_point{} &&
        now - remote.outbox.stuckSince > stallTime(heartbeat()))
      disconnect(identity, remote);
  }
}

void ZRTransport::Impl::disconnect(const std::string& identity, Remote& remote) {
  ZRNET_LOG(vo::LogLevel_Warning)
      << "disconnected caller " << remote.host << ": it read nothing of the " << remote.outbox.bytes
      << " bytes waiting for it for "
      << std::chrono::duration_cast<std::chrono::milliseconds>(stallTime(heartbeat())).count()
      << " ms";
  // ZeroMQ has no way to close one connection of a listening socket: its descriptor is shut
  // down, once it is sure to be the same connection, and ZeroMQ then drops its queue itself.
  if (remote.fd >= 0 && peerAddress(remote.fd) == remote.address && !remote.address.empty())
    ::shutdown(remote.fd, SHUT_RDWR);
  forget(identity);
}

bool ZRTransport::Impl::receiveFromRouter() {
  // A slice at a time, so that a flood does not keep liveness and the queues waiting.
  const auto sliceEnd = Clock::now() + heartbeat() / 10;
  while (Clock::now() < sliceEnd) {
    Frames frames;
    if (!zmq::recv_multipart(*router, std::back_inserter(frames), zmq::recv_flags::dontwait))
      return true;
    const std::string identity(static_cast<const char*>(frames[0].data()), frames[0].size());
    frames.erase(frames.begin());
    Remote& remote = remotes[identity];
    const bool isNew = remote.lastReceived == Clock::time_point();
    remote.lastReceived = Clock::now();
    if (isNew && !frames.empty()) {
      remote.lastPing = remote.lastReceived;
      remote.fd = zmq_msg_get(frames[0].handle(), ZMQ_SRCFD);
      remote.address = peerAddress(remote.fd);
      const char* key = curve() ? zmq_msg_gets(frames[0].handle(), "User-Id") : nullptr;
      if (key) remote.key = key;
    }
    const bool saidHello = frames.size() > 0 && frames[0].size() == kHeaderSize &&
                           static_cast<const std::uint8_t*>(frames[0].data())[3] ==
                               static_cast<std::uint8_t>(MsgType::Hello);
    // A large body is decoded on the pool, so that however many values it holds, the I/O
    // thread goes on; what comes after it on that connection follows it there, in order.
    // (Binary frames cost nothing to decode: only the msgpack body counts.)
    if (remote.decoding > 0 || (frames.size() > 2 && frames[2].size() > kDecodeInline)) {
      decodeAside(identity, remote, std::move(frames), saidHello);
      continue;
    }
    try {
      take(identity, remote, decode(frames, options.maxMessageSize));
    } catch (const DecodeError& e) {
      refuse(identity, remote, e, saidHello);
    }
  }
  return false;
}

void ZRTransport::Impl::decodeAside(const std::string& identity, Remote& remote, Frames frames,
                                    bool saidHello) {
  ++remote.decoding;
  auto shared = std::make_shared<Frames>(std::move(frames));
  const std::size_t max = options.maxMessageSize;
  std::weak_ptr<Impl> weak = shared_from_this();
  runInLane(identity + std::string("\0\1decode", 8), [weak, identity, shared, max, saidHello] {
    auto m = std::make_shared<Message>();
    std::shared_ptr<DecodeError> failure;
    try {
      *m = decode(*shared, max);
    } catch (const DecodeError& e) {
      failure = std::make_shared<DecodeError>(e);
    }
    shared->clear();
    if (std::shared_ptr<Impl> self = weak.lock())
      self->post([self, identity, m, failure, saidHello] {
        auto it = self->remotes.find(identity);
        if (it == self->remotes.end()) return;  // forgotten meanwhile
        --it->second.decoding;
        if (failure)
          self->refuse(identity, it->second, *failure, saidHello);
        else
          self->take(identity, it->second, std::move(*m));
      });
  });
}

void ZRTransport::Impl::refuse(const std::string& identity, Remote& remote, const DecodeError& e,
                               bool saidHello) {
  ZRNET_LOG(vo::LogLevel_Warning) << "dropped a malformed message from "
                                  << (remote.host.empty() ? std::string("a new peer") : remote.host)
                                  << ": " << e.getDescription();
  Message error;
  error.type = MsgType::Error;
  error.id = e.callId();
  error.module = e.callId() ? e.callModule() : "zrnet";
  error.method = e.callId() ? e.callMethod() : "hello";
  error.description = e.getDescription();
  if (e.callId() || saidHello) sendToRemote(identity, encode(error));
  if (saidHello) remotes.erase(identity);
}

void ZRTransport::Impl::take(const std::string& identity, Remote& remote, Message m) {
  switch (m.type) {
    case MsgType::Hello:
      remote.host = m.host;
      remote.endpoint = m.endpoint;
      sendToRemote(identity, helloMessage(), true, true);
      break;
    case MsgType::Call:
    case MsgType::Data:
      // A caller that does not read what it asked for gets no more work done (backpressure).
      if (!remote.full) dispatch(identity, remote, std::move(m));
      break;
    case MsgType::Cancel: {
      auto it = remote.running.find(m.id);
      if (it != remote.running.end()) *it->second = true;
      break;
    }
    case MsgType::Bye:
      forget(identity);
      break;
    case MsgType::Ping:
      break;
    default:
      ZRNET_LOG(vo::LogLevel_Warning)
          << "dropped an unexpected " << msgTypeName(m.type) << " message from " << remote.host;
  }
}

void ZRTransport::Impl::forget(const std::string& identity) {
  auto it = remotes.find(identity);
  if (it == remotes.end()) return;
  for (auto& [id, cancelled] : it->second.running) *cancelled = true;
  remotes.erase(it);
}

void ZRTransport::Impl::dispatch(const std::string& identity, Remote& remote, Message m) {
  auto cancelled = std::make_shared<std::atomic<bool>>(false);
  Asked asked{m.id, m.type == MsgType::Data, m.stream, m.module, m.method, m.seq, nullptr};
  if (m.captured) asked.delay = std::make_shared<std::atomic<std::int64_t>>(0);
  if (!asked.oneWay) remote.running[m.id] = cancelled;
  if (asked.oneWay && !asked.stream.empty())
    remote.streams[asked.stream].entries.push_back(
        {m.seq, false, std::nullopt, m.module, m.method});
  const Clock::time_point deadline = m.deadlineMs
                                         ? Clock::now() + std::chrono::milliseconds(m.deadlineMs)
                                         : Clock::time_point::max();
  auto call = std::make_shared<ZRIncomingCall>();
  call->module = std::move(m.module);
  call->method = std::move(m.method);
  call->caller = std::move(m.caller);
  call->peerHost = remote.host;
  call->peerEndpoint = remote.endpoint;
  call->peerKey = remote.key;
  call->args = std::move(m.args);
  call->oneWay = asked.oneWay;
  call->stream = asked.stream;
  call->lossless = m.lossless;

  std::weak_ptr<Impl> weak = shared_from_this();
  ZRAnswer answer;
  answer.state_ = std::make_shared<ZRAnswer::State>();
  answer.state_->deliver = [weak, identity, asked, cancelled](ZRValue result,
                                                              const ZRError* error) {
    std::shared_ptr<Impl> self = weak.lock();
    if (!self) return;
    std::optional<ZRError> failure;
    if (error) failure = *error;
    auto now = [&] {
      self->answered(identity, asked, std::move(result), std::move(failure), *cancelled);
    };
    // A call's answer goes out from here when the loop is free: its caller waits for it. The
    // credits of one-way messages wait for the loop, which gathers many into one message.
    if (std::this_thread::get_id() == self->ioThread.load()) return now();
    if (!asked.oneWay && self->runInline(now)) return;
    auto r = std::make_shared<ZRValue>(std::move(result));
    self->post([self, identity, asked, r, failure, cancelled] {
      self->answered(identity, asked, std::move(*r), failure, *cancelled);
    });
  };
  auto job = [weak, call, cancelled, deadline, answer, delay = asked.delay,
              captured = m.captured]() mutable {
    std::shared_ptr<Impl> self = weak.lock();
    if (!self) return;
    if (*cancelled || Clock::now() > deadline) {  // nobody waits for it any more
      answer.fail(ZRError(call->module, call->method, "deadline exceeded"));
      return;
    }
    // A clock of the sender's ahead of ours makes no delay at all: it is left unknown.
    if (delay) call->captureNs = net::monotonicOf(captured, *delay);
    self->handler(*call, std::move(answer));
    call.reset();  // the arguments go before the lane moves on
  };
  if (options.answeredOnIoThread.count(call->module)) return job();
  // A fan-out to one module runs in that module's lane, in order with the calls to it; one to
  // several is ordered within its stream only, so that a slow stream holds up no other.
  std::string lane = call->module;
  if (lane.empty()) {
    const std::vector<ZRValue>* names =
        call->args.empty() || !call->args[0].isArray() ? nullptr : &call->args[0].arrayElements();
    if (names && names->size() == 1 && names->front().isString())
      lane = names->front().toStringRef();
    else
      lane = std::string(1, '\0') + call->stream;
  }
  runInLane(identity + '\0' + lane, std::move(job));
}

void ZRTransport::Impl::answered(const std::string& identity, const Asked& asked, ZRValue result,
                                 std::optional<ZRError> error, bool cancelled) {
  auto it = remotes.find(identity);
  if (!asked.oneWay) {
    if (it != remotes.end()) it->second.running.erase(asked.id);
    if (cancelled || stopped) return;
    Message out;
    out.id = asked.id;
    out.type = error ? MsgType::Error : MsgType::Reply;
    if (error) {
      out.module = error->getModuleName();
      out.method = error->getMethodName();
      out.description = error->getDescription();
    } else {
      out.value = std::move(result);
    }
    Frames frames;
    try {
      frames = encode(out);
    } catch (const std::exception& e) {
      out.type = MsgType::Error;
      out.value = ZRValue();
      out.module = asked.module;
      out.method = asked.method;
      out.description = std::string("the result cannot be sent: ") + e.what();
      frames = encode(out);
    }
    out.value = ZRValue();  // only the frames hold the result's binaries now
    // The caller learns what became of the one-way messages it sent before this call first.
    sendCredits(&identity);
    sendToRemote(identity, std::move(frames));
    return;
  }
  if (error && asked.stream.empty())
    ZRNET_LOG(vo::LogLevel_Warning) << "a one-way \"" << asked.method << "\" for \"" << asked.module
                                    << "\" failed: " << error->what();
  if (asked.stream.empty() || it == remotes.end() || stopped) return;
  auto stream = it->second.streams.find(asked.stream);
  if (stream == it->second.streams.end()) return;
  for (InStream::Entry& e : stream->second.entries) {
    if (e.seq != asked.seq || e.answered) continue;
    e.answered = true;
    e.error = std::move(error);
    if (asked.delay) e.delay = asked.delay->load();
    break;
  }
  releaseCredits(identity, asked.stream);
}

void ZRTransport::Impl::releaseCredits(const std::string& identity, const std::string& name) {
  InStream& stream = remotes[identity].streams[name];
  while (!stream.entries.empty() && stream.entries.front().answered) {
    InStream::Entry& e = stream.entries.front();
    if (e.error) {
      Message m;
      m.type = MsgType::StreamError;
      m.stream = name;
      m.seq = e.seq;
      m.module = e.error->getModuleName();
      m.method = e.error->getMethodName();
      m.description = e.error->getDescription();
      sendToRemote(identity, encode(m), true, true);
    }
    Owed& owed = credits[{identity, name}];
    ++owed.credits;
    owed.delay = std::max(owed.delay, e.delay);
    stream.entries.pop_front();
  }
  if (stream.entries.empty()) remotes[identity].streams.erase(name);
}

void ZRTransport::Impl::runInLane(const std::string& key, std::function<void()> job) {
  Executor serial;
  {
    std::lock_guard<std::mutex> lock(laneMutex);
    Lane& lane = lanes[key];
    if (!lane.serial) lane.serial = executors.makeSerial();
    ++lane.pending;
    serial = lane.serial;
  }
  std::weak_ptr<Impl> weak = shared_from_this();
  auto done = [weak, key] {
    std::shared_ptr<Impl> self = weak.lock();
    if (!self) return;
    std::lock_guard<std::mutex> lock(self->laneMutex);
    auto it = self->lanes.find(key);
    // The lane goes with its last job; the next one starts a new serial executor, after this.
    if (it != self->lanes.end() && --it->second.pending == 0) self->lanes.erase(it);
  };
  try {
    serial([job = std::move(job), done] {
      job();
      done();
    });
  } catch (const std::exception&) {
    done();  // refused (the host is shutting down): the job's answer fails as it goes
  }
}

}  // namespace ZR
