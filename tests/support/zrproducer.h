#pragma once

// A producer that modules subscribe to, standing in for the audio device or an extractor: records
// each "subscribe" and "unsubscribe" that it accepts, in order, refuses either on demand, and
// calls back into the memory service from "subscribe", as a real producer may.

#include <atomic>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

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
    record("subscribe", module);
    subscribed.notify();
  }
  void unsubscribe(const std::string& module) {
    if (failUnsubscribe) throw ZR::ZRError(getName(), "unsubscribe", "busy");
    record("unsubscribe", module);
  }
  // The calls accepted since the last take().
  std::vector<Call> take() {
    std::lock_guard<std::mutex> lock(mutex_);
    return std::exchange(calls_, {});
  }
  // The modules named by those of `method`.
  std::vector<std::string> of(const std::string& method) {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> modules;
    for (const auto& [m, module] : calls_)
      if (m == method) modules.push_back(module);
    return modules;
  }
  std::atomic<bool> failSubscribe{false}, failUnsubscribe{false};
  Signal subscribed;
  std::set<std::string> active;  // read once the calls are over
  int violations = 0;            // subscribes of the subscribed, unsubscribes of the others

 private:
  void record(const std::string& method, const std::string& module) {
    std::lock_guard<std::mutex> lock(mutex_);
    calls_.emplace_back(method, module);
    violations += method == "subscribe" ? !active.insert(module).second : !active.erase(module);
  }
  std::mutex mutex_;
  std::vector<Call> calls_;
};

}  // namespace zrtest
