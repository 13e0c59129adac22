#include "zrcommon/zrbroker.h"

#include <algorithm>
#include <mutex>
#include <thread>

#include <boost/asio/post.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/make_shared.hpp>

#include <vo/log.h>
#include <zrcommon/zrmodulecore.h>
#include <zrcommon/zrproxy.h>

namespace ZR {

namespace {
// The pool whose thread is running the current task, so that shutdown from inside a task does not
// wait for itself.
thread_local const void* tlCurrentPool = nullptr;

std::function<void()> guarded(const void* pool, std::function<void()> work) {
  return [pool, work = std::move(work)] {
    tlCurrentPool = pool;
    try {
      work();
    } catch (const std::exception& e) {
      vo::log::LogStream(vo::LogLevel_Error, "", "post", "zrcommon.ZRBroker", 0)
          << "background task failed: " << e.what() << std::endl;
    } catch (...) {
      vo::log::LogStream(vo::LogLevel_Error, "", "post", "zrcommon.ZRBroker", 0)
          << "background task failed with an unknown exception" << std::endl;
    }
    tlCurrentPool = nullptr;
  };
}
}  // namespace

struct ZRStrand::Impl {
  boost::asio::strand<boost::asio::thread_pool::executor_type> strand;
  const void* pool;
};

ZRStrand::ZRStrand() = default;

void ZRStrand::post(std::function<void()> work) const {
  if (!impl_) throw ZRError("ZRBroker", "ZRStrand::post", "this strand belongs to no broker");
  boost::asio::post(impl_->strand, guarded(impl_->pool, std::move(work)));
}

struct ZRBroker::Impl {
  std::string name;
  boost::shared_ptr<vo::Session> session = boost::make_shared<vo::Session>();
  mutable std::mutex mutex;
  std::vector<boost::shared_ptr<ZRModuleCore>> modules;  // registration order
  std::unique_ptr<boost::asio::thread_pool> pool;
  int threads = 0;
  bool shutdown = false;
};

ZRBroker::ZRBroker(const std::string& name, int threads) : impl_(new Impl) {
  impl_->name = name;
  if (threads <= 0) threads = std::max(2u, std::thread::hardware_concurrency());
  impl_->threads = threads;
  impl_->pool.reset(new boost::asio::thread_pool(static_cast<std::size_t>(threads)));
}

boost::shared_ptr<ZRBroker> ZRBroker::createBroker(const std::string& name, int threads) {
  return boost::shared_ptr<ZRBroker>(new ZRBroker(name, threads));
}

ZRBroker::~ZRBroker() { shutdown(); }

const std::string& ZRBroker::getName() const { return impl_->name; }

boost::shared_ptr<vo::Session> ZRBroker::session() const { return impl_->session; }

boost::shared_ptr<ZRProxy> ZRBroker::getProxy(const std::string& moduleName, int /*flags*/) {
  boost::weak_ptr<vo::DynamicObject> handle = impl_->session->serviceHandle(moduleName);
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
  std::lock_guard<std::mutex> lock(impl_->mutex);
  if (impl_->shutdown) {
    throw ZRError(module->getName(), "registerModule",
                  "broker \"" + impl_->name + "\" is shut down");
  }
  // The session refuses a name that is taken, before the broker takes any ownership.
  impl_->session->registerService(module->getName(),
                                  boost::weak_ptr<vo::DynamicObject>(module));
  impl_->modules.push_back(module);
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
  impl_->session->unregisterService(moduleName, released.get());
  // The module may be destroyed here, outside the lock: its destructor may call the broker.
  released.reset();
  return true;
}

void ZRBroker::unregisterModule(const std::string& moduleName, const ZRModuleCore* module) {
  impl_->session->unregisterService(moduleName, module);
}

void ZRBroker::shutdown() {
  {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    if (impl_->shutdown) return;
    impl_->shutdown = true;
  }
  impl_->session->close();
  // Newest first, one at a time, so that a module's destructor still finds the older modules it
  // depends on (a sound extractor unsubscribing from the audio device).
  for (;;) {
    boost::shared_ptr<ZRModuleCore> module;
    {
      std::lock_guard<std::mutex> lock(impl_->mutex);
      if (impl_->modules.empty()) break;
      module = impl_->modules.back();
      impl_->modules.pop_back();
    }
    module.reset();
  }
  std::unique_ptr<boost::asio::thread_pool> pool;
  {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    pool = std::move(impl_->pool);
  }
  if (!pool) return;
  if (tlCurrentPool == pool.get()) {
    // Shut down from one of the pool's own tasks: it cannot wait for itself to finish.
    pool->stop();
    std::thread([p = pool.release()] {
      p->join();
      delete p;
    }).detach();
    return;
  }
  pool->join();
}

bool ZRBroker::isShutdown() const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->shutdown;
}

void ZRBroker::post(std::function<void()> work) {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  if (!impl_->pool) throw ZRError("ZRBroker", "post", "broker \"" + impl_->name + "\" is shut down");
  boost::asio::post(*impl_->pool, guarded(impl_->pool.get(), std::move(work)));
}

ZRStrand ZRBroker::makeStrand() {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  if (!impl_->pool)
    throw ZRError("ZRBroker", "makeStrand", "broker \"" + impl_->name + "\" is shut down");
  ZRStrand s;
  s.impl_ = std::make_shared<ZRStrand::Impl>(
      ZRStrand::Impl{boost::asio::make_strand(impl_->pool->get_executor()), impl_->pool.get()});
  return s;
}

int ZRBroker::threadCount() const { return impl_->threads; }

}  // namespace ZR
