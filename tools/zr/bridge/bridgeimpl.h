#pragma once

// The bridge's state and its protocol side: what each viewer is sent and asks, answered on the
// web server's thread (bridge.cpp holds what runs elsewhere: the memory service's subscriptions,
// deliveries, and the catalog followed while modules come and go).

#include "bridge.h"

#include <unistd.h>

#include <condition_variable>
#include <map>
#include <set>
#include <thread>

#include <boost/asio/post.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/thread_pool.hpp>
#include <nlohmann/json.hpp>

#include <zrcommon/detail/zrlatencywindow.h>
#include <zrcommon/zrmodule.h>
#include <zrcommon/zrversion.h>
#include <zrproxies/zrmemoryproxy.h>

#include "catalog.h"
#include "eventclient.h"
#include "pageassets.h"
#include "recording.h"
#include "wire.h"
#include "wsserver.h"

namespace zr::bridge {

namespace detail {

using Json = nlohmann::ordered_json;
namespace asio = boost::asio;

constexpr std::size_t kTextLimit = 64 * 1024;
constexpr std::size_t kSubscriptionLimit = 256;
constexpr int kCallsInFlight = 64;
constexpr auto kRefresh = std::chrono::milliseconds(500);
constexpr auto kCallDeadline = std::chrono::seconds(30);

// A channel, subscription or service id: an integer of 32 bits, nothing rounded or wrapped.
inline std::uint32_t idOf(const Json& j) {
  if (!j.is_number_unsigned() || j.get<std::uint64_t>() > 0xffffffffu)
    throw std::out_of_range("ids are integers from 0 to 4294967295");
  return static_cast<std::uint32_t>(j.get<std::uint64_t>());
}

// The module zr top asks for the bridge's viewers.
class BridgeModule : public ZR::ZRModule {
 public:
  using Lister = std::function<ZR::ZRValue()>;
  BridgeModule(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name, Lister lister)
      : ZRModule(broker, name), lister_(std::move(lister)) {
    setModuleDescription("zr bridge: the viewers of a running system.");
    functionName("getViewers", "Bridge",
                 "Lists the connected viewers: [module, address, subscriptions, sent, dropped].",
                 0);
    setReturn("viewers", "One entry per viewer.");
    bindMethod(&BridgeModule::getViewers);
  }
  ZR::ZRValue getViewers() { return lister_(); }

 private:
  Lister lister_;
};

}  // namespace detail

using namespace detail;

struct Viewer {
  Viewer(std::shared_ptr<Connection> c, std::string n, asio::thread_pool& pool)
      : connection(std::move(c)), name(std::move(n)), strand(asio::make_strand(pool)) {}
  const std::shared_ptr<Connection> connection;
  const std::string name;  // of its module
  asio::strand<asio::thread_pool::executor_type> strand;
  std::mutex mutex;
  std::map<std::uint32_t, std::string> subscriptions;  // id -> topic
  std::map<std::string, std::uint32_t> byTopic;
  std::atomic<int> calls{0};
  bool closed = false;
  // The strand's: its module and what the memory service was asked for.
  boost::shared_ptr<EventClient> module;
  std::set<std::string> subscribed;
  std::uint64_t reportedDrops = 0;  // the discovery thread's
};

class Bridge::Impl : public ConnectionHandler, public std::enable_shared_from_this<Impl> {
 public:
  Impl(boost::shared_ptr<ZR::ZRBroker> b, const ZR::ZRBrokerOptions& d, BridgeOptions o)
      : broker(std::move(b)), directory(d), options(std::move(o)) {}

  void start() {
    ServerOptions s;
    s.address = options.address;
    s.port = options.port;
    s.token = options.token;
    s.subprotocol = kSubprotocol;
    s.files = pageFiles();
    server = std::make_unique<WsServer>(std::move(s), *this);
    std::weak_ptr<Impl> weak = shared_from_this();
    module = ZR::ZRModule::createModule<BridgeModule>(broker, options.name, [weak] {
      std::shared_ptr<Impl> self = weak.lock();
      return self ? self->viewerList() : ZR::ZRValue();
    });
    discovery = std::thread([this] { discover(); });
  }

  void stop() {
    std::map<std::uint64_t, std::shared_ptr<Viewer>> left;
    {
      std::lock_guard<std::mutex> lock(mutex);
      stopping = true;
      left.swap(viewers);
    }
    wake.notify_all();
    if (discovery.joinable()) discovery.join();
    for (auto& [id, v] : left) forget(v);
    pool.join();
    calls.join();
    left.clear();
    server.reset();  // viewers still connected are told it stops
    if (module) broker->removeModule(options.name);
    module.reset();
  }

