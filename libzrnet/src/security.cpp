// Who may talk to this host: the listening socket (loopback unless CURVE or the insecure flag),
// the ZAP handler that admits CURVE clients from the allow-list, and CURVE on calls going out.

#include "transportimpl.h"

#include <algorithm>

namespace ZR {

using namespace net;

namespace {

// ZeroMQ wants "*" for "any free port".
std::string bindAddress(const std::string& address) {
  if (address.rfind("tcp://", 0) == 0 && address.size() > 2 &&
      address.compare(address.size() - 2, 2, ":0") == 0)
    return address.substr(0, address.size() - 1) + "*";
  return address;
}

// True for addresses that only this machine can reach.
bool isLocalOnly(const std::string& address) {
  if (address.rfind("tcp://", 0) != 0)
    return address.rfind("ipc://", 0) == 0 || address.rfind("inproc://", 0) == 0;
  const std::string host = address.substr(6, address.rfind(':') - 6);
  return host.rfind("127.", 0) == 0 || host == "localhost" || host == "[::1]" || host == "lo";
}

}  // namespace

void ZRTransport::Impl::listen() {
  if (!isLocalOnly(options.listen) && !curve() && !options.insecure)
    throw ZRError("zrnet", "listen",
                  "refusing to listen on " + options.listen +
                      " beyond loopback without CURVE keys or the insecure flag");
  if (!isLocalOnly(options.listen) && !curve())
    ZRNET_LOG(vo::LogLevel_Warning)
        << "listening on " << options.listen << " without encryption or authentication (insecure)";
  if (curve()) {
    zap = std::make_unique<zmq::socket_t>(context, zmq::socket_type::rep);
    zap->set(zmq::sockopt::linger, 0);
    zap->bind("inproc://zeromq.zap.01");
  }
  router = std::make_unique<zmq::socket_t>(context, zmq::socket_type::router);
  if (curve()) {
    router->set(zmq::sockopt::curve_server, 1);
    router->set(zmq::sockopt::curve_secretkey, options.curveSecretKey);
    router->set(zmq::sockopt::zap_domain, "zr");
  }
  router->set(zmq::sockopt::router_mandatory, 1);
  router->set(zmq::sockopt::sndhwm, kRouterHighWater);
  router->set(zmq::sockopt::linger, 0);
  router->set(zmq::sockopt::maxmsgsize, zmqFrameLimit(options.maxMessageSize));
  try {
    router->bind(bindAddress(options.listen));
  } catch (const zmq::error_t& e) {
    throw ZRError("zrnet", "listen", "cannot listen on " + options.listen + ": " + e.what());
  }
  advertised =
      options.advertise.empty() ? router->get(zmq::sockopt::last_endpoint) : options.advertise;
  const std::string watch =
      "inproc://zrnet-connections-" + std::to_string(reinterpret_cast<std::uintptr_t>(this));
  if (zmq_socket_monitor(router->handle(), watch.c_str(),
                         ZMQ_EVENT_ACCEPTED | ZMQ_EVENT_DISCONNECTED) != 0)
    throw ZRError("zrnet", "listen", "cannot watch the connections of " + options.listen);
  monitor = std::make_unique<zmq::socket_t>(context, zmq::socket_type::pair);
  monitor->set(zmq::sockopt::linger, 0);
  monitor->connect(watch);
}

void ZRTransport::Impl::secure(zmq::socket_t& dealer, const std::string& endpoint) {
  std::string serverKey;
  {
    std::lock_guard<std::mutex> lock(mutex);
    auto key = serverKeys.find(endpoint);
    if (key != serverKeys.end()) serverKey = key->second;
  }
  if (serverKey.empty()) return;
  dealer.set(zmq::sockopt::curve_serverkey, serverKey);
  dealer.set(zmq::sockopt::curve_publickey, options.curvePublicKey);
  dealer.set(zmq::sockopt::curve_secretkey, options.curveSecretKey);
}

void ZRTransport::Impl::authenticate() {
  Frames request;
  if (!zmq::recv_multipart(*zap, std::back_inserter(request), zmq::recv_flags::dontwait)) return;
  // version, request id, domain, address, identity, mechanism, credentials...
  if (request.size() < 6) return;
  std::string clientKey;
  if (request.size() >= 7 && request[6].size() == 32) {
    char text[41] = {};
    zmq_z85_encode(text, static_cast<const std::uint8_t*>(request[6].data()), 32);
    clientKey = text;
  }
  const auto& allowed = options.allowedClientKeys;
  const bool ok = request[5].to_string() == "CURVE" && !clientKey.empty() &&
                  std::find(allowed.begin(), allowed.end(), clientKey) != allowed.end();
  if (!ok)
    ZRNET_LOG(vo::LogLevel_Warning)
        << "refused a client from " << request[3].to_string() << ": key "
        << (clientKey.empty() ? "none" : clientKey) << " is not on the allow-list";
  Frames reply;
  reply.emplace_back(std::string("1.0"));
  reply.push_back(std::move(request[1]));
  reply.emplace_back(std::string(ok ? "200" : "400"));
  reply.emplace_back(std::string(ok ? "OK" : "client key not allowed"));
  reply.emplace_back(clientKey);
  reply.emplace_back();
  zmq::send_multipart(*zap, reply);
}

std::pair<std::string, std::string> ZRTransport::generateKeyPair() {
  char publicKey[41] = {}, secretKey[41] = {};
  if (zmq_curve_keypair(publicKey, secretKey) != 0)
    throw ZRError("zrnet", "generateKeyPair", "CURVE is not available in this ZeroMQ");
  return {publicKey, secretKey};
}

}  // namespace ZR
