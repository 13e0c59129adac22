#pragma once

// The broker's state, shared by its core (zrbroker.cpp: modules, pool, strands, shutdown) and its
// part in a network of hosts (zrbrokernetwork.cpp: transport, directory, streams, remote
// proxies). Internal to zrcommon.

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <boost/asio/strand.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/make_shared.hpp>

#include <vo/log.h>
#include <zrcommon/detail/zrdeliveryline.h>
#include <zrcommon/detail/zrstream.h>
#include <zrcommon/zrbroker.h>
#include <zrcommon/zrmodulecore.h>
#include <zrnet/zrdirectory.h>
#include <zrnet/zrtransport.h>

namespace ZR {

inline constexpr const char* kBrokerCategory = "zrcommon.ZRBroker";

/// Wraps pool work: exceptions are logged, and the running pool is known to the task.
std::function<void()> guardedTask(const void* pool, std::function<void()> work);
/// The pool whose thread runs the current task (null elsewhere).
const void* currentPool();

// Strands share the pool with the broker: an Asio strand must not outlive its pool, and a module
// kept by its host past the broker's shutdown still holds its strands.
struct PoolHolder {
  explicit PoolHolder(std::size_t threads) : pool(threads) {}
  std::mutex mutex;
  bool closed = false;  // once set, only the pool's own tasks may still post
  boost::asio::thread_pool pool;
};

struct ZRStrand::Impl {
  std::shared_ptr<PoolHolder> holder;  // declared first: destroyed after the strand
  boost::asio::strand<boost::asio::thread_pool::executor_type> strand;
};

namespace detail {
class ZRReaper;
}

struct ZRBroker::Impl {
  std::weak_ptr<Impl> self;
  std::string name;
  boost::shared_ptr<vo::Session> session = boost::make_shared<vo::Session>();
  mutable std::mutex mutex;
  std::vector<boost::shared_ptr<ZRModuleCore>> modules;  // registration order
  std::shared_ptr<PoolHolder> pool;
  int threads = 0;
  bool shutdown = false;
  // A broker in a network; all null for one in process only. Destroyed in reverse order.
  std::unique_ptr<ZRDirectoryServer> directoryServer;
  std::shared_ptr<ZRTransport> transport;
  std::unique_ptr<ZRDirectoryClient> directoryClient;
  std::chrono::milliseconds heartbeat{0};
  // Streams this host sends, by stream name, told of credits, errors and their host's death.
  std::mutex streamsMutex;
  std::map<std::string, std::weak_ptr<detail::ZRStreamSender>> streams;
  std::uint64_t nextStream = 1;
  detail::ZRWarningLimiter fanOutWarnings;  // under streamsMutex
  // Unsubscribes modules that left the network from this broker's modules.
  std::shared_ptr<detail::ZRReaper> reaper;
  // What each module of this host is, published with its name: its methods (taken when it
  // registers, as the session publishes before it lists the module) and the events it declared.
  // Its own lock: registration publishes under `mutex`.
  std::mutex infoMutex;
  std::map<std::string, ZRModuleInfo> infos;

  void noteMethods(const ZRModuleCore& module);
  void forgetInfo(const std::string& name) {
    std::lock_guard<std::mutex> lock(infoMutex);
    infos.erase(name);
  }

  /// What a module of this host is and offers, for the directory.
  ZRModuleInfo moduleInfo(const std::string& name);

  /// A strand of the pool; throws ZRError once the broker is shut down.
  ZRStrand makeStrand();
  /// A new stream to the host at `endpoint`, told of its credits, errors and host's death; null
  /// outside a network.
  std::shared_ptr<detail::ZRStreamSender> openStream(const std::string& endpoint,
                                                     const std::string& label);
  std::shared_ptr<detail::ZRStreamSender> findStream(const std::string& name);
  template <class F>
  void forEachStream(F&& f) {
    std::vector<std::shared_ptr<detail::ZRStreamSender>> live;
    {
      std::lock_guard<std::mutex> lock(streamsMutex);
      for (auto it = streams.begin(); it != streams.end();) {
        if (auto s = it->second.lock()) {
          live.push_back(std::move(s));
          ++it;
        } else {
          it = streams.erase(it);
        }
      }
    }
    for (auto& s : live) f(*s);
  }
  /// A proxy to a module of another host.
  boost::shared_ptr<ZRProxy> remoteProxy(const std::string& moduleName);
  /// Runs an incoming call or one-way message on the module it names (or fans it out).
  ZRValue runIncoming(const ZRIncomingCall& c);
  void fanOut(const ZRIncomingCall& c);
  void warnFanOut(const std::string& what);
};

}  // namespace ZR
