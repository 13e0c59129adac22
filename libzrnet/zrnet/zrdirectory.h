#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <zrnet/zrtransport.h>

namespace ZR {

/// What a host says of a module it publishes, so that a listing needs no call to the module.
struct ZRModuleInfo {
  std::string kind;  ///< "service", "extractor", "soundextractor" or "module"; empty: not said
  std::vector<std::string> methods;  ///< its remote methods, in registration order, each once
  std::vector<std::string> events;   ///< the events it declared to the memory service
  bool operator==(const ZRModuleInfo& o) const {
    return kind == o.kind && methods == o.methods && events == o.events;
  }
};

/// Where a published module lives, and what it is.
struct ZRDirectoryEntry {
  std::string name, host, endpoint;
  ZRModuleInfo info;
};

/// Reads one entry of a "sync" answer's changes (docs/protocol.md); false when it is malformed.
bool readDirectoryChange(const ZRValue& change, ZRDirectoryEntry& entry, bool& added);

/// The directory of one network of hosts: which module name lives on which host. A host that
/// serves it routes the calls to module kModuleName of its transport to handle(); every host,
/// this one included, talks to it through a ZRDirectoryClient.
///
/// A host's names live as long as its lease: each sync renews it, and a host silent for 3
/// heartbeats loses all its names. Every change gets the next sequence number; a client that
/// asks from a sequence the directory no longer has, or from another directory's life (its
/// epoch), gets a full snapshot instead. A host that publishes from the endpoint of the holder
/// of a name takes the name over: it is that host come back, at the same address.
///
/// handle() may run on any number of threads at once; it never blocks beyond its own lock.
class ZRDirectoryServer {
 public:
  static const char* const kModuleName;
  /// How the description of a refused "publish" begins; the holder's host and endpoint follow.
  static const char* const kHeldBy;
  explicit ZRDirectoryServer(std::chrono::milliseconds heartbeat = std::chrono::milliseconds(250));
  /// Answers "publish", "unpublish" and "sync"; throws ZRError like any module.
  ZRValue handle(const ZRIncomingCall& call);

 private:
  struct Holder {
    std::string hostId, host, endpoint;
    ZRModuleInfo info;
  };
  struct Change {
    int seq;
    bool added;
    ZRDirectoryEntry entry;
  };
  void record(bool added, const std::string& name, const Holder& h);
  ZRValue publish(const ZRIncomingCall& c);
  void expireLeases();

  const std::chrono::milliseconds heartbeat_;
  const std::string epoch_;
  std::mutex mutex_;
  std::map<std::string, Holder> names_;
  std::map<std::string, std::chrono::steady_clock::time_point> leases_;  // by host id
  std::deque<Change> changes_;
  int seq_ = 0;
};

/// A host's view of the directory: publishes this host's names, keeps a copy of everyone's,
/// and tells a listener about every change. A background thread syncs with the directory every
/// heartbeat (renewing this host's lease); when the directory comes back after a restart, it
/// publishes this host's names again by itself.
///
/// All members may be called from any thread at once. publish() and unpublish() block for one
/// call to the directory; the listener runs on the background thread, one change at a time.
class ZRDirectoryClient {
 public:
  using Listener = std::function<void(const ZRDirectoryEntry& entry, bool added)>;
  ZRDirectoryClient(ZRTransport& transport, std::string directoryEndpoint, std::string hostName,
                    std::chrono::milliseconds heartbeat = std::chrono::milliseconds(250));
  ~ZRDirectoryClient();
  ZRDirectoryClient(const ZRDirectoryClient&) = delete;
  ZRDirectoryClient& operator=(const ZRDirectoryClient&) = delete;

  /// Throws ZRError when another host holds the name (naming that host) or when the directory
  /// cannot be reached within 4 heartbeats, and no less than 5 s (a connection lost on the way
  /// is tried again in that time). Publishing a name again with other info updates it.
  void publish(const std::string& name, const ZRModuleInfo& info = ZRModuleInfo());
  void unpublish(const std::string& name);
  std::optional<ZRDirectoryEntry> find(const std::string& name) const;
  std::vector<ZRDirectoryEntry> entries() const;
  void setListener(Listener listener);
  /// Drops, without telling the listener, what this client knows of the names at `endpoint`
  /// (a host found dead), so that the directory's next word about them counts as news.
  void forget(const std::string& endpoint);
  /// Stops syncing; this host's names then leave the directory with its lease.
  void stop();

 private:
  void run();
  void sync();
  void apply(const ZRDirectoryEntry& entry, bool added);
  std::vector<ZRValue> publishArgs(const std::string& name, const ZRModuleInfo& info) const;
  /// How long publish and unpublish wait for the directory.
  std::chrono::milliseconds registrationTime() const;
  /// Deadline zero: 4 heartbeats.
  ZRValue callDirectory(const std::string& method, std::vector<ZRValue> args,
                        std::chrono::milliseconds deadline = {});

  ZRTransport& transport_;
  const std::string directory_, host_, hostId_;
  const std::chrono::milliseconds heartbeat_;
  mutable std::mutex mutex_;
  std::condition_variable wake_;
  bool stopping_ = false;
  std::map<std::string, ZRDirectoryEntry> entries_;
  std::map<std::string, ZRModuleInfo> published_;
  std::string epoch_;
  int seq_ = 0;
  bool reachable_ = true;
  Listener listener_;
  std::mutex listenerMutex_;
  std::thread thread_;
};

}  // namespace ZR
