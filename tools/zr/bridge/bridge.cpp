// The bridge's protocol side: what each viewer is sent and asks, its subscriptions turned into
// the memory service's, service calls turned into module calls, and the catalog followed while
// modules come and go.

#include "bridge.h"

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

namespace {

using Json = nlohmann::ordered_json;
namespace asio = boost::asio;

constexpr std::size_t kTextLimit = 64 * 1024;
constexpr std::size_t kSubscriptionLimit = 256;
constexpr int kCallsInFlight = 64;
constexpr auto kRefresh = std::chrono::milliseconds(500);
constexpr auto kCallDeadline = std::chrono::seconds(30);

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

}  // namespace

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
    // The connections go before the server that runs them.
    left.clear();
    server.reset();
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
    return "http://" + options.address + ":" + std::to_string(server->port()) + "/" +
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
        const std::uint32_t id = s.at("id").get<std::uint32_t>();
        const std::uint32_t channel = s.at("channelId").get<std::uint32_t>();
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
        const std::uint32_t id = j.get<std::uint32_t>();
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

namespace zr::bridge {

void Bridge::Impl::sync(const std::shared_ptr<Viewer>& v) {
  std::set<std::string> wanted;
  bool closed;
  {
    std::lock_guard<std::mutex> own(v->mutex);
    closed = v->closed;
    for (const auto& [topic, id] : v->byTopic) wanted.insert(topic);
  }
  try {
    if (!v->module && !wanted.empty()) {
      std::weak_ptr<Viewer> weak = v;
      v->module = ZR::ZRModule::createModule<EventClient>(
          broker, v->name, "BridgeViewer", "zr bridge: receives the events of one viewer.",
          [weak](const std::string& event, const ZR::ZRValue& value) {
            if (std::shared_ptr<Viewer> viewer = weak.lock()) deliver(*viewer, event, value);
          });
    }
    if (wanted != v->subscribed) {
      ZR::ZRMemoryProxy memory(broker);
      for (auto it = v->subscribed.begin(); it != v->subscribed.end();) {
        if (wanted.count(*it)) {
          ++it;
          continue;
        }
        try {
          memory.unsubscribeToEvent(*it, v->name);
        } catch (const ZR::ZRError&) {
          // Its producer or the memory service left: nothing is held there any more.
        }
        it = v->subscribed.erase(it);
      }
      for (const std::string& topic : wanted) {
        if (v->subscribed.count(topic)) continue;
        try {
          subscribeNewModule(memory, topic, v->name, "onEvent");
          v->subscribed.insert(topic);
        } catch (const ZR::ZRError& e) {
          v->connection->sendText(
              statusJson(kError, "cannot subscribe to " + topic + ": " + e.what()));
          std::lock_guard<std::mutex> own(v->mutex);
          auto id = v->byTopic.find(topic);
          if (id != v->byTopic.end()) v->subscriptions.erase(id->second);
          v->byTopic.erase(topic);
        }
      }
    }
  } catch (const ZR::ZRError& e) {
    v->connection->sendText(statusJson(kError, e.what()));
  }
  if (closed && v->module) {
    v->module.reset();
    broker->removeModule(v->name);
  }
}

void Bridge::Impl::forget(const std::shared_ptr<Viewer>& v) {
  {
    std::lock_guard<std::mutex> own(v->mutex);
    v->closed = true;
    v->subscriptions.clear();
    v->byTopic.clear();
  }
  reconcile(v);
}

void Bridge::Impl::deliver(Viewer& v, const std::string& event, const ZR::ZRValue& value) {
  std::uint32_t id;
  {
    std::lock_guard<std::mutex> own(v.mutex);
    auto it = v.byTopic.find(event);
    if (it == v.byTopic.end()) return;  // unsubscribed while it came
    id = it->second;
  }
  const std::int64_t at = realtimeOf(ZR::detail::zrCurrentCaptureNs());
  v.connection->sendData(messageData(id, static_cast<std::uint64_t>(at), eventJson(value)));
}

void Bridge::Impl::discover() {
  std::unique_ptr<Catalog> catalog;
  std::unique_lock<std::mutex> lock(mutex);
  while (!stopping) {
    lock.unlock();
    try {
      if (!catalog) catalog = std::make_unique<Catalog>(directory, options.name + ".viewer");
      apply(catalog->refresh());
    } catch (const std::exception&) {
      // No directory answers now: the next round asks again.
    }
    reportDrops();
    lock.lock();
    wake.wait_for(lock, kRefresh, [this] { return stopping; });
  }
}

void Bridge::Impl::apply(const Catalog::Changes& changes) {
  if (changes.empty()) return;
  std::vector<std::shared_ptr<Viewer>> changed;
  std::lock_guard<std::mutex> lock(mutex);
  std::set<std::string> gone;
  for (std::uint32_t id : changes.removed) {
    gone.insert(channels[id].topic);
    channels.erase(id);
  }
  for (const Channel& c : changes.added) channels[c.id] = c;
  for (std::uint32_t id : changes.servicesRemoved) services.erase(id);
  for (const Service& s : changes.servicesAdded) services[s.id] = s;
  for (const auto& [id, v] : viewers) {
    const std::shared_ptr<Connection>& c = v->connection;
    if (!changes.removed.empty()) {
      c->sendText(removalJson("unadvertise", "channelIds", changes.removed));
      std::lock_guard<std::mutex> own(v->mutex);
      for (const std::string& topic : gone) {
        auto sub = v->byTopic.find(topic);
        if (sub == v->byTopic.end()) continue;
        v->subscriptions.erase(sub->second);
        v->byTopic.erase(sub);
        changed.push_back(v);
      }
    }
    if (!changes.servicesRemoved.empty())
      c->sendText(removalJson("unadvertiseServices", "serviceIds", changes.servicesRemoved));
    if (!changes.added.empty()) c->sendText(advertiseJson(changes.added));
    if (!changes.servicesAdded.empty()) c->sendText(advertiseServicesJson(changes.servicesAdded));
  }
  for (const auto& v : changed) reconcile(v);
}

void Bridge::Impl::reportDrops() {
  std::vector<std::shared_ptr<Viewer>> all;
  {
    std::lock_guard<std::mutex> lock(mutex);
    for (const auto& [id, v] : viewers) all.push_back(v);
  }
  for (const auto& v : all) {
    const std::uint64_t dropped = v->connection->dropped();
    if (dropped == v->reportedDrops) continue;
    v->reportedDrops = dropped;
    v->connection->sendText(statusJson(
        kWarning,
        std::to_string(dropped) + " messages dropped: this viewer reads slower than they come",
        "drops"));
  }
}

Bridge::Bridge(boost::shared_ptr<ZR::ZRBroker> broker, const ZR::ZRBrokerOptions& directory,
               BridgeOptions options) {
  if (!isLoopback(options.address) && options.token.empty()) options.token = randomHex(16);
  impl_ = std::make_shared<Impl>(std::move(broker), directory, std::move(options));
  impl_->start();
}

Bridge::~Bridge() {
  impl_->stop();
}

std::string Bridge::url() const {
  return impl_->url();
}

}  // namespace zr::bridge
