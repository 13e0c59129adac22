// The broker's core: it owns the modules and the pool, hands out proxies and strands, and shuts
// down in an order that lets every module's destructor still reach what it uses.

#include "zrbrokerimpl.h"

#include <algorithm>
#include <thread>

#include <boost/asio/post.hpp>

#include <zrcommon/detail/zrmoduleinternals.h>
#include <zrcommon/zrproxy.h>
#include <zrcommon/zrservicenames.h>

#include "zrreaper.h"

namespace ZR {

namespace {
// The pool whose thread is running the current task, so that shutdown from inside a task does not
// wait for itself.
thread_local const void* tlCurrentPool = nullptr;
}  // namespace

const void* currentPool() {
  return tlCurrentPool;
}

std::function<void()> guardedTask(const void* pool, std::function<void()> work) {
  return [pool, work = std::move(work)] {
    tlCurrentPool = pool;
    try {
      work();
    } catch (const std::exception& e) {
      VO_LOG(vo::LogLevel_Error, kBrokerCategory) << "background task failed: " << e.what();
    } catch (...) {
      VO_LOG(vo::LogLevel_Error, kBrokerCategory)
          << "background task failed with an unknown exception";
    }
    tlCurrentPool = nullptr;
  };
}

ZRStrand::ZRStrand() = default;

void ZRStrand::post(std::function<void()> work) const {
  if (!impl_) throw ZRError("ZRBroker", "ZRStrand::post", "this strand belongs to no broker");
  PoolHolder& holder = *impl_->holder;
  std::lock_guard<std::mutex> lock(holder.mutex);
  // Work posted by the pool's own tasks still runs while shutdown joins the pool; work from
  // anywhere else would be queued on a pool that no longer runs anything.
  if (holder.closed && tlCurrentPool != &holder.pool)
    throw ZRError("ZRBroker", "ZRStrand::post", "the broker of this strand is shut down");
  boost::asio::post(impl_->strand, guardedTask(&holder.pool, std::move(work)));
}

ZRBroker::ZRBroker(const std::string& name, int threads) : impl_(std::make_shared<Impl>()) {
  impl_->self = impl_;
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
    return impl_->remoteProxy(moduleName);
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
      // What the directory will be told of it (not over a module of this host that has the name).
      if (!impl_->session->service(name)) impl_->noteMethods(*module);
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
      VO_LOG(vo::LogLevel_Info, kBrokerCategory)
          << "\"" << name << "\" is still held by another host (" << heldBy
          << "); waiting for it to be released, in case that host is gone";
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
  impl_->forgetInfo(moduleName);
  impl_->session->unregisterService(moduleName, released.get());
  // The module may be destroyed here, outside the lock: its destructor may call the broker.
  released.reset();
  return true;
}

void ZRBroker::unregisterModule(const std::string& moduleName, const ZRModuleCore* module) {
  impl_->forgetInfo(moduleName);
  impl_->session->unregisterService(moduleName, module);
}

namespace detail {
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
  {
    std::lock_guard<std::mutex> lock(impl_->infoMutex);
    impl_->shutdownStarted = true;  // no more telling a memory service that came back
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
        VO_LOG(vo::LogLevel_Warning, kBrokerCategory)
            << "cannot withdraw the names of broker \"" << impl_->name << "\": " << e.what();
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
        VO_LOG(vo::LogLevel_Verbose, kBrokerCategory)
            << "waiting for " << inFlight << " call(s) in flight on \"" << name << "\"";
      });
    }
  }
  // Remote calls still pending fail with "module destroyed"; calls from other hosts stop coming.
  if (impl_->transport) impl_->transport->shutdown();
  // So do the messages of streams whose credits will never come now, letting go of what waits
  // for them (a delivery line that holds the stream holds itself through them).
  impl_->forEachStream([](detail::ZRStreamSender& s) { s.close(); });
  std::shared_ptr<PoolHolder> pool;
  {
    std::lock_guard<std::mutex> lock(impl_->poolMutex);
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
  std::lock_guard<std::mutex> lock(impl_->poolMutex);
  if (!impl_->pool)
    throw ZRError("ZRBroker", "post", "broker \"" + impl_->name + "\" is shut down");
  boost::asio::post(impl_->pool->pool, guardedTask(&impl_->pool->pool, std::move(work)));
}

ZRStrand ZRBroker::makeStrand() {
  return impl_->makeStrand();
}

ZRStrand ZRBroker::Impl::makeStrand() {
  std::lock_guard<std::mutex> lock(poolMutex);
  if (!pool) throw ZRError("ZRBroker", "makeStrand", "broker \"" + name + "\" is shut down");
  ZRStrand s;
  s.impl_ = std::make_shared<ZRStrand::Impl>(
      ZRStrand::Impl{pool, boost::asio::make_strand(pool->pool.get_executor())});
  return s;
}

int ZRBroker::threadCount() const {
  return impl_->threads;
}

}  // namespace ZR
