// Calls and one-way messages going out: one DEALER per called host, the calls pending on it, and
// what comes back (replies, errors, credits, stream errors), until the host is lost.

#include "transportimpl.h"

namespace ZR {

using namespace net;

void ZRTransport::Impl::startCall(const std::string& endpoint, Message m,
                                  Clock::time_point deadline,
                                  std::shared_ptr<std::promise<ZRValue>> promise) {
  if (stopped) {
    promise->set_exception(std::make_exception_ptr(ZRError(m.module, m.method, kShuttingDown)));
    return;
  }
  // Callers that still route names to a host found dead (the listener has yet to tell them)
  // must not connect to it again and wait out a dead host's connection time once more.
  if (unreported.count(endpoint)) {
    promise->set_exception(std::make_exception_ptr(ZRError(m.module, m.method, kModuleDestroyed)));
    return;
  }
  Peer& peer = peerFor(endpoint);
  if (peer.outbox.bytes > outboxLimit()) {
    promise->set_exception(std::make_exception_ptr(
        ZRError(m.module, m.method,
                "the host at " + endpoint + " reads nothing: " + std::to_string(peer.outbox.bytes) +
                    " bytes already wait for it")));
    return;
  }
  m.id = nextId++;
  m.seq = nextSeq++;
  peer.pending[m.id] = Pending{promise, m.module, m.method, deadline};
  if (deadline < wakeAt) loopNeeded = true;  // the loop must wake to time it
  Frames frames;
  try {
    frames = encode(m);
  } catch (const std::exception& e) {
    fail(peer, m.id, ZRError(m.module, m.method, e.what()));
    return;
  }
  // From here on only the frames hold the binaries: ZeroMQ lets them go once they are sent.
  m.args.clear();
  queue(peer, std::move(frames));
}

void ZRTransport::Impl::startSend(const std::string& endpoint, Message m) {
  // A host found dead gets nothing more: its streams are told through the peer-lost listener.
  if (stopped || unreported.count(endpoint)) return;
  Peer& peer = peerFor(endpoint);
  if (m.stream.empty()) m.seq = nextSeq++;
  Frames frames;
  try {
    frames = encode(m);
  } catch (const std::exception& e) {
    ZRNET_LOG(vo::LogLevel_Warning) << "cannot send \"" << m.method << "\" to \"" << m.module
                                    << "\" at " << endpoint << ": " << e.what();
    return;
  }
  m.args.clear();
  queue(peer, std::move(frames));
}

ZRTransport::Impl::Peer& ZRTransport::Impl::peerFor(const std::string& endpoint) {
  auto it = peers.find(endpoint);
  if (it != peers.end()) return *it->second;
  auto peer = std::make_unique<Peer>();
  peer->endpoint = endpoint;
  peer->socket = std::make_unique<zmq::socket_t>(context, zmq::socket_type::dealer);
  auto& s = *peer->socket;
  s.set(zmq::sockopt::immediate, 1);
  s.set(zmq::sockopt::linger, 0);
  s.set(zmq::sockopt::maxmsgsize, zmqFrameLimit(options.maxMessageSize));
  s.set(zmq::sockopt::reconnect_ivl, 100);
  s.set(zmq::sockopt::reconnect_ivl_max, 2000);
  secure(s, endpoint);
  peer->lastReceived = peer->lastPing = Clock::now();
  try {
    s.connect(endpoint);
  } catch (const zmq::error_t& e) {
    ZRNET_LOG(vo::LogLevel_Warning) << "cannot connect to " << endpoint << ": " << e.what();
  }
  peer->outbox.push(helloMessage(), true);
  itemsStale = true;
  return *(peers[endpoint] = std::move(peer));
}

void ZRTransport::Impl::queue(Peer& peer, Frames frames, bool control) {
  peer.used = true;
  if (peer.outbox.empty() && trySend(*peer.socket, frames)) return;
  peer.outbox.push(std::move(frames), control);
  loopNeeded = true;
}

void ZRTransport::Impl::fail(Peer& peer, std::uint64_t id, const ZRError& error) {
  auto it = peer.pending.find(id);
  if (it == peer.pending.end()) return;
  it->second.promise->set_exception(std::make_exception_ptr(error));
  peer.pending.erase(it);
}

void ZRTransport::Impl::failAll(Peer& peer, const std::string& description) {
  for (auto& [id, p] : peer.pending)
    p.promise->set_exception(std::make_exception_ptr(ZRError(p.module, p.method, description)));
  peer.pending.clear();
}

void ZRTransport::Impl::lose(const std::string& endpoint, const std::string& why) {
  auto it = peers.find(endpoint);
  if (it == peers.end()) return;
  ZRNET_LOG(vo::LogLevel_Info) << "peer " << endpoint << " lost: " << why;
  failAll(*it->second, kModuleDestroyed);
  it->second->socket->close();
  peers.erase(it);
  itemsStale = true;
  PeerListener listener;
  {
    std::lock_guard<std::mutex> lock(mutex);
    listener = peerLost;
  }
  if (!listener) return;
  unreported.insert(endpoint);
  std::weak_ptr<Impl> weak = shared_from_this();
  executors.post([weak, listener, endpoint] {
    listener(endpoint);
    if (auto self = weak.lock()) self->post([self, endpoint] { self->unreported.erase(endpoint); });
  });
}

bool ZRTransport::Impl::receiveFromPeer(Peer& peer) {
  const std::string endpoint = peer.endpoint;
  const auto sliceEnd = Clock::now() + heartbeat() / 10;
  while (Clock::now() < sliceEnd) {
    Frames frames;
    if (!zmq::recv_multipart(*peer.socket, std::back_inserter(frames), zmq::recv_flags::dontwait))
      return true;
    peer.lastReceived = Clock::now();
    Message m;
    try {
      m = decode(frames, options.maxMessageSize);
    } catch (const DecodeError& e) {
      ZRNET_LOG(vo::LogLevel_Warning)
          << "dropped a malformed message from " << endpoint << ": " << e.getDescription();
      if (!peer.greeted) {  // its hello is unreadable (another protocol version): give up
        failAll(peer, e.getDescription());
        lose(endpoint, e.getDescription());
        return false;
      }
      auto it = peer.pending.find(e.callId());
      if (it != peer.pending.end())
        fail(peer, e.callId(), ZRError(it->second.module, it->second.method, e.getDescription()));
      continue;
    }
    switch (m.type) {
      case MsgType::Hello:
        peer.greeted = true;
        break;
      case MsgType::Reply: {
        auto it = peer.pending.find(m.id);
        if (it == peer.pending.end()) break;  // cancelled by its deadline
        it->second.promise->set_value(std::move(m.value));
        peer.pending.erase(it);
        break;
      }
      case MsgType::Error:
        if (m.id == 0) {  // the peer refuses us as a whole (e.g. another protocol version)
          ZRNET_LOG(vo::LogLevel_Error) << endpoint << " refused this host: " << m.description;
          failAll(peer, m.description);
          lose(endpoint, m.description);
          return false;
        }
        fail(peer, m.id, ZRError(m.module, m.method, m.description));
        break;
      case MsgType::Credit: {
        CreditListener listener;
        {
          std::lock_guard<std::mutex> lock(mutex);
          listener = creditListener;
        }
        if (listener)
          listener(endpoint, m.stream, m.credits,
                   static_cast<std::int64_t>(std::min<std::uint64_t>(m.delay, INT64_MAX)));
        break;
      }
      case MsgType::StreamError: {
        StreamErrorListener listener;
        {
          std::lock_guard<std::mutex> lock(mutex);
          listener = streamErrorListener;
        }
        if (listener)
          listener(endpoint, m.stream, m.seq, ZRError(m.module, m.method, m.description));
        break;
      }
      case MsgType::Bye:
        lose(endpoint, "it said bye");
        return false;
      case MsgType::Ping:
        break;
      default:
        ZRNET_LOG(vo::LogLevel_Warning)
            << "dropped an unexpected " << msgTypeName(m.type) << " message from " << endpoint;
    }
  }
  return false;
}

}  // namespace ZR
