// The bridge's web server with a real client over loopback: files, tokens, the subprotocol, a
// slow client's bounded queue and oversized frames; and service requests read from JSON.

#include <future>
#include <mutex>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <boost/asio/connect.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>

#include "bridge/catalog.h"
#include "bridge/wsserver.h"

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;
using ::testing::HasSubstr;

// On opening, sends "start", `burst` data messages, then "end", all before any write can run.
struct Burst : zr::bridge::ConnectionHandler {
  int burst = 0;
  std::mutex mutex;
  std::shared_ptr<zr::bridge::Connection> last;
  bool heardClosed = false;
  std::promise<std::shared_ptr<zr::bridge::Connection>> opened_;
  std::promise<std::string> first;
  std::promise<void> closed_;
  void opened(const std::shared_ptr<zr::bridge::Connection>& c) override {
    c->sendText("start");
    for (int i = 0; i < burst; ++i) c->sendData(std::string(4096, static_cast<char>('a' + i % 26)));
    c->sendText("end");
    std::lock_guard<std::mutex> lock(mutex);
    if (!last) opened_.set_value(c);
    last = c;
  }
  void text(const std::shared_ptr<zr::bridge::Connection>&, std::string m) override {
    first.set_value(std::move(m));
  }
  void binary(const std::shared_ptr<zr::bridge::Connection>&, std::string) override {}
  void closed(const std::shared_ptr<zr::bridge::Connection>& c) override {
    std::lock_guard<std::mutex> lock(mutex);
    if (c == last && !heardClosed) closed_.set_value();
    heardClosed = heardClosed || c == last;
  }
};

struct Client {
  asio::io_context io;
  websocket::stream<tcp::socket> ws{io};
  beast::flat_buffer buffer;
  // The handshake's failure, or "".
  std::string open(unsigned short port, const std::string& target, const char* protocol) {
    tcp::resolver resolver(io);
    asio::connect(ws.next_layer(), resolver.resolve("127.0.0.1", std::to_string(port)));
    ws.set_option(websocket::stream_base::decorator([protocol](websocket::request_type& r) {
      if (protocol) r.set(http::field::sec_websocket_protocol, protocol);
    }));
    beast::error_code ec;
    ws.handshake("127.0.0.1", target, ec);
    return ec ? ec.message() : "";
  }
  std::string read() {
    buffer.consume(buffer.size());
    ws.read(buffer);
    return beast::buffers_to_string(buffer.data());
  }
};

// A GET, or with `protocol` the start of a WebSocket handshake offering it ("" offers none).
std::pair<int, std::string> get(unsigned short port, const std::string& target,
                                const char* protocol = nullptr) {
  asio::io_context io;
  tcp::socket socket(io);
  tcp::resolver resolver(io);
  asio::connect(socket, resolver.resolve("127.0.0.1", std::to_string(port)));
  http::request<http::empty_body> req(http::verb::get, target, 11);
  req.set(http::field::host, "127.0.0.1");
  if (protocol) {
    req.set(http::field::upgrade, "websocket");
    req.set(http::field::connection, "upgrade");
    req.set(http::field::sec_websocket_key, "dGhlIHNhbXBsZSBub25jZQ==");
    req.set(http::field::sec_websocket_version, "13");
    if (*protocol) req.set(http::field::sec_websocket_protocol, protocol);
  }
  http::write(socket, req);
  beast::flat_buffer buffer;
  http::response<http::string_body> res;
  http::read(socket, buffer, res);
  return {res.result_int(), res.body()};
}

zr::bridge::ServerOptions options() {
  zr::bridge::ServerOptions o;
  o.port = 0;
  o.subprotocol = "test.v1";
  o.files["index.html"] = {"text/html", "<p>page</p>"};
  o.dataQueue = 16;
  o.maxFrame = 1 << 16;
  return o;
}

