#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include <vo/dynamicobject.h>
#include <vo/future.h>

namespace vo {

/// What a session needs from the network that extends it to other processes. The transport
/// implements it; vo knows nothing of how. Both calls may block for one exchange with the
/// network's directory and run on the thread that registers or unregisters.
class SessionNetwork {
 public:
  virtual ~SessionNetwork() = default;
  /// Makes a local name known to every host; throws ZRError naming the host that holds it.
  virtual void publish(const std::string& name) = 0;
  /// Withdraws a local name. Must not throw.
  virtual void unpublish(const std::string& name) noexcept = 0;
  /// Someone waits for `name`, which this host does not know yet: worth asking soon. Must not
  /// throw or block.
  virtual void lookFor(const std::string& name) noexcept { (void)name; }
};

/// The service directory of a process: services are registered under unique names, found by
/// name, and waited for. The directory does not own its services; it forgets one that is
/// unregistered, and a lookup of one that went away finds nothing.
///
/// Contract: every member may be called from any thread at once and takes one short lock.
/// Waiters are released, and removal listeners called, outside that lock on the thread that
/// registers or unregisters, so they may use the session. Only a dropped waitForService result
/// blocks (until the service comes or the session closes), and, once a network is attached,
/// registering and unregistering a local service, for one exchange with the network.
///
/// Services of other hosts (remote services) are names without a local object: services(),
/// hasService, waitForService and the removal listeners cover them exactly as local ones;
/// service() and serviceHandle() find only local objects, remoteService() says where a remote
/// one lives.
class Session {
 public:
  Session();
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  /// Registers `object` under `name`; throws ZRError when the name is taken or the session is
  /// closed. Releases everyone waiting for that name.
  void registerService(const std::string& name, const boost::weak_ptr<DynamicObject>& object);
  /// Forgets `name`, but only if it still designates `object` (null: whatever it designates).
  /// Returns whether something was removed.
  bool unregisterService(const std::string& name, const DynamicObject* object = nullptr);
  /// The local service, or null when there is none by that name (or it went away). A service
  /// being registered is found from the moment its network publishes it.
  boost::shared_ptr<DynamicObject> service(const std::string& name) const;
  boost::weak_ptr<DynamicObject> serviceHandle(const std::string& name) const;
  /// Registered names in registration order.
  std::vector<std::string> services() const;
  bool hasService(const std::string& name) const;

  /// Completes when a service called `name` is (or already was) registered. Dropping the result
  /// at once blocks until then; close() fails the waits still pending.
  FutureSync<void> waitForService(const std::string& name);

  /// Calls `listener` with the name of every service unregistered from now on, outside the
  /// session's lock, in the thread that unregisters it. Returns an id for disconnect.
  using ServiceListener = std::function<void(const std::string& name)>;
  unsigned long connectServiceRemoved(ServiceListener listener);
  void disconnectServiceRemoved(unsigned long id);

  /// Local registrations from now on are published through `network`, unregistrations
  /// withdrawn (null: no longer). Names registered before are not published.
  void setNetwork(std::shared_ptr<SessionNetwork> network);

  /// Where a remote service lives: the host's name and the address its calls go to.
  struct RemoteService {
    std::string host, address;
  };
  /// A service of another host appeared (the network tells). Releases its waiters. Ignored when
  /// a local service holds the name.
  void addRemoteService(const std::string& name, const RemoteService& where);
  /// That host's service went away (its host left or died); removal listeners fire. Returns
  /// whether something was removed.
  bool removeRemoteService(const std::string& name, const std::string& address);
  /// Where the service lives when it is remote; nothing when it is local or unknown.
  std::optional<RemoteService> remoteService(const std::string& name) const;

  /// No more registrations; pending waits fail.
  void close();
  bool isClosed() const;

 private:
  struct Entry {
    boost::weak_ptr<DynamicObject> object;
    const DynamicObject* raw;
    unsigned long order;
    std::optional<RemoteService> remote;
    bool pending = false;  // a local name being published: taken, not yet listed
    bool live() const { return !pending && (remote || !object.expired()); }
  };
  void release(const std::string& name, std::vector<Promise<void>>& out);
  void notifyRemoved(const std::string& name);
  mutable std::mutex mutex_;
  std::map<std::string, Entry> services_;
  std::multimap<std::string, Promise<void>> waiters_;
  std::map<unsigned long, ServiceListener> removedListeners_;
  unsigned long nextListener_ = 1;
  unsigned long nextOrder_ = 0;
  bool closed_ = false;
  std::shared_ptr<SessionNetwork> network_;
};

}  // namespace vo
