// The bridge's web server on Boost.Beast: one I/O thread accepts, answers HTTP requests for the
// page's files, upgrades WebSocket requests that offer the subprotocol (and the token, when one is
// required), reads their messages for the handler and writes what is sent to them, one write at a
// time, from a queue whose data is bounded per connection.

#include "wsserver.h"

#include <deque>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <thread>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>

namespace zr::bridge {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;

namespace {

// Protocol messages a client has not read: beyond them it is closed (it reads nothing at all).
constexpr std::size_t kControlLimit = 4096;
constexpr std::size_t kRequestLimit = 16 * 1024;
// Frames are read in pieces of this size; one larger than the ceiling is refused outright.
constexpr std::size_t kReadChunk = 64 * 1024;
constexpr std::uint64_t kFrameCeiling = 1ull << 30;
constexpr auto kDrainTime = std::chrono::seconds(1);
constexpr auto kHttpTimeout = std::chrono::seconds(30);

// The query parameter `key` of a request target, undecoded ("" when absent).
std::string queryValue(std::string_view target, std::string_view key) {
  const std::size_t q = target.find('?');
  if (q == std::string_view::npos) return "";
  std::string_view query = target.substr(q + 1);
  while (!query.empty()) {
    const std::size_t amp = query.find('&');
    const std::string_view pair = query.substr(0, amp);
    const std::size_t eq = pair.find('=');
    if (pair.substr(0, eq) == key) return std::string(eq == pair.npos ? "" : pair.substr(eq + 1));
    if (amp == std::string_view::npos) break;
    query.remove_prefix(amp + 1);
  }
  return "";
}

std::string_view pathOf(std::string_view target) {
  return target.substr(0, target.find('?'));
}

// Compared in a time that does not depend on where they differ.
bool sameToken(const std::string& given, const std::string& token) {
  if (given.size() != token.size() || token.empty()) return false;
  unsigned diff = 0;
  for (std::size_t i = 0; i < token.size(); ++i)
    diff |= static_cast<unsigned char>(given[i]) ^ static_cast<unsigned char>(token[i]);
  return diff == 0;
}

bool offers(std::string_view header, const std::string& protocol) {
  while (!header.empty()) {
    const std::size_t comma = header.find(',');
    std::string_view p = header.substr(0, comma);
    while (!p.empty() && p.front() == ' ') p.remove_prefix(1);
    while (!p.empty() && p.back() == ' ') p.remove_suffix(1);
    if (p == protocol) return true;
    if (comma == std::string_view::npos) break;
    header.remove_prefix(comma + 1);
  }
  return false;
}

}  // namespace

class WsConnection;
class HttpSession;

// Owned by the server and by every connection and session it made: a connection kept by the
// handler after the server is gone still has the I/O context its socket belongs to.
class WsServer::Impl : public std::enable_shared_from_this<Impl> {
 public:
  Impl(ServerOptions o, ConnectionHandler& h) : options(std::move(o)), handler(h) {}
  void accept();
  void serve(tcp::socket socket);
  void stop();

  const ServerOptions options;
  ConnectionHandler& handler;
  asio::io_context io{1};
  tcp::acceptor acceptor{io};
  asio::steady_timer drain{io};  // the time clients have to answer a close, when it stops
  std::thread thread;
  unsigned short port = 0;
  std::atomic<bool> stopping{false};
  std::atomic<std::uint64_t> nextId{1};
  mutable std::mutex mutex;
  std::map<std::uint64_t, std::weak_ptr<WsConnection>> live;
  std::map<const HttpSession*, std::weak_ptr<HttpSession>> sessions;
};

class WsConnection : public Connection, public std::enable_shared_from_this<WsConnection> {
 public:
  WsConnection(std::uint64_t id, std::string peer, beast::tcp_stream stream,
               std::shared_ptr<WsServer::Impl> server)
      : Connection(id, std::move(peer)), server_(std::move(server)), ws_(std::move(stream)) {}

