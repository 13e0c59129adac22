#include "vo/session.h"

#include <algorithm>

namespace vo {

Session::Session() = default;

Session::~Session() {
  close();
}

void Session::release(const std::string& name, std::vector<Promise<void>>& out) {
  auto range = waiters_.equal_range(name);
  for (auto w = range.first; w != range.second; ++w) out.push_back(w->second);
  waiters_.erase(range.first, range.second);
}

void Session::notifyRemoved(const std::string& name) {
  std::vector<ServiceListener> listeners;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& [id, l] : removedListeners_) listeners.push_back(l);
  }
  for (const auto& l : listeners) {
    try {
      l(name);
    } catch (...) {
      // One listener's failure must not keep the others from learning of the removal.
    }
  }
}

void Session::registerService(const std::string& name,
                              const boost::weak_ptr<DynamicObject>& object) {
  std::shared_ptr<SessionNetwork> network;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (closed_)
      throw ZR::ZRError("Session", "registerService",
                        "the session is closed: cannot register " + name);
    auto it = services_.find(name);
    if (it != services_.end() && it->second.remote) {
      throw ZR::ZRError("Session", "registerService",
                        "a service called \"" + name + "\" is already registered by host " +
                            it->second.remote->host + " (" + it->second.remote->address + ")");
    }
    if (it != services_.end() && (it->second.pending || !it->second.object.expired())) {
      throw ZR::ZRError("Session", "registerService",
                        "a service called \"" + name + "\" is already registered");
    }
    network = network_;
    // Held while the network is asked, so that no other registration takes the name meanwhile.
    if (network) services_[name] = Entry{object, nullptr, 0, std::nullopt, true};
  }
  if (network) {
    try {
      network->publish(name);
    } catch (...) {
      std::lock_guard<std::mutex> lock(mutex_);
      auto it = services_.find(name);
      if (it != services_.end() && it->second.pending) services_.erase(it);
      throw;
    }
  }
  std::vector<Promise<void>> released;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    boost::shared_ptr<DynamicObject> strong = object.lock();
    services_[name] = Entry{object, strong.get(), nextOrder_++, std::nullopt};
    release(name, released);
  }
  // Outside the lock: a waiter's continuation may register services itself.
  for (auto& p : released) p.setValue();
}

bool Session::unregisterService(const std::string& name, const DynamicObject* object) {
  std::shared_ptr<SessionNetwork> network;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = services_.find(name);
    if (it == services_.end() || it->second.remote || it->second.pending) return false;
    if (object && it->second.raw != object) return false;
    services_.erase(it);
    network = network_;
  }
  if (network) network->unpublish(name);
  notifyRemoved(name);
  return true;
}

void Session::setNetwork(std::shared_ptr<SessionNetwork> network) {
  std::lock_guard<std::mutex> lock(mutex_);
  network_ = std::move(network);
}

void Session::addRemoteService(const std::string& name, const RemoteService& where) {
  std::vector<Promise<void>> released;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = services_.find(name);
    if (it != services_.end()) {
      if (!it->second.remote && (it->second.pending || !it->second.object.expired())) return;
      if (it->second.remote && it->second.remote->address == where.address) return;
    }
    services_[name] = Entry{{}, nullptr, nextOrder_++, where};
    release(name, released);
  }
  for (auto& p : released) p.setValue();
}

bool Session::removeRemoteService(const std::string& name, const std::string& address) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = services_.find(name);
    if (it == services_.end() || !it->second.remote || it->second.remote->address != address)
      return false;
    services_.erase(it);
  }
  notifyRemoved(name);
  return true;
}

std::optional<Session::RemoteService> Session::remoteService(const std::string& name) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = services_.find(name);
  if (it == services_.end()) return std::nullopt;
  return it->second.remote;
}

unsigned long Session::connectServiceRemoved(ServiceListener listener) {
  std::lock_guard<std::mutex> lock(mutex_);
  const unsigned long id = nextListener_++;
  removedListeners_.emplace(id, std::move(listener));
  return id;
}

void Session::disconnectServiceRemoved(unsigned long id) {
  std::lock_guard<std::mutex> lock(mutex_);
  removedListeners_.erase(id);
}

boost::shared_ptr<DynamicObject> Session::service(const std::string& name) const {
  return serviceHandle(name).lock();
}

boost::weak_ptr<DynamicObject> Session::serviceHandle(const std::string& name) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = services_.find(name);
  // A name still being published is reached already: once the network took it, other hosts
  // may call it before the publish returns here.
  return it == services_.end() ? boost::weak_ptr<DynamicObject>() : it->second.object;
}

std::vector<std::string> Session::services() const {
  std::vector<std::pair<unsigned long, std::string>> ordered;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& [name, e] : services_)
      if (e.live()) ordered.emplace_back(e.order, name);
  }
  std::sort(ordered.begin(), ordered.end());
  std::vector<std::string> out;
  out.reserve(ordered.size());
  for (auto& o : ordered) out.push_back(std::move(o.second));
  return out;
}

bool Session::hasService(const std::string& name) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = services_.find(name);
  return it != services_.end() && it->second.live();
}

FutureSync<void> Session::waitForService(const std::string& name) {
  Promise<void> p;
  std::shared_ptr<SessionNetwork> network;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = services_.find(name);
    if (it != services_.end() && it->second.live()) {
      p.setValue();
    } else if (closed_) {
      p.setError("the session is closed: service \"" + name + "\" will never come");
    } else {
      waiters_.emplace(name, p);
      network = network_;
    }
  }
  if (network) network->lookFor(name);
  return FutureSync<void>(p.future());
}

void Session::close() {
  std::multimap<std::string, Promise<void>> pending;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    closed_ = true;
    pending.swap(waiters_);
  }
  for (auto& [name, p] : pending)
    p.setError("the session closed before service \"" + name + "\" came");
}

bool Session::isClosed() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return closed_;
}

}  // namespace vo