  // ConnectionHandler: on the server's thread.
  void opened(const std::shared_ptr<Connection>& c) override {
    auto v = std::make_shared<Viewer>(c, options.name + ".viewer" + std::to_string(c->id()), pool);
    std::lock_guard<std::mutex> lock(mutex);
    if (stopping) return c->close();
    viewers[c->id()] = v;
    c->sendText(Json{
        {"op", "serverInfo"},
        {"name", "zr bridge " + options.name},
        {"capabilities", {"services"}},
        {"supportedEncodings", {"json"}},
        {"metadata", {{"version", ZR::kPlatformVersion}}},
        {"sessionId",
         sessionId}}.dump());
    std::vector<Channel> cs;
    for (const auto& [id, ch] : channels) cs.push_back(ch);
    std::vector<Service> ss;
    for (const auto& [id, s] : services) ss.push_back(s);
    c->sendText(advertiseJson(cs));
    c->sendText(advertiseServicesJson(ss));
  }

  void closed(const std::shared_ptr<Connection>& c) override {
    std::shared_ptr<Viewer> v;
    {
      std::lock_guard<std::mutex> lock(mutex);
      auto it = viewers.find(c->id());
      if (it == viewers.end()) return;
      v = it->second;
      viewers.erase(it);
    }
    forget(v);
  }

  void text(const std::shared_ptr<Connection>& c, std::string message) override {
    std::shared_ptr<Viewer> v = viewerOf(c);
    if (!v) return;
    if (message.size() > kTextLimit)
      return c->sendText(statusJson(kError, "a text message of " + std::to_string(message.size()) +
                                                " bytes: " + std::to_string(kTextLimit) +
                                                " at most"));
    const Json j = Json::parse(message, nullptr, false);
    if (j.is_discarded() || !j.is_object())
      return c->sendText(statusJson(kError, "a text message must be a JSON object"));
    const std::string op =
        j.contains("op") && j["op"].is_string() ? j["op"].get<std::string>() : "";
    try {
      if (op == "subscribe")
        subscribe(v, j.at("subscriptions"));
      else if (op == "unsubscribe")
        unsubscribe(v, j.at("subscriptionIds"));
      else if (op.empty())
        c->sendText(statusJson(kError, "a text message must name its \"op\""));
      else
        c->sendText(statusJson(kError, "unsupported op \"" + op +
                                           "\": this server offers channels and services only"));
    } catch (const Json::exception&) {
      c->sendText(statusJson(kError, "malformed \"" + op + "\": see the protocol for its fields"));
    } catch (const std::out_of_range& e) {
      c->sendText(statusJson(kError, "malformed \"" + op + "\": " + e.what()));
    }
  }

  void binary(const std::shared_ptr<Connection>& c, std::string message) override {
    std::shared_ptr<Viewer> v = viewerOf(c);
    if (!v) return;
    if (message.empty() || static_cast<std::uint8_t>(message[0]) != kServiceCallRequest)
      return c->sendText(statusJson(
          kError, message.empty()
                      ? "an empty binary message"
                      : "binary opcode " + std::to_string(static_cast<unsigned char>(message[0])) +
                            " is not taken: service calls (2) only"));
    if (message.size() < kServiceCallHeader)
      return c->sendText(statusJson(kError, "a service call shorter than its header"));
    const std::uint32_t serviceId = getU32(message, 1), callId = getU32(message, 5),
                        encodingLength = getU32(message, 9);
    if (encodingLength > message.size() - kServiceCallHeader)
      return c->sendText(statusJson(kError, "a service call whose encoding runs past its end"));
    const std::string encoding = message.substr(kServiceCallHeader, encodingLength);
    auto fail = [&](const std::string& why) {
      c->sendText(callFailureJson(serviceId, callId, why));
    };
    if (encoding != "json") return fail("encoding \"" + encoding + "\" is not taken: json only");
    Service s;
    {
      std::lock_guard<std::mutex> lock(mutex);
      auto it = services.find(serviceId);
      if (it == services.end()) return fail("no service " + std::to_string(serviceId));
      s = it->second;
    }
    if (v->calls >= kCallsInFlight)
      return fail(std::to_string(kCallsInFlight) + " calls of this viewer are in flight already");
    ++v->calls;
    asio::post(calls, [this, v, s, serviceId, callId,
                       request = message.substr(kServiceCallHeader + encodingLength)] {
      try {
        std::vector<ZR::ZRValue> args = requestArguments(s, request);
        for (const ZR::ZRValue& a : args)
          if (a.isString() && a.toStringRef() != v->name &&
              a.toStringRef().rfind(options.name + ".viewer", 0) == 0)
            throw std::runtime_error("a viewer cannot act for another viewer (" + a.toStringRef() +
                                     ")");
        boost::shared_ptr<ZR::ZRProxy> proxy = broker->getProxy(s.module);
        proxy->setDeadline(kCallDeadline);  // a module that never answers holds no thread
        const ZR::ZRValue result = proxy->metaCall(s.method, args.data(), args.size());
        v->connection->sendBinary(callResponse(serviceId, callId, toJson(result)));
      } catch (const std::exception& e) {
        v->connection->sendText(callFailureJson(serviceId, callId, e.what()));
      }
      --v->calls;
    });
  }

