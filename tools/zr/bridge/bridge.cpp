// The bridge's work away from the web server's thread: a viewer's subscriptions made the memory
// service's on its own strand, events delivered to viewers, and the catalog followed.

#include "bridgeimpl.h"

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
      // Channels first: a module that does not answer its description holds up no event.
      apply(catalog->refreshChannels());
      apply(catalog->refreshServices());
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
