#pragma once

// A module others subscribe to, standing in for the audio device or an extractor: records the
// "subscribe" and "unsubscribe" calls it accepts, in order, refuses either on demand, and calls
// back into the memory service from "subscribe", as a real producer may.

#include <atomic>
#include <set>
#include <utility>

#include <zrcommon/zrmodule.h>
#include <zrcommon/zrproxy.h>
#include <zrcommon/zrservicenames.h>
#include <zrtest.h>

namespace zrtest {

class Producer : public ZR::ZRModule {
 public:
  using Call = std::pair<std::string, std::string>;  // method, module name
  Producer(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name)
      : ZRModule(broker, name) {
    for (auto m : {std::make_pair("subscribe", &Producer::subscribe),
                   std::make_pair("unsubscribe", &Producer::unsubscribe)}) {
      functionName(m.first, "Producer", "Records a call.", 0);
      addParam("module", "Subscriber.");
      bindMethod(m.second);
    }
  }
  void subscribe(const std::string& module) {
    if (failSubscribe) throw ZR::ZRError(getName(), "subscribe", "device unavailable");
    getParentBroker()
        ->getProxy(ZR::kMemoryServiceName)
        ->call<void>("insertData", getName() + "/last", module);
    std::lock_guard<std::mutex> lock(mutex_);
    calls_.emplace_back("subscribe", module);
    violations += !active.insert(module).second;
    subscribed.notify();
  }
  void unsubscribe(const std::string& module) {
    if (failUnsubscribe) throw ZR::ZRError(getName(), "unsubscribe", "busy");
    std::lock_guard<std::mutex> lock(mutex_);
    calls_.emplace_back("unsubscribe", module);
    violations += active.erase(module) == 0;
  }
  std::vector<Call> take() {  // the calls since the last take()
    std::lock_guard<std::mutex> lock(mutex_);
    return std::exchange(calls_, {});
  }
  std::vector<std::string> of(const std::string& method) {  // the modules of those of `method`
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> modules;
    for (const auto& call : calls_)
      if (call.first == method) modules.push_back(call.second);
    return modules;
  }
  std::atomic<bool> failSubscribe{false}, failUnsubscribe{false};
  Signal subscribed;
  std::set<std::string> active;  // read once the calls are over
  int violations = 0;            // subscribes of the subscribed, unsubscribes of the others

 private:
  std::mutex mutex_;
  std::vector<Call> calls_;
};

}  // namespace zrtest