  void start(http::request<http::string_body> request, const ServerOptions& options) {
    beast::get_lowest_layer(ws_).expires_never();
    // No timers of its own: the request was read under the HTTP session's, and a connection
    // left idle is the client's business (timers still armed would also hold the server's
    // thread when it stops).
    ws_.set_option(websocket::stream_base::timeout{websocket::stream_base::none(),
                                                   websocket::stream_base::none(), false});
    const std::string protocol = options.subprotocol;
    ws_.set_option(websocket::stream_base::decorator([protocol](websocket::response_type& r) {
      r.set(http::field::server, "zr bridge");
      if (!protocol.empty()) r.set(http::field::sec_websocket_protocol, protocol);
    }));
    ws_.read_message_max(kFrameCeiling);
    maxFrame_ = options.maxFrame;
    dataLimit_ = options.dataQueue;
    ws_.async_accept(request, [self = shared_from_this()](beast::error_code ec) {
      if (ec || self->server_->stopping) return self->finish();
      self->open_ = true;
      self->server_->handler.opened(self);
      self->read();
    });
  }

  void sendText(std::string message) override { push({std::move(message), false, false}); }
  void sendBinary(std::string message) override { push({std::move(message), true, false}); }
  void sendData(std::string message) override { push({std::move(message), true, true}); }

  void close() override {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (done_) return;
    }
    post([self = shared_from_this()] {
      if (self->open_) self->shut(websocket::close_code::normal, "");
    });
  }

  // From the server's thread, when it stops: a client is told, one still in its handshake is
  // cut off.
  void goAway() {
    if (open_)
      shut(websocket::close_code::going_away, "the bridge stops");
    else
      abort();
  }
  void abort() {
    beast::error_code ignored;
    beast::get_lowest_layer(ws_).socket().close(ignored);
  }

 private:
  struct Item {
    std::string bytes;
    bool binary, data;
  };

  template <class F>
  void post(F&& f) {
    asio::post(server_->io, std::forward<F>(f));
  }

  void push(Item item) {
    bool start = false, overrun = false;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (done_ || overrun_) return;
      if (item.data) {
        if (data_ >= dataLimit_) {
          // The oldest data waiting goes; protocol messages stay where they are.
          for (auto it = queue_.begin(); it != queue_.end(); ++it)
            if (it->data) {
              queue_.erase(it);
              --data_;
              ++dropped_;
              break;
            }
        }
        ++data_;
      } else if (queue_.size() - data_ >= kControlLimit) {
        overrun = overrun_ = true;
      }
      if (!overrun) {
        queue_.push_back(std::move(item));
        start = !writing_;
        if (start) writing_ = true;
      }
    }
    if (overrun)
      return post([self = shared_from_this()] {
        self->shut(websocket::close_code::policy_error, "too many unread messages");
      });
    if (start) post([self = shared_from_this()] { self->write(); });
  }

  void write() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (queue_.empty() || !open_ || closing_) {
        writing_ = false;
        return;
      }
      current_ = std::move(queue_.front());
      queue_.pop_front();
      if (current_.data) --data_;
    }
    ws_.binary(current_.binary);
    ws_.async_write(asio::buffer(current_.bytes),
                    [self = shared_from_this()](beast::error_code ec, std::size_t) {
                      if (ec) {
                        std::lock_guard<std::mutex> lock(self->mutex_);
                        self->writing_ = false;
                        return;
                      }
                      ++self->sent_;
                      self->write();
                    });
  }

  // A message is read piecewise so that one over the limit is answered with a close handshake
  // (1009) while the rest of it is drained, rather than a torn connection.
  void read() {
    ws_.async_read_some(buffer_, kReadChunk,
                        [self = shared_from_this()](beast::error_code ec, std::size_t) {
                          if (ec || self->server_->stopping) return self->finish();
                          self->received();
                        });
  }

  void received() {
    if (buffer_.size() > maxFrame_) {
      buffer_.consume(buffer_.size());
      return shut(websocket::close_code::too_big, "a message over the size limit");
    }
    if (!ws_.is_message_done()) return read();
    std::string message = beast::buffers_to_string(buffer_.data());
    buffer_.consume(buffer_.size());
    if (ws_.got_text())
      server_->handler.text(shared_from_this(), std::move(message));
    else
      server_->handler.binary(shared_from_this(), std::move(message));
    read();
  }

  // Starts the closing handshake; the read that awaits the peer's answer ends the connection.
  void shut(websocket::close_code code, const char* reason) {
    if (closing_) return;
    closing_ = true;
    ws_.async_close(websocket::close_reason(code, reason),
                    [self = shared_from_this()](beast::error_code) { self->finish(); });
  }

  // The connection ended (closed by either side, or failed): the handler hears of it once.
  void finish() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (done_) return;
      done_ = true;
      queue_.clear();
    }
    bool last;
    {
      std::lock_guard<std::mutex> lock(server_->mutex);
      server_->live.erase(id());
      last = server_->live.empty();
    }
    if (last && server_->stopping) server_->drain.cancel();
    if (open_ && !server_->stopping) server_->handler.closed(shared_from_this());
  }

  const std::shared_ptr<WsServer::Impl> server_;  // first made, last gone: the socket's context
  websocket::stream<beast::tcp_stream> ws_;
  beast::flat_buffer buffer_;
  std::mutex mutex_;
  std::deque<Item> queue_;
  Item current_;
  std::size_t data_ = 0, dataLimit_ = 256, maxFrame_ = 1 << 20;
  bool writing_ = false, done_ = false, overrun_ = false;
  bool open_ = false, closing_ = false;  // the I/O thread's
};

