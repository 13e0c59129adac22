#pragma once

// The reaper of a broker in a network of hosts. Included by zrbroker.cpp only.
//
// A module that leaves the session (its host was killed or left, or it was destroyed without
// unsubscribing) may still be listed as a subscriber by modules of this broker: an extractor
// would keep running for it, the audio device keep capturing. Each broker reaps for its own
// modules: every local module that lists the gone name among its subscribers ("getSubscribersInfo"
// of an extractor, "getSubscribers" of the device) and has "unsubscribe" is told "unsubscribe"
// with it, through its own remote method, so that an extractor's stop hook runs and the device
// stops when nobody is left. A name that never was a module never leaves the session, so a
// subscriber given by hand is left alone.
//
// The audio device leaving is the other case: a sound extractor of this broker that is still
// subscribed to it gets one clear line naming both (destroying the extractor before a device
// comes back ends the process, as the product defines), and when a device comes back under the
// name, the extractor is subscribed to it again on its behalf.

#include <algorithm>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include <vo/log.h>
#include <vo/session.h>
#include <zrcommon/zrbroker.h>
#include <zrcommon/zrproxy.h>
#include <zrcommon/zrservicenames.h>

namespace ZR {
namespace detail {

/// Contract: start and stop may be called from any thread; the session's removal listener only
/// posts, and the reaping runs on one strand of the broker's pool, one departure at a time,
/// blocking that strand for the "unsubscribe" calls (and the stop hooks they run).
class ZRReaper : public std::enable_shared_from_this<ZRReaper> {
 public:
  static std::shared_ptr<ZRReaper> start(const boost::shared_ptr<ZRBroker>& broker) {
    std::shared_ptr<ZRReaper> reaper(new ZRReaper(broker));
    std::weak_ptr<ZRReaper> weak = reaper;
    reaper->listener_ = reaper->session_->connectServiceRemoved([weak](const std::string& name) {
      if (std::shared_ptr<ZRReaper> self = weak.lock()) self->post(name);
    });
    return reaper;
  }

  /// No more reaping: the broker is shutting down and destroys its modules itself.
  void stop() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (stopped_) return;
      stopped_ = true;
    }
    session_->disconnectServiceRemoved(listener_);
  }

 private:
  explicit ZRReaper(const boost::shared_ptr<ZRBroker>& broker)
      : broker_(broker), session_(broker->session()), strand_(broker->makeStrand()) {}

  static const char* category() { return "zrcommon.ZRReaper"; }

  bool stopped() {
    std::lock_guard<std::mutex> lock(mutex_);
    return stopped_;
  }

  // In the thread that removed the name, which may be the transport's: only posts.
  void post(const std::string& name) {
    if (stopped()) return;
    std::weak_ptr<ZRReaper> weak = shared_from_this();
    try {
      strand_.post([weak, name] {
        if (std::shared_ptr<ZRReaper> self = weak.lock()) self->reap(name);
      });
    } catch (const ZRError&) {
      // The broker is shut down: its modules go with it.
    }
  }

  static bool lists(const ZRValue& info, const std::string& name) {
    for (int i = 0; i < info.getSize(); ++i) {
      const ZRValue& entry = info[i];
      const ZRValue& first = entry.isArray() && entry.getSize() > 0 ? entry[0] : entry;
      if (first.isString() && std::string(first) == name) return true;
    }
    return false;
  }

  // Whether `module` (local) lists `name` among its subscribers; false when it keeps no list.
  static bool listsSubscriber(vo::DynamicObject& object, ZRProxy& module, const std::string& name) {
    if (object.hasMethod("getSubscribersInfo"))
      return lists(module.call<ZRValue>("getSubscribersInfo"), name);
    if (object.hasMethod("getSubscribers")) {
      const auto names = module.call<std::vector<std::string>>("getSubscribers");
      return std::find(names.begin(), names.end(), name) != names.end();
    }
    return false;
  }

