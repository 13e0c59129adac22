#include "zrcommon/zrbroker.h"

#include <algorithm>
#include <mutex>
#include <thread>

#include <boost/asio/post.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/make_shared.hpp>

#include <vo/log.h>
#include <zrcommon/detail/zrdeliveryline.h>
#include <zrcommon/detail/zrmoduleinternals.h>
#include <zrcommon/detail/zrstream.h>
#include <zrcommon/zrmodulecore.h>
#include <zrcommon/zrproxy.h>
#include <zrcommon/zrservicenames.h>
#include <zrnet/zrdirectory.h>
#include <zrnet/zrtransport.h>

#include "zrreaper.h"

namespace ZR {

namespace {
const char* const kCategory = "zrcommon.ZRBroker";

// The pool whose thread is running the current task, so that shutdown from inside a task does not
// wait for itself.
thread_local const void* tlCurrentPool = nullptr;

std::function<void()> guarded(const void* pool, std::function<void()> work) {
  return [pool, work = std::move(work)] {
    tlCurrentPool = pool;
    try {
      work();
    } catch (const std::exception& e) {
      vo::log::LogStream(vo::LogLevel_Error, "", "post", kCategory, 0)
          << "background task failed: " << e.what() << std::endl;
    } catch (...) {
      vo::log::LogStream(vo::LogLevel_Error, "", "post", kCategory, 0)
          << "background task failed with an unknown exception" << std::endl;
    }
    tlCurrentPool = nullptr;
  };
}
}  // namespace

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

ZRStrand::ZRStrand() = default;

void ZRStrand::post(std::function<void()> work) const {
  if (!impl_) throw ZRError("ZRBroker", "ZRStrand::post", "this strand belongs to no broker");
  PoolHolder& holder = *impl_->holder;
  std::lock_guard<std::mutex> lock(holder.mutex);
  // Work posted by the pool's own tasks still runs while shutdown joins the pool; work from
  // anywhere else would be queued on a pool that no longer runs anything.
  if (holder.closed && tlCurrentPool != &holder.pool)
    throw ZRError("ZRBroker", "ZRStrand::post", "the broker of this strand is shut down");
  boost::asio::post(impl_->strand, guarded(&holder.pool, std::move(work)));
}

namespace {
// A module of another host: each call goes to that host, found by name at every call.
class ZRRemoteProxy : public ZRProxy {
 public:
  ZRRemoteProxy(const std::string& moduleName, boost::weak_ptr<vo::Session> session,
                std::weak_ptr<ZRTransport> transport)
      : ZRProxy(moduleName), session_(std::move(session)), transport_(std::move(transport)) {}

  bool isValid() const override {
    boost::shared_ptr<vo::Session> session = session_.lock();
    return session && session->remoteService(getModuleName()).has_value();
  }

  ZRValue metaCall(std::string_view method, const ZRValue* args, std::size_t count) override {
    boost::shared_ptr<vo::Session> session = session_.lock();
    std::optional<vo::Session::RemoteService> where;
    if (session) where = session->remoteService(getModuleName());
    std::shared_ptr<ZRTransport> transport = transport_.lock();
    if (!where || !transport)
      throw ZRError(getModuleName(), std::string(method), "module destroyed");
    ZRCallOptions options;
    options.deadline = deadline();
    // The callee's ZRError comes back with its three fields, as the same call raises it here.
    return transport->call(where->address, getModuleName(), std::string(method),
                           std::vector<ZRValue>(args, args + count), options);
  }

 private:
  boost::weak_ptr<vo::Session> session_;
  std::weak_ptr<ZRTransport> transport_;
};

// Publishes the session's local names through the directory client.
class DirectoryNetwork : public vo::SessionNetwork {
 public:
  explicit DirectoryNetwork(ZRDirectoryClient& client) : client_(client) {}
  void publish(const std::string& name) override { client_.publish(name); }
  void unpublish(const std::string& name) noexcept override {
    try {
      client_.unpublish(name);
    } catch (const std::exception& e) {
      // Its lease takes the name away when the directory cannot be told.
      vo::log::LogStream(vo::LogLevel_Warning, "", "unpublish", kCategory, 0)
          << "cannot withdraw \"" << name << "\": " << e.what() << std::endl;
    }
  }