TEST(BridgeServer, ServesFilesAndRefusesWhatLacksTheTokenOrTheSubprotocol) {
  Burst handler;
  zr::bridge::ServerOptions o = options();
  o.token = "s3cret";
  zr::bridge::WsServer server(o, handler);
  EXPECT_EQ(get(server.port(), "/?token=s3cret"), std::make_pair(200, std::string("<p>page</p>")));
  EXPECT_EQ(get(server.port(), "/index.html?token=s3cret").first, 200);
  EXPECT_EQ(get(server.port(), "/other.js?token=s3cret").first, 404);
  EXPECT_EQ(get(server.port(), "/").first, 401);
  EXPECT_EQ(get(server.port(), "/?token=s3cre").first, 401);
  EXPECT_EQ(get(server.port(), "/?token=wrong", "test.v1").first, 401);
  EXPECT_EQ(get(server.port(), "/?token=s3cret", "").first, 400);
  EXPECT_THAT(get(server.port(), "/?token=s3cret", "other, test.v2").second, HasSubstr("test.v1"));
  EXPECT_EQ(get(server.port(), "/?token=s3cret", "other, test.v1").first, 101);
  Client c;
  ASSERT_EQ(c.open(server.port(), "/?token=s3cret", "test.v1"), "");
  EXPECT_FALSE(zr::bridge::isLoopback("0.0.0.0"));
  EXPECT_TRUE(zr::bridge::isLoopback("127.0.0.1") && zr::bridge::isLoopback("::1"));
}

TEST(BridgeServer, ASlowClientLosesOnlyTheOldestDataCountedAndFramesOverTheLimitClose) {
  Burst handler;
  handler.burst = 1000;
  zr::bridge::WsServer server(options(), handler);
  Client c;
  ASSERT_EQ(c.open(server.port(), "/", "test.v1"), "");
  std::shared_ptr<zr::bridge::Connection> connection = handler.opened_.get_future().get();
  // Everything was queued before the first write: the queue kept the newest 16 data messages
  // and every protocol message, in order.
  EXPECT_EQ(c.read(), "start");
  std::vector<std::string> data;
  for (std::string m; (m = c.read()) != "end";) data.push_back(m);
  ASSERT_EQ(data.size(), 16u);
  EXPECT_EQ(data.front()[0], static_cast<char>('a' + 984 % 26));
  EXPECT_EQ(data.back()[0], static_cast<char>('a' + 999 % 26));
  EXPECT_EQ(connection->dropped(), 984u);

  c.ws.text(true);
  c.ws.write(asio::buffer(std::string("hello")));
  EXPECT_EQ(handler.first.get_future().get(), "hello");
  c.ws.write(asio::buffer(std::string(70000, 'x')));
  beast::error_code ec;
  c.ws.read(c.buffer, ec);
  EXPECT_TRUE(ec);  // closed, or the reply to the close found the socket gone
  EXPECT_EQ(c.ws.reason().code, websocket::close_code::too_big);
  handler.closed_.get_future().get();
  EXPECT_EQ(server.connections(), 0u);
}

TEST(BridgeCatalog, RequestsByNameOrInOrderAndWhatFitsNoParameters) {
  zr::bridge::Service s;
  s.module = "SoundLevel";
  s.method = "setThreshold";
  s.overloads = zr::parseMethodHelp(
      "setThreshold(float, float) -> void\n  Sets it.\n  thresholdDb (float): level\n"
      "  hysteresisDb (float): below\n");
  std::vector<ZR::ZRValue> a =
      zr::bridge::requestArguments(s, R"({"hysteresisDb": 6, "thresholdDb": -30.5})");
  ASSERT_EQ(a.size(), 2u);
  EXPECT_EQ(a[0].getType(), ZR::ZRValue::TypeFloat);  // an integer where a float goes
  EXPECT_FLOAT_EQ(a[0].toFloat(), -30.5f);
  EXPECT_FLOAT_EQ(a[1].toFloat(), 6.0f);
  a = zr::bridge::requestArguments(s, "[-20, 3]");
  ASSERT_EQ(a.size(), 2u);
  EXPECT_FLOAT_EQ(a[0].toFloat(), -20.0f);
  EXPECT_EQ(zr::bridge::requestArguments(s, "").size(), 0u);
  try {
    zr::bridge::requestArguments(s, R"({"threshold": 1, "hysteresisDb": 2})");
    FAIL() << "a misnamed field was taken";
  } catch (const std::runtime_error& e) {
    EXPECT_THAT(e.what(), HasSubstr("setThreshold(float, float) -> void"));
  }
  EXPECT_THROW(zr::bridge::requestArguments(s, "{oops"), std::runtime_error);
}

}  // namespace
