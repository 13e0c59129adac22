// Cost of an in-process proxy call against a plain virtual call. Build in Release with
// -DZR_BUILD_BENCHMARKS=ON -DZR_BUILD_TESTS=OFF, then run bench/bench_proxy; compare CPU times
// on a loaded machine.

#include <string>

#include <benchmark/benchmark.h>

#include <zrcommon/zrbroker.h>
#include <zrcommon/zrmodule.h>
#include <zrcommon/zrproxy.h>

namespace {

class Target : public ZR::ZRModule {
 public:
  Target(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name) : ZRModule(broker, name) {
    functionName("getCurrentPeriod", "Target", "Gives the period.", 0);
    setReturn("period", "The period.");
    bindMethod(&Target::getCurrentPeriod);

    functionName("subscribe", "Target", "Takes a subscription.", 0);
    addParam("name", "Subscriber.");
    addParam("period", "Period.");
    addParam("precision", "Precision.");
    bindMethod(&Target::subscribe);
  }
  virtual int getCurrentPeriod() { return period_; }
  virtual void subscribe(const std::string& name, const int& period, const float& precision) {
    period_ = period + static_cast<int>(name.size()) + static_cast<int>(precision);
  }

 private:
  int period_ = 100;
};

struct Fixture {
  Fixture()
      : broker(ZR::ZRBroker::createBroker("bench", 2)),
        module(ZR::ZRModule::createModule<Target>(broker, "Target")),
        proxy(broker->getProxy("Target")) {}
  ~Fixture() {
    proxy.reset();
    module.reset();
    broker->shutdown();
  }
  boost::shared_ptr<ZR::ZRBroker> broker;
  boost::shared_ptr<Target> module;
  boost::shared_ptr<ZR::ZRProxy> proxy;
};

void BM_ProxyCallNoArguments(benchmark::State& state) {
  Fixture f;
  for (auto _ : state) benchmark::DoNotOptimize(f.proxy->call<int>("getCurrentPeriod"));
}
BENCHMARK(BM_ProxyCallNoArguments);

// The same call with a name built once: a name past the short-string buffer otherwise costs an
// allocation per call.
void BM_ProxyCallNoArgumentsNameBuiltOnce(benchmark::State& state) {
  Fixture f;
  const std::string method("getCurrentPeriod");
  for (auto _ : state) benchmark::DoNotOptimize(f.proxy->call<int>(method));
}
BENCHMARK(BM_ProxyCallNoArgumentsNameBuiltOnce);

void BM_ProxyCallStringIntFloat(benchmark::State& state) {
  Fixture f;
  const std::string name("client");
  for (auto _ : state) f.proxy->call<void>("subscribe", name, 100, 0.5f);
}
BENCHMARK(BM_ProxyCallStringIntFloat);

void BM_DirectVirtualCall(benchmark::State& state) {
  Fixture f;
  Target* target = f.module.get();
  for (auto _ : state) {
    benchmark::DoNotOptimize(target);  // hides the dynamic type from the optimiser
    benchmark::DoNotOptimize(target->getCurrentPeriod());
  }
}
BENCHMARK(BM_DirectVirtualCall);

}  // namespace

BENCHMARK_MAIN();