 private:
  ZRDirectoryClient& client_;
};
}  // namespace

struct ZRBroker::Impl {
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
  // Streams this host sends, by stream name, told of credits and of their host's death.
  std::mutex streamsMutex;
  std::map<std::string, std::weak_ptr<detail::ZRStreamSender>> streams;
  std::uint64_t nextStream = 1;
  detail::ZRWarningLimiter fanOutWarnings;  // under streamsMutex

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

  // A fan-out message: its first argument names the modules of this host that take the calls,
  // each of the others is one call's arguments.
  void fanOut(const ZRIncomingCall& c) {
    if (c.args.empty() || !c.args[0].isArray()) {
      warnFanOut("a stream message from " + c.peerHost + " names no modules; dropped");
    } else {
      const std::vector<ZRValue>& names = c.args[0].arrayElements();
      for (std::size_t call = 1; call < c.args.size(); ++call) {
        if (!c.args[call].isArray()) {
          warnFanOut("a stream message from " + c.peerHost + " holds a call that is no array");
          continue;
        }
        const std::vector<ZRValue>& args = c.args[call].arrayElements();
        for (const ZRValue& target : names) {
          const std::string module = target.isString() ? target.toStringRef() : std::string();
          try {
            boost::weak_ptr<vo::DynamicObject> handle = session->serviceHandle(module);
            if (handle.expired()) throw ZRError(module, c.method, "module destroyed");
            ZRProxy(module, handle).metaCall(c.method, args.data(), args.size());
          } catch (const std::exception& e) {
            warnFanOut("\"" + c.method + "\" of \"" + module + "\" from " + c.peerHost +
                       "'s stream failed: " + e.what());
          }
        }
      }
    }
    if (!c.stream.empty()) transport->credit(c.connection, c.stream, 1);
  }
  void warnFanOut(const std::string& what) {
    std::int64_t heldBack = 0;
    {
      std::lock_guard<std::mutex> lock(streamsMutex);
      if (!fanOutWarnings.allow(heldBack)) return;
    }
    vo::log::LogStream(vo::LogLevel_Warning, "", "stream", kCategory, 0)
        << what << " (" << heldBack << " warnings held back)" << std::endl;
  }
  // Unsubscribes modules that left the network from this broker's modules.
  std::shared_ptr<detail::ZRReaper> reaper;
};

ZRBroker::ZRBroker(const std::string& name, int threads) : impl_(new Impl) {
  impl_->name = name;
  if (threads <= 0) threads = std::max(2u, std::thread::hardware_concurrency());
  impl_->threads = threads;
  impl_->pool = std::make_shared<PoolHolder>(static_cast<std::size_t>(threads));
}

boost::shared_ptr<ZRBroker> ZRBroker::createBroker(const std::string& name, int threads) {
  return boost::shared_ptr<ZRBroker>(new ZRBroker(name, threads));
}

boost::shared_ptr<ZRBroker> ZRBroker::createBroker(const std::string& name,
                                                   const ZRBrokerOptions& options) {
  boost::shared_ptr<ZRBroker> broker(new ZRBroker(name, options.threads));
  broker->startNetwork(options);
  return broker;
}

void ZRBroker::startNetwork(const ZRBrokerOptions& options) {
  Impl* impl = impl_.get();
  ZRTransportOptions t;
  t.hostName = impl->name;
  t.listen = options.serveDirectory ? options.directory : options.listen;
  t.advertise = options.advertise;
  t.heartbeat = options.heartbeat;
  impl->heartbeat = options.heartbeat;
  t.maxMessageSize = options.maxMessageSize;
  t.insecure = options.insecure;
  t.curvePublicKey = options.curvePublicKey;
  t.curveSecretKey = options.curveSecretKey;
  t.allowedClientKeys = options.allowedClientKeys;
  if (options.serveDirectory) {
    impl->directoryServer.reset(new ZRDirectoryServer(options.heartbeat));
    // A module of this host waiting for a name must not keep the directory from publishing it.
    t.answeredOnIoThread.insert(ZRDirectoryServer::kModuleName);
  }
  // Calls from other hosts: the directory's, or a module's through an in-process proxy, so that
  // they raise exactly the errors the same call raises here.
  auto handler = [impl](const ZRIncomingCall& c) -> ZRValue {
    if (impl->directoryServer && c.module == ZRDirectoryServer::kModuleName)
      return impl->directoryServer->handle(c);
    if (c.module.empty()) {
      impl->fanOut(c);
      return ZRValue();
    }
    boost::weak_ptr<vo::DynamicObject> handle = impl->session->serviceHandle(c.module);
    if (handle.expired()) throw ZRError(c.module, c.method, "module destroyed");
    ZRProxy local(c.module, handle);
    return local.metaCall(c.method, c.args.data(), c.args.size());
  };
  // Not through the broker's lock: registration holds it while it publishes, and the directory
  // may be this very broker.
  auto executor = [pool = impl->pool](std::function<void()> task) {
    std::lock_guard<std::mutex> lock(pool->mutex);
    // A call arriving once the broker is shut down is dropped: its transport is stopping and
    // fails the caller.
    if (!pool->closed) boost::asio::post(pool->pool, guarded(&pool->pool, std::move(task)));
  };
  impl->transport = std::make_shared<ZRTransport>(t, handler, executor);
  const std::string directory =
      options.serveDirectory ? impl->transport->endpoint() : options.directory;
  // A CURVE deployment: every host listens with the directory's key pair (the directory's own
  // when it serves it), so the directory's public key is every host's server key.
  const std::string serverKey = options.directoryPublicKey.empty() && options.serveDirectory
                                    ? options.curvePublicKey
                                    : options.directoryPublicKey;
  if (!serverKey.empty()) impl->transport->setServerKey(directory, serverKey);
  impl->directoryClient.reset(
      new ZRDirectoryClient(*impl->transport, directory, impl->name, options.heartbeat));
  const std::string self = impl->transport->endpoint();
  auto apply = [impl, self, serverKey](const ZRDirectoryEntry& e, bool added) {
    if (e.endpoint == self) return;  // our own names, already local
    if (added && !serverKey.empty()) impl->transport->setServerKey(e.endpoint, serverKey);
    if (added)
      impl->session->addRemoteService(e.name, {e.host, e.endpoint});
    else
      impl->session->removeRemoteService(e.name, e.endpoint);
  };
  impl->directoryClient->setListener(apply);
  // A host found dead (or gone, or the directory's host) takes its names with it at once, without
  // waiting for its lease to run out at the directory, which may be the one that died.
  impl->transport->setCreditListener(
      [impl](const std::string& endpoint, const std::string& stream, std::uint32_t credits) {
        std::shared_ptr<detail::ZRStreamSender> sender;
        {
          std::lock_guard<std::mutex> lock(impl->streamsMutex);
          auto it = impl->streams.find(stream);
          if (it != impl->streams.end()) sender = it->second.lock();
        }
        if (sender && sender->endpoint() == endpoint) sender->grant(credits);
      });
  impl->transport->setPeerLostListener([impl](const std::string& endpoint) {
    impl->forEachStream([&](detail::ZRStreamSender& s) {
      if (s.endpoint() == endpoint) s.lose();
    });
    if (impl->directoryClient) impl->directoryClient->forget(endpoint);
    for (const std::string& name : impl->session->services()) {
      auto where = impl->session->remoteService(name);
      if (where && where->address == endpoint) impl->session->removeRemoteService(name, endpoint);
    }
  });
  // What the client learnt before it had a listener.
  for (const ZRDirectoryEntry& e : impl->directoryClient->entries()) apply(e, true);
  impl->session->setNetwork(std::make_shared<DirectoryNetwork>(*impl->directoryClient));
  impl->reaper = detail::ZRReaper::start(shared_from_this());
}

std::string ZRBroker::endpoint() const {
  return impl_->transport ? impl_->transport->endpoint() : std::string();
}

ZRBroker::~ZRBroker() {
  shutdown();
}

const std::string& ZRBroker::getName() const {
  return impl_->name;
}

boost::shared_ptr<vo::Session> ZRBroker::session() const {
  return impl_->session;
}

boost::shared_ptr<ZRProxy> ZRBroker::getProxy(const std::string& moduleName, int /*flags*/) {
  boost::weak_ptr<vo::DynamicObject> handle = impl_->session->serviceHandle(moduleName);
  if (handle.expired() && impl_->transport && impl_->session->remoteService(moduleName))
    return boost::make_shared<ZRRemoteProxy>(moduleName, impl_->session, impl_->transport);
  if (handle.expired()) {
    throw ZRError(moduleName, "getProxy",
                  "no module called \"" + moduleName + "\" on broker \"" + impl_->name + "\"");
  }
  return boost::make_shared<ZRProxy>(moduleName, handle);
}

std::vector<std::string> ZRBroker::getModuleNames() const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  std::vector<std::string> names;
  names.reserve(impl_->modules.size());
  for (const auto& m : impl_->modules) names.push_back(m->getName());
  return names;
}

