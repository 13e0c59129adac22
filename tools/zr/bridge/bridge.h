#pragma once

// The live bridge: a WebSocket server that viewers speak to (subprotocol foxglove.websocket.v1),
// offering the events of a running system as channels and its modules' methods as services, and
// serving a page of its own. A viewer's subscription is a subscription of the system's memory
// service, so an extractor runs while a viewer watches its events.

#include <memory>
#include <string>

#include <zrcommon/zrbroker.h>

namespace zr::bridge {

struct BridgeOptions {
  std::string name;  // of its module, and the prefix of its viewers' modules
  std::string address = "127.0.0.1";
  unsigned short port = 8765;
  std::string token;  // required beyond loopback: generated when empty there
};

class Bridge {
 public:
  /// Listens at once; std::runtime_error when it cannot (a taken port, a bad address). `broker`
  /// hosts the viewers' modules; `directory` says where the directory is.
  Bridge(boost::shared_ptr<ZR::ZRBroker> broker, const ZR::ZRBrokerOptions& directory,
         BridgeOptions options);
  ~Bridge();
  Bridge(const Bridge&) = delete;
  Bridge& operator=(const Bridge&) = delete;
  /// Where a browser opens the page (with the token, when one is required).
  std::string url() const;

  class Impl;

 private:
  std::shared_ptr<Impl> impl_;
};

/// Says on stderr where the bridge is: "zr: bridge on URL".
void announce(const Bridge& bridge);

}  // namespace zr::bridge
