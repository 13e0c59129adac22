// What this host's modules asked of the memory service, told again to a memory service that comes
// back (a restart loses them all): the events they declared, then the events they subscribed to.

#include "zrbrokerimpl.h"

#include <thread>

#include <zrcommon/detail/zrmoduleinternals.h>
#include <zrcommon/zrproxy.h>
#include <zrcommon/zrservicenames.h>

namespace ZR {

void ZRBroker::Impl::noteSubscription(const std::string& event, const std::string& module,
                                      const std::string& callback, bool subscribed) {
  std::lock_guard<std::mutex> lock(infoMutex);
  if (subscribed)
    memorySubscriptions[{event, module}] = callback;
  else
    memorySubscriptions.erase({event, module});
}

void ZRBroker::Impl::memoryListed(const std::string& endpoint) {
  {
    std::lock_guard<std::mutex> lock(infoMutex);
    if (endpoint == memoryAt) return;
    memoryAt = endpoint;
    if (endpoint.empty()) return;
  }
  std::weak_ptr<Impl> weak = self;
  std::lock_guard<std::mutex> lock(pool->mutex);
  if (!pool->closed)
    boost::asio::post(pool->pool, guardedTask(&pool->pool, [weak, endpoint] {
                        if (std::shared_ptr<Impl> impl = weak.lock()) impl->tellMemory(endpoint);
                      }));
}

// Each call is tried until it is taken or the memory service moves again: the service's host
// learns this host's names (and the producers' hosts tell their declarations) within heartbeats.
void ZRBroker::Impl::tellMemory(const std::string& endpoint) {
  std::map<std::string, std::vector<std::string>> declared;
  std::map<std::pair<std::string, std::string>, std::string> subscribed;
  {
    std::lock_guard<std::mutex> lock(infoMutex);
    for (const auto& [producer, info] : infos)
      if (!info.events.empty()) declared[producer] = info.events;
    subscribed = memorySubscriptions;
  }
  if (declared.empty() && subscribed.empty()) return;
  boost::shared_ptr<ZRProxy> memory = remoteProxy(kMemoryServiceName);
  const auto patience =
      std::max<std::chrono::milliseconds>(20 * heartbeat, std::chrono::seconds(5));
  auto tell = [&](const std::string& what, auto&& call) {
    const auto until = std::chrono::steady_clock::now() + patience;
    for (;;) {
      {
        std::lock_guard<std::mutex> lock(infoMutex);
        if (memoryAt != endpoint || shutdownStarted) return;
      }
      try {
        call();
        return;
      } catch (const ZRError& e) {
        if (std::chrono::steady_clock::now() >= until) {
          VO_LOG(vo::LogLevel_Warning, kBrokerCategory)
              << "cannot tell the memory service that came back " << what << ": " << e.what();
          return;
        }
      }
      std::this_thread::sleep_for(heartbeat);
    }
  };
  auto isLocal = [&](const std::string& module) {
    return session->hasService(module) && !session->remoteService(module);
  };
  for (const auto& [producer, events] : declared)
    for (const std::string& event : events)
      if (isLocal(producer))
        tell("\"" + producer + "\" declares \"" + event + "\"",
             [&] { memory->call<void>("declareEvent", event, producer); });
  // The producers of other hosts declare theirs meanwhile, so that these subscriptions count
  // against them again (and stop them with their last subscriber).
  std::this_thread::sleep_for(2 * heartbeat);
  for (const auto& [key, callback] : subscribed)
    if (isLocal(key.second))
      tell("\"" + key.second + "\" subscribes to \"" + key.first + "\"",
           [&, &key = key, &callback = callback] {
             memory->call<void>("subscribeToEvent", key.first, key.second, callback);
           });
}

namespace detail {
void ZRModuleAccess::noteSubscription(ZRBroker& broker, const std::string& event,
                                      const std::string& module, const std::string& callback,
                                      bool subscribed) {
  broker.impl_->noteSubscription(event, module, callback, subscribed);
}
}  // namespace detail

}  // namespace ZR