bool ZRBroker::hasModule(const std::string& moduleName) const {
  return impl_->session->hasService(moduleName);
}

void ZRBroker::registerModule(const boost::shared_ptr<ZRModuleCore>& module) {
  if (!module) throw ZRError("ZRBroker", "registerModule", "cannot register a null module");
  const std::string& name = module->getName();
  // A name another host holds may be that of a process killed a moment ago, whose lease at the
  // directory has not run out: a process started again at once (by a supervisor, say) gets its
  // names back once it has. A holder that lives on still refuses it, some heartbeats later.
  const auto until = std::chrono::steady_clock::now() + 6 * impl_->heartbeat;
  for (bool waited = false;; waited = true) {
    std::string heldBy;
    {
      std::lock_guard<std::mutex> lock(impl_->mutex);
      if (impl_->shutdown)
        throw ZRError(name, "registerModule", "broker \"" + impl_->name + "\" is shut down");
      // The session refuses a name that is taken, before the broker takes any ownership.
      module->seal();
      try {
        impl_->session->registerService(name, boost::weak_ptr<vo::DynamicObject>(module));
        impl_->modules.push_back(module);
        return;
      } catch (const ZRError& e) {
        const bool elsewhere = impl_->session->remoteService(name).has_value() ||
                               e.getDescription().rfind(ZRDirectoryServer::kHeldBy, 0) == 0;
        if (!impl_->directoryClient || !elsewhere || std::chrono::steady_clock::now() >= until)
          throw;
        heldBy = e.what();
      }
    }
    if (!waited)
      vo::log::LogStream(vo::LogLevel_Info, "", "registerModule", kCategory, 0)
          << "\"" << name << "\" is still held by another host (" << heldBy
          << "); waiting for it to be released, in case that host is gone" << std::endl;
    std::this_thread::sleep_for(impl_->heartbeat);
  }
}

