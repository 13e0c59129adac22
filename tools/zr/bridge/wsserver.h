#pragma once

// The bridge's web server: static files and WebSocket connections on one port, with a token when
// it listens beyond loopback, a bounded send queue per connection, and one I/O thread. It knows
// nothing of the platform; its handler does.

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>

namespace zr::bridge {

class Connection;

/// What the server tells: called from its I/O thread, so a handler must not block in them.
class ConnectionHandler {
 public:
  virtual ~ConnectionHandler() = default;
  virtual void opened(const std::shared_ptr<Connection>& c) = 0;
  virtual void text(const std::shared_ptr<Connection>& c, std::string message) = 0;
  virtual void binary(const std::shared_ptr<Connection>& c, std::string message) = 0;
  virtual void closed(const std::shared_ptr<Connection>& c) = 0;
};

/// One WebSocket client. Its send functions may be called from any thread.
class Connection {
 public:
  virtual ~Connection() = default;
  /// Protocol messages: never dropped (a client that reads none is closed once its queue holds
  /// kControlLimit of them).
  virtual void sendText(std::string message) = 0;
  virtual void sendBinary(std::string message) = 0;
  /// Data a slow client can do without: when its queue is full, the oldest data goes.
  virtual void sendData(std::string message) = 0;
  virtual void close() = 0;
  std::uint64_t id() const { return id_; }
  const std::string& peer() const { return peer_; }
  std::uint64_t sent() const { return sent_; }
  std::uint64_t dropped() const { return dropped_; }

 protected:
  Connection(std::uint64_t id, std::string peer) : id_(id), peer_(std::move(peer)) {}
  std::atomic<std::uint64_t> sent_{0}, dropped_{0};

 private:
  const std::uint64_t id_;
  const std::string peer_;
};

struct ServerOptions {
  std::string address = "127.0.0.1";
  unsigned short port = 8765;         // 0: any free port
  std::string token;                  // required in the URL query ("token=") when not empty
  std::string subprotocol;            // a WebSocket client must offer it
  std::size_t dataQueue = 256;        // messages of data waiting per connection
  std::size_t maxFrame = 1 << 20;     // larger: the connection is closed (1009)
  std::size_t maxConnections = 1024;  // beyond: refused (503)
  std::map<std::string, std::pair<std::string, std::string>> files;  // path -> type, content
};

/// Listens at once; std::runtime_error naming the address when it cannot. Stops, closing every
/// connection, when destroyed.
class WsServer {
 public:
  WsServer(ServerOptions options, ConnectionHandler& handler);
  ~WsServer();
  WsServer(const WsServer&) = delete;
  WsServer& operator=(const WsServer&) = delete;
  unsigned short port() const;
  std::size_t connections() const;

  class Impl;

 private:
  std::shared_ptr<Impl> impl_;
};

/// True for an address only this machine reaches.
bool isLoopback(const std::string& address);

}  // namespace zr::bridge