// One HTTP connection: files, or the upgrade to a WebSocket connection.
class HttpSession : public std::enable_shared_from_this<HttpSession> {
 public:
  HttpSession(tcp::socket socket, std::shared_ptr<WsServer::Impl> server)
      : server_(std::move(server)), stream_(std::move(socket)) {}
  ~HttpSession() {
    std::lock_guard<std::mutex> lock(server_->mutex);
    server_->sessions.erase(this);
  }

  void start() {
    {
      std::lock_guard<std::mutex> lock(server_->mutex);
      server_->sessions[this] = weak_from_this();
    }
    read();
  }

  // From the server's thread, when it stops.
  void abort() {
    beast::error_code ignored;
    stream_.socket().close(ignored);
  }

  void read() {
    parser_.emplace();
    parser_->header_limit(kRequestLimit);
    parser_->body_limit(kRequestLimit);
    stream_.expires_after(kHttpTimeout);
    http::async_read(stream_, buffer_, *parser_,
                     [self = shared_from_this()](beast::error_code ec, std::size_t) {
                       if (ec) return self->shut();
                       self->handle(self->parser_->release());
                     });
  }

 private:
  void handle(http::request<http::string_body> req) {
    const ServerOptions& o = server_->options;
    const std::string target(req.target().data(), req.target().size());
    if (!o.token.empty() && !sameToken(queryValue(target, "token"), o.token))
      return reply(req, http::status::unauthorized, "a token is required: ?token=...\n");
    if (websocket::is_upgrade(req)) {
      if (!o.subprotocol.empty() &&
          !offers(std::string(req[http::field::sec_websocket_protocol]), o.subprotocol))
        return reply(req, http::status::bad_request,
                     "this server speaks the WebSocket subprotocol " + o.subprotocol + " only\n");
      std::size_t count;
      {
        std::lock_guard<std::mutex> lock(server_->mutex);
        count = server_->live.size();
      }
      if (count >= o.maxConnections)
        return reply(req, http::status::service_unavailable, "too many connections\n");
      beast::error_code ec;
      const tcp::endpoint peer = stream_.socket().remote_endpoint(ec);
      auto c = std::make_shared<WsConnection>(
          server_->nextId++,
          ec ? "?" : peer.address().to_string() + ":" + std::to_string(peer.port()),
          std::move(stream_), server_);
      {
        std::lock_guard<std::mutex> lock(server_->mutex);
        server_->live[c->id()] = c;
      }
      c->start(std::move(req), o);
      return;
    }
    if (req.method() != http::verb::get && req.method() != http::verb::head)
      return reply(req, http::status::method_not_allowed, "GET only\n");
    std::string path(pathOf(target));
    if (path == "/") path = "/index.html";
    auto file = o.files.find(path.substr(1));
    if (file == o.files.end()) return reply(req, http::status::not_found, "no such file\n");
    reply(req, http::status::ok, file->second.second, file->second.first);
  }

