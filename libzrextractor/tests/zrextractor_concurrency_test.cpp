// Many clients at once, direct and through proxies: the start and stop hooks must never overlap
// and must alternate, and the registry must be consistent once everybody is done.

#include <algorithm>
#include <atomic>
#include <random>
#include <thread>

#include <zrcommon/zrproxy.h>

#include "extractor_fixture.h"

using namespace testing_zr;

namespace {

class Guarded : public ZR::ZRExtractor {
 public:
  Guarded(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name)
      : ZRExtractor(broker, name) {}

  void xStartDetection(int, float) override {
    enter();
    if (starts.load() != stops.load()) ++faults;
    ++starts;
    leave();
  }
  void xUpdateParameters(int, float) override {
    // The readers must stay usable from inside a hook.
    getCurrentPeriod();
    getSubscribersInfo();
  }
  void xStopDetection() override {
    enter();
    if (starts.load() != stops.load() + 1) ++faults;
    ++stops;
    leave();
  }

  std::atomic<int> starts{0}, stops{0}, faults{0};

 private:
  void enter() {
    if (inHook_.exchange(true)) ++faults;
    std::this_thread::yield();  // widen the window an overlapping hook would fall into
  }
  void leave() { inHook_.store(false); }

  std::atomic<bool> inHook_{false};
};

void churn(unsigned seed, Guarded& x, ZR::ZRProxy& p, std::atomic<int>& unexpected) {
  std::mt19937 rng(seed);
  for (int i = 0; i < 2000; ++i) {
    const std::string name = "m" + std::to_string(rng() % 4);
    const int period = static_cast<int>(rng() % 200) - 10;
    const float precision = static_cast<float>(rng() % 100) / 100.0f;
    const bool remote = rng() % 2;
    try {
      switch (rng() % 9) {
        case 0:
          remote ? p.call<void>("subscribe", name, period, precision)
                 : x.subscribe(name, period, precision);
          break;
        case 1:
          remote ? p.call<void>("subscribe", name) : x.subscribe(name);
          break;
        case 2:
        case 3:
          remote ? p.call<void>("unsubscribe", name) : x.unsubscribe(name);
          break;
        case 4:
          remote ? p.call<void>("updatePeriod", name, period) : x.updatePeriod(name, period);
          break;
        case 5:
          remote ? p.call<void>("updatePrecision", name, precision)
                 : x.updatePrecision(name, precision);
          break;
        case 6:
          remote ? void(p.call<int>("getMyPeriod", name)) : void(x.getMyPeriod(name));
          break;
        case 7:
          remote ? void(p.call<float>("getMyPrecision", name)) : void(x.getMyPrecision(name));
          break;
        default:
          remote ? void(p.call<ZR::ZRValue>("getSubscribersInfo")) : void(x.getCurrentPeriod());
          break;
      }
    } catch (const ZR::ZRError&) {
      // Unknown names and an update racing the last departure are expected.
    } catch (...) {
      ++unexpected;
    }
  }
}

using ExtractorConcurrency = ExtractorTest;

TEST_F(ExtractorConcurrency, HooksAlternateAndTheRegistryStaysConsistent) {
  auto x = make<Guarded>("Detector");
  std::atomic<int> unexpected{0};
  std::vector<std::thread> threads;
  for (unsigned t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      auto p = broker->getProxy("Detector");
      churn(t + 1, *x, *p, unexpected);
    });
  }
  for (auto& t : threads) t.join();

  EXPECT_EQ(unexpected.load(), 0);
  EXPECT_EQ(x->faults.load(), 0);
  EXPECT_GT(x->starts.load(), 10);

  ZR::ZRValue info = x->getSubscribersInfo();
  if (info.getSize() == 0) {
    EXPECT_EQ(x->starts.load(), x->stops.load());
    EXPECT_EQ(current(*x), kIdle);
  } else {
    EXPECT_EQ(x->starts.load(), x->stops.load() + 1);
    int period = info[0][1];
    float precision = info[0][2];
    for (int i = 0; i < info.getSize(); ++i) {
      EXPECT_GE(int(info[i][1]), 1);  // clamped on every path
      period = std::min(period, int(info[i][1]));
      precision = std::max(precision, float(info[i][2]));
    }
    EXPECT_EQ(current(*x), Params(period, precision));
  }
}

}  // namespace