  void reap(const std::string& name) {
    boost::shared_ptr<ZRBroker> broker = broker_.lock();
    if (!broker || broker->isShutdown() || stopped()) return;
    // Back already: it is running again, and whatever it subscribed to serves it.
    if (session_->hasService(name)) return;
    if (name == kAudioDeviceServiceName) deviceGone(*broker, name);
    for (const std::string& m : broker->getModuleNames()) {
      boost::shared_ptr<vo::DynamicObject> object = session_->service(m);
      if (!object || m == name || !object->hasMethod("unsubscribe")) continue;
      try {
        boost::shared_ptr<ZRProxy> module = broker->getProxy(m, 0);
        if (!listsSubscriber(*object, *module, name)) continue;
        vo::log::LogStream(vo::LogLevel_Info, "", "reap", category(), 0)
            << m << ": unsubscribing \"" << name << "\", which is gone";
        module->call<void>("unsubscribe", name);
      } catch (const ZRError& e) {
        // Taken back meanwhile by whoever subscribed it (the memory service), or the module is
        // going away itself.
        vo::log::LogStream(vo::LogLevel_Verbose, "", "reap", category(), 0)
            << m << ": \"" << name << "\", which is gone, is not unsubscribed: " << e.what();
      }
    }
  }

  // The device left: sound extractors subscribed to it say so, and wait for its return.
  void deviceGone(ZRBroker& broker, const std::string& device) {
    std::vector<std::string> waiting;
    for (const std::string& m : broker.getModuleNames()) {
      boost::shared_ptr<vo::DynamicObject> object = session_->service(m);
      if (!object || !object->hasMethod("processRemote") ||
          !object->hasMethod("getSubscribersInfo"))
        continue;
      try {
        // A sound extractor is subscribed to the device exactly while it has subscribers.
        if (broker.getProxy(m, 0)->call<ZRValue>("getSubscribersInfo").getSize() == 0) continue;
      } catch (const ZRError&) {
        continue;
      }
      vo::log::LogStream(vo::LogLevel_Warning, "", "reap", category(), 0)
          << m << ": its audio device \"" << device << "\" is gone while \"" << m
          << "\" is subscribed to it; no sound reaches \"" << m << "\" until a device comes back "
          << "under that name, and destroying \"" << m << "\" before then ends this process "
          << "(its unsubscribe from the device fails)";
      waiting.push_back(m);
    }
    if (waiting.empty()) return;
    std::weak_ptr<ZRReaper> weak = shared_from_this();
    // The continuation runs in the thread that registers the device: it only posts.
    session_->waitForService(device).async().connect(
        [weak, device, waiting](const vo::Future<void>& f) {
          std::shared_ptr<ZRReaper> self = weak.lock();
          if (!self || f.hasError() || self->stopped()) return;
          try {
            self->strand_.post([weak, device, waiting] {
              if (std::shared_ptr<ZRReaper> s = weak.lock()) s->deviceBack(device, waiting);
            });
          } catch (const ZRError&) {
          }
        });
  }

  // The device is back: the extractors that still have subscribers listen to it again.
  void deviceBack(const std::string& device, const std::vector<std::string>& modules) {
    boost::shared_ptr<ZRBroker> broker = broker_.lock();
    if (!broker || broker->isShutdown() || stopped()) return;
    for (const std::string& m : modules) {
      try {
        boost::shared_ptr<ZRProxy> module = broker->getProxy(m, 0);
        if (module->call<ZRValue>("getSubscribersInfo").getSize() == 0) continue;
        broker->getProxy(device, 0)->call<void>("subscribe", m);
        vo::log::LogStream(vo::LogLevel_Info, "", "reap", category(), 0)
            << m << ": subscribed again to \"" << device << "\", which came back";
      } catch (const ZRError& e) {
        vo::log::LogStream(vo::LogLevel_Warning, "", "reap", category(), 0)
            << m << ": cannot subscribe again to \"" << device
            << "\", which came back: " << e.what();
      }
    }
  }

  const boost::weak_ptr<ZRBroker> broker_;
  const boost::shared_ptr<vo::Session> session_;
  const ZRStrand strand_;
  unsigned long listener_ = 0;
  std::mutex mutex_;
  bool stopped_ = false;
};

}  // namespace detail
}  // namespace ZR