  ZR::ZRValue viewerList() {
    ZR::ZRValue out;
    std::lock_guard<std::mutex> lock(mutex);
    out.arraySetSize(static_cast<int>(viewers.size()));
    int i = 0;
    for (const auto& [id, v] : viewers) {
      std::lock_guard<std::mutex> own(v->mutex);
      ZR::ZRValue& e = out[i++];
      e.arraySetSize(5);
      e[0] = v->name;
      e[1] = v->connection->peer();
      e[2] = static_cast<int>(v->subscriptions.size());
      e[3] = static_cast<int>(v->connection->sent());
      e[4] = static_cast<int>(v->connection->dropped());
    }
    return out;
  }

  std::string url() const {
    // Every interface: the machine's name is what another machine can open.
    std::string host = options.address;
    char name[256] = {};
    if ((host == "0.0.0.0" || host == "::") && gethostname(name, sizeof name - 1) == 0)
      host = name;
    else if (host.find(':') != std::string::npos)
      host = "[" + host + "]";
    return "http://" + host + ":" + std::to_string(server->port()) + "/" +
           (options.token.empty() ? "" : "?token=" + options.token);
  }

  const boost::shared_ptr<ZR::ZRBroker> broker;
  const ZR::ZRBrokerOptions directory;
  const BridgeOptions options;
  const std::string sessionId = randomHex(8);
  std::unique_ptr<WsServer> server;
  asio::thread_pool pool{1}, calls{4};
  boost::shared_ptr<BridgeModule> module;

 private:
  std::shared_ptr<Viewer> viewerOf(const std::shared_ptr<Connection>& c) {
    std::lock_guard<std::mutex> lock(mutex);
    auto it = viewers.find(c->id());
    return it == viewers.end() ? nullptr : it->second;
  }

  void subscribe(const std::shared_ptr<Viewer>& viewer, const Json& list) {
    Viewer& v = *viewer;
    std::vector<std::string> errors;
    {
      std::lock_guard<std::mutex> lock(mutex);
      std::lock_guard<std::mutex> own(v.mutex);
      for (const Json& s : list) {
        const std::uint32_t id = idOf(s.at("id"));
        const std::uint32_t channel = idOf(s.at("channelId"));
        auto ch = channels.find(channel);
        if (ch == channels.end())
          errors.push_back("no channel " + std::to_string(channel));
        else if (v.subscriptions.count(id))
          errors.push_back("subscription " + std::to_string(id) + " exists already");
        else if (v.byTopic.count(ch->second.topic))
          errors.push_back("channel " + std::to_string(channel) + " is subscribed already");
        else if (v.subscriptions.size() >= kSubscriptionLimit)
          errors.push_back(std::to_string(kSubscriptionLimit) + " subscriptions at most");
        else {
          v.subscriptions[id] = ch->second.topic;
          v.byTopic[ch->second.topic] = id;
        }
      }
    }
    for (const std::string& e : errors) v.connection->sendText(statusJson(kError, e));
    reconcile(viewer);
  }

  void unsubscribe(const std::shared_ptr<Viewer>& viewer, const Json& ids) {
    Viewer& v = *viewer;
    std::vector<std::string> errors;
    {
      std::lock_guard<std::mutex> own(v.mutex);
      for (const Json& j : ids) {
        const std::uint32_t id = idOf(j);
        auto it = v.subscriptions.find(id);
        if (it == v.subscriptions.end()) {
          errors.push_back("no subscription " + std::to_string(id));
          continue;
        }
        v.byTopic.erase(it->second);
        v.subscriptions.erase(it);
      }
    }
    for (const std::string& e : errors) v.connection->sendText(statusJson(kError, e));
    reconcile(viewer);
  }

  // Brings the memory service's subscriptions of the viewer's module to what the viewer holds,
  // on the viewer's strand: many changes in a row end in few calls.
  void reconcile(const std::shared_ptr<Viewer>& v) {
    asio::post(v->strand, [self = shared_from_this(), v] { self->sync(v); });
  }

  void sync(const std::shared_ptr<Viewer>& v);
  void forget(const std::shared_ptr<Viewer>& v);
  static void deliver(Viewer& v, const std::string& event, const ZR::ZRValue& value);
  void discover();
  void apply(const Catalog::Changes& changes);
  void reportDrops();

  std::mutex mutex;
  std::condition_variable wake;
  bool stopping = false;
  std::thread discovery;
  std::map<std::uint32_t, Channel> channels;
  std::map<std::uint32_t, Service> services;
  std::map<std::uint64_t, std::shared_ptr<Viewer>> viewers;
};

}  // namespace zr::bridge
