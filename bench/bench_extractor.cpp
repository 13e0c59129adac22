// Cost of one client joining and leaving an extractor that already serves 100 others: the
// registry update, two reconciliation passes and the hooks, direct and through a proxy.

#include <benchmark/benchmark.h>

#include <string>

#include <vo/log.h>
#include <zrcommon/zrbroker.h>
#include <zrcommon/zrmodule.h>
#include <zrcommon/zrproxy.h>
#include <zrcommon/zrservicenames.h>
#include <zrextractor/zrextractor.h>
#include <zrmemory/zrmemory.h>

namespace {

class Idle : public ZR::ZRExtractor {
 public:
  Idle(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name)
      : ZRExtractor(broker, name) {}
  void xStartDetection(int, float) override {}
  void xStopDetection() override {}
};

struct Setup {
  Setup() {
    // Only errors would be printed, and none occur: the verbose messages cost one compare.
    vo::log::setLogLevel(vo::LogLevel_Error);
    broker = ZR::ZRBroker::createBroker("bench", 2);
    memory = ZR::ZRModule::createModule<ZR::ZRMemory>(broker, ZR::kMemoryServiceName);
    extractor = ZR::ZRModule::createModule<Idle>(broker, "Extractor");
    for (int i = 0; i < 100; ++i)
      extractor->subscribe("client" + std::to_string(i), 10 + i, 0.01f * static_cast<float>(i));
    proxy = broker->getProxy("Extractor");
  }
  ~Setup() {
    proxy.reset();
    extractor.reset();
    memory.reset();
    broker->shutdown();
  }
  boost::shared_ptr<ZR::ZRBroker> broker;
  boost::shared_ptr<ZR::ZRMemory> memory;
  boost::shared_ptr<Idle> extractor;
  boost::shared_ptr<ZR::ZRProxy> proxy;
};

void BM_SubscribeUnsubscribeDirect(benchmark::State& state) {
  Setup s;
  const std::string name = "probe";
  for (auto _ : state) {
    s.extractor->subscribe(name, 50, 0.5f);
    s.extractor->unsubscribe(name);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SubscribeUnsubscribeDirect);

void BM_SubscribeUnsubscribeProxy(benchmark::State& state) {
  Setup s;
  const std::string name = "probe";
  for (auto _ : state) {
    s.proxy->call<void>("subscribe", name, 50, 0.5f);
    s.proxy->call<void>("unsubscribe", name);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SubscribeUnsubscribeProxy);

}  // namespace

BENCHMARK_MAIN();