  void reply(const http::request<http::string_body>& req, http::status status, std::string body,
             const std::string& type = "text/plain; charset=utf-8") {
    auto res = std::make_shared<http::response<http::string_body>>(status, req.version());
    res->set(http::field::server, "zr bridge");
    res->set(http::field::content_type, type);
    res->set(http::field::cache_control, "no-store");
    res->keep_alive(req.keep_alive() && status == http::status::ok);
    if (req.method() != http::verb::head) res->body() = std::move(body);
    res->prepare_payload();
    http::async_write(stream_, *res,
                      [self = shared_from_this(), res](beast::error_code ec, std::size_t) {
                        if (ec || !res->keep_alive()) return self->shut();
                        self->read();
                      });
  }

  void shut() {
    beast::error_code ignored;
    stream_.socket().shutdown(tcp::socket::shutdown_send, ignored);
  }

  const std::shared_ptr<WsServer::Impl> server_;
  beast::tcp_stream stream_;
  beast::flat_buffer buffer_;
  std::optional<http::request_parser<http::string_body>> parser_;
};

void WsServer::Impl::accept() {
  acceptor.async_accept([self = shared_from_this()](beast::error_code ec, tcp::socket socket) {
    if (self->stopping) return;
    if (!ec) std::make_shared<HttpSession>(std::move(socket), self)->start();
    self->accept();
  });
}

void WsServer::Impl::stop() {
  // Every socket closes on the server's thread; what was waiting on them completes, and the
  // thread ends once nothing waits any more.
  asio::post(io, [self = shared_from_this()] {
    self->stopping = true;
    std::vector<std::shared_ptr<WsConnection>> open;
    std::vector<std::shared_ptr<HttpSession>> reading;
    {
      std::lock_guard<std::mutex> lock(self->mutex);
      for (auto& [id, weak] : self->live)
        if (auto c = weak.lock()) open.push_back(c);
      for (auto& [at, weak] : self->sessions)
        if (auto h = weak.lock()) reading.push_back(h);
    }
    beast::error_code ignored;
    self->acceptor.close(ignored);
    for (const auto& h : reading) h->abort();
    if (open.empty()) return;
    for (const auto& c : open) c->goAway();
    // Clients that do not answer their close in time are cut off.
    self->drain.expires_after(kDrainTime);
    self->drain.async_wait([self](beast::error_code ec) {
      if (ec) return;
      std::vector<std::shared_ptr<WsConnection>> left;
      {
        std::lock_guard<std::mutex> lock(self->mutex);
        for (auto& [id, weak] : self->live)
          if (auto c = weak.lock()) left.push_back(c);
      }
      for (const auto& c : left) c->abort();
    });
  });
}

WsServer::WsServer(ServerOptions options, ConnectionHandler& handler)
    : impl_(std::make_shared<Impl>(std::move(options), handler)) {
  const ServerOptions& o = impl_->options;
  beast::error_code ec;
  const asio::ip::address address = asio::ip::make_address(o.address, ec);
  if (ec) throw std::runtime_error("\"" + o.address + "\" is no IP address to listen on");
  const tcp::endpoint at(address, o.port);
  tcp::acceptor& a = impl_->acceptor;
  if (!a.open(at.protocol(), ec) && !a.set_option(asio::socket_base::reuse_address(true), ec) &&
      !a.bind(at, ec) && !a.listen(asio::socket_base::max_listen_connections, ec)) {
    impl_->port = a.local_endpoint(ec).port();  // read here: the acceptor is the thread's next
    impl_->accept();
    impl_->thread = std::thread([impl = impl_.get()] { impl->io.run(); });
    return;
  }
  throw std::runtime_error("cannot listen on " + o.address + ":" + std::to_string(o.port) + ": " +
                           ec.message());
}

WsServer::~WsServer() {
  impl_->stop();
  if (impl_->thread.joinable()) impl_->thread.join();
}

unsigned short WsServer::port() const {
  return impl_->port;
}

std::size_t WsServer::connections() const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->live.size();
}

bool isLoopback(const std::string& address) {
  beast::error_code ec;
  const asio::ip::address a = asio::ip::make_address(address, ec);
  return !ec && a.is_loopback();
}

}  // namespace zr::bridge
