// Who is alive: heartbeats both ways, the death of a silent peer, call deadlines, and the count
// of the connections callers hold open on this host's listening socket.

#include "transportimpl.h"

#include <algorithm>
#include <cstring>

namespace ZR {

using namespace net;

void ZRTransport::Impl::timers() {
  const auto now = Clock::now();
  Message ping;
  ping.type = MsgType::Ping;
  std::vector<std::string> dead;
  for (auto& [endpoint, peer] : peers) {
    // A connection still being set up (TCP, handshake, hello) gets some slack on a busy host.
    const Clock::duration limit =
        peer->greeted ? deathTime() : std::max<Clock::duration>(deathTime(), options.connectTime);
    if (now - peer->lastReceived > limit) {
      dead.push_back(endpoint);
      continue;
    }
    if (now - peer->lastPing >= heartbeat() && peer->outbox.empty()) {
      Frames f = encode(ping);
      trySend(*peer->socket, f);  // not connected: nothing to keep alive
      peer->used = true;
      peer->lastPing = now;
    }
    for (auto it = peer->pending.begin(); it != peer->pending.end();) {
      if (now < it->second.deadline) {
        ++it;
        continue;
      }
      it->second.promise->set_exception(std::make_exception_ptr(
          ZRError(it->second.module, it->second.method, "deadline exceeded")));
      Message cancel;
      cancel.type = MsgType::Cancel;
      cancel.id = it->first;
      it = peer->pending.erase(it);
      queue(*peer, encode(cancel), true);
    }
  }
  for (const auto& e : dead) lose(e, "silent for 3 heartbeats");

  for (auto it = remotes.begin(); it != remotes.end();) {
    if (now - it->second.lastReceived > kForgetTime) {
      it = remotes.erase(it);
      continue;
    }
    // A silent caller may only be slow: its calls run on and it keeps getting pings. One that
    // is gone makes them fail as unreachable, which costs nothing.
    if (now - it->second.lastPing >= heartbeat()) {
      sendToRemote(it->first, encode(ping), false, true);
      it->second.lastPing = now;
    }
    ++it;
  }
}

void ZRTransport::Impl::countConnections() {
  while (true) {
    Frames event;
    if (!zmq::recv_multipart(*monitor, std::back_inserter(event), zmq::recv_flags::dontwait))
      return;
    if (event.empty() || event[0].size() < sizeof(std::uint16_t)) continue;
    std::uint16_t id;
    std::memcpy(&id, event[0].data(), sizeof id);
    if (id == ZMQ_EVENT_ACCEPTED) ++connections;
    if (id == ZMQ_EVENT_DISCONNECTED) connections = std::max(0, connections - 1);
  }
}

// Closing the router while a caller's connection is still open races in ZeroMQ with that
// connection failing: a message half received is then never freed, and one half sent by the
// caller can abort the caller's process. Callers close their side when told bye, so the router
// waits for that, a heartbeat at most (a caller that is gone without a word is not waited for
// longer).
void ZRTransport::Impl::awaitCallersGone() {
  const auto until = Clock::now() + heartbeat();
  countConnections();
  while (connections > 0) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - Clock::now());
    if (left.count() <= 0) return;
    zmq::pollitem_t item{monitor->handle(), 0, ZMQ_POLLIN, 0};
    zmq::poll(&item, 1, left);
    countConnections();
  }
}

}  // namespace ZR