bool ZRBroker::removeModule(const std::string& moduleName) {
  boost::shared_ptr<ZRModuleCore> released;
  {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    auto it = std::find_if(impl_->modules.begin(), impl_->modules.end(),
                           [&](const auto& m) { return m->getName() == moduleName; });
    if (it == impl_->modules.end()) return false;
    released = *it;
    impl_->modules.erase(it);
  }
  detail::ZRModuleAccess::liveness(*released)->retire();
  impl_->session->unregisterService(moduleName, released.get());
  // The module may be destroyed here, outside the lock: its destructor may call the broker.
  released.reset();
  return true;
}

void ZRBroker::unregisterModule(const std::string& moduleName, const ZRModuleCore* module) {
  impl_->session->unregisterService(moduleName, module);
}

namespace detail {
std::shared_ptr<ZRStreamSender> ZRModuleAccess::openStream(ZRBroker& broker,
                                                           const std::string& endpoint,
                                                           const std::string& label, int window) {
  ZRBroker::Impl& impl = *broker.impl_;
  if (!impl.transport) return nullptr;
  std::lock_guard<std::mutex> lock(impl.streamsMutex);
  const std::string name = label + "#" + std::to_string(impl.nextStream++);
  auto sender = std::make_shared<ZRStreamSender>(impl.transport, endpoint, name, window);
  impl.streams[name] = sender;
  return sender;
}

std::shared_ptr<ZRStreamSender> openStream(ZRBroker& broker, const std::string& endpoint,
                                           const std::string& label, int window) {
  return ZRModuleAccess::openStream(broker, endpoint, label, window);
}

void ZRModuleAccess::unregisterModule(ZRBroker& broker, const std::string& moduleName,
                                      const ZRModuleCore* module) {
  broker.unregisterModule(moduleName, module);
}
}  // namespace detail

