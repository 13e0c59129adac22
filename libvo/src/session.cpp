#include "vo/session.h"

#include <algorithm>

namespace vo {

Session::Session() = default;

Session::~Session() { close(); }

void Session::registerService(const std::string& name,
                              const boost::weak_ptr<DynamicObject>& object) {
  std::vector<Promise<void>> released;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (closed_) throw ZR::ZRError("Session", "registerService", "the session is closed: cannot register " + name);
    auto it = services_.find(name);
    if (it != services_.end() && !it->second.object.expired()) {
      throw ZR::ZRError("Session", "registerService",
                        "a service called \"" + name + "\" is already registered");
    }
    boost::shared_ptr<DynamicObject> strong = object.lock();
    services_[name] = Entry{object, strong.get(), nextOrder_++};
    auto range = waiters_.equal_range(name);
    for (auto w = range.first; w != range.second; ++w) released.push_back(w->second);
    waiters_.erase(range.first, range.second);
  }
  // Outside the lock: a waiter's continuation may register services itself.
  for (auto& p : released) p.setValue();
}

bool Session::unregisterService(const std::string& name, const DynamicObject* object) {
  std::vector<ServiceListener> listeners;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = services_.find(name);
    if (it == services_.end()) return false;
    if (object && it->second.raw != object) return false;
    services_.erase(it);
    for (const auto& [id, l] : removedListeners_) listeners.push_back(l);
  }
  for (const auto& l : listeners) {
    try {
      l(name);
    } catch (...) {
      // One listener's failure must not keep the others from learning of the removal.
    }
  }
  return true;
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
  return it == services_.end() ? boost::weak_ptr<DynamicObject>() : it->second.object;
}

std::vector<std::string> Session::services() const {
  std::vector<std::pair<unsigned long, std::string>> ordered;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& [name, e] : services_)
      if (!e.object.expired()) ordered.emplace_back(e.order, name);
  }
  std::sort(ordered.begin(), ordered.end());
  std::vector<std::string> out;
  out.reserve(ordered.size());
  for (auto& o : ordered) out.push_back(std::move(o.second));
  return out;
}

bool Session::hasService(const std::string& name) const { return !serviceHandle(name).expired(); }

FutureSync<void> Session::waitForService(const std::string& name) {
  Promise<void> p;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = services_.find(name);
    if (it != services_.end() && !it->second.object.expired()) {
      p.setValue();
    } else if (closed_) {
      p.setError("the session is closed: service \"" + name + "\" will never come");
    } else {
      waiters_.emplace(name, p);
    }
  }
  return FutureSync<void>(p.future());
}

void Session::close() {
  std::multimap<std::string, Promise<void>> pending;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    closed_ = true;
    pending.swap(waiters_);
  }
  for (auto& [name, p] : pending) p.setError("the session closed before service \"" + name + "\" came");
}

bool Session::isClosed() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return closed_;
}

}  // namespace vo