void ZRBroker::shutdown() {
  {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    if (impl_->shutdown) return;
    impl_->shutdown = true;
  }
  if (impl_->reaper) impl_->reaper->stop();
  if (impl_->directoryClient) {
    // Withdraw every name in one go, before the modules go one by one; a directory that does not
    // answer gets no more tries (the lease takes the names away).
    impl_->session->setNetwork(nullptr);
    for (const std::string& name : getModuleNames()) {
      try {
        impl_->directoryClient->unpublish(name);
      } catch (const std::exception& e) {
        vo::log::LogStream(vo::LogLevel_Warning, "", "shutdown", kCategory, 0)
            << "cannot withdraw the names of broker \"" << impl_->name << "\": " << e.what()
            << std::endl;
        break;
      }
    }
    impl_->directoryClient->stop();
  }
  impl_->session->close();
  // One at a time, ordinary modules newest first, then the services by rank, so that a module's
  // destructor still finds what it uses (a sound extractor unsubscribing from the audio device).
  for (;;) {
    boost::shared_ptr<ZRModuleCore> module;
    {
      std::lock_guard<std::mutex> lock(impl_->mutex);
      if (impl_->modules.empty()) break;
      auto next = impl_->modules.rbegin();
      for (auto it = impl_->modules.rbegin(); it != impl_->modules.rend(); ++it) {
        if (serviceShutdownRank((*it)->getName()) < serviceShutdownRank((*next)->getName()))
          next = it;
      }
      module = *next;
      impl_->modules.erase(std::next(next).base());
    }
    const std::string name = module->getName();
    const std::shared_ptr<detail::ZRModuleLiveness> liveness =
        detail::ZRModuleAccess::liveness(*module);
    liveness->retire();
    module.reset();
    // A proxy call still running on the module (a delivery on the pool) holds it, and the module
    // goes when that call ends: wait for it, so that its destructor still finds the modules it
    // uses. Not from inside a proxy call, which could be one of those it would wait for.
    if (detail::proxyCallsOnThisThread() == 0) {
      liveness->waitIdle([&](int inFlight) {
        vo::log::LogStream(vo::LogLevel_Verbose, "", "shutdown", kCategory, 0)
            << "waiting for " << inFlight << " call(s) in flight on \"" << name << "\"";
      });
    }
  }
  // Remote calls still pending fail with "module destroyed"; calls from other hosts stop coming.
  if (impl_->transport) impl_->transport->shutdown();
  std::shared_ptr<PoolHolder> pool;
  {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    pool = std::move(impl_->pool);
  }
  if (!pool) return;
  {
    std::lock_guard<std::mutex> lock(pool->mutex);
    pool->closed = true;
  }
  if (tlCurrentPool == &pool->pool) {
    // Shut down from one of the pool's own tasks: it cannot wait for itself to finish.
    pool->pool.stop();
    std::thread([pool] { pool->pool.join(); }).detach();
    return;
  }
  pool->pool.join();
}

bool ZRBroker::isShutdown() const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->shutdown;
}

void ZRBroker::post(std::function<void()> work) {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  if (!impl_->pool)
    throw ZRError("ZRBroker", "post", "broker \"" + impl_->name + "\" is shut down");
  boost::asio::post(impl_->pool->pool, guarded(&impl_->pool->pool, std::move(work)));
}

ZRStrand ZRBroker::makeStrand() {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  if (!impl_->pool)
    throw ZRError("ZRBroker", "makeStrand", "broker \"" + impl_->name + "\" is shut down");
  ZRStrand s;
  s.impl_ = std::make_shared<ZRStrand::Impl>(
      ZRStrand::Impl{impl_->pool, boost::asio::make_strand(impl_->pool->pool.get_executor())});
  return s;
}

int ZRBroker::threadCount() const {
  return impl_->threads;
}

}  // namespace ZR
