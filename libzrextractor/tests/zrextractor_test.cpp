// Subscriber registry and subscription protocol: hooks, clamping, reconciliation, log records and
// errors, called directly on the extractor.

#include <cmath>
#include <limits>
#include <tuple>

#include "extractor_fixture.h"

using namespace testing_zr;
using vo::LogLevel_Verbose;
using vo::LogLevel_Warning;

namespace {

// Limits overridden by a derived extractor: the base must read them through the virtual call.
class Limited : public Recorder {
 public:
  Limited(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name, int minimum, int maximum)
      : Recorder(broker, name), minimum_(minimum), maximum_(maximum) {}
  int getMinimumPeriod() override { return minimum_; }
  int getMaximumPeriod() override { return maximum_; }

 private:
  int minimum_, maximum_;
};

zrtest::Line received(const std::string& method, const std::string& from) {
  return {LogLevel_Verbose, method, "Detector received " + method + " from " + from};
}
zrtest::Line clamped(const char* method, const char* size, int period) {
  return {LogLevel_Warning, method,
          std::string("Detector requested period is too ") + size +
              "; subscribe with period = " + std::to_string(period) + " ms."};
}

using ExtractorSubscription = ExtractorTest;
using ExtractorClamping = ExtractorTest;
using ExtractorPrecision = ExtractorTest;
using ExtractorErrors = ExtractorTest;
using ExtractorRegistry = ExtractorTest;

TEST_F(ExtractorSubscription, FirstJoinsStartsOthersUpdateLastLeavesStops) {
  auto x = make("Detector");
  LogCapture log;
  EXPECT_EQ(current(*x), kIdle);

  x->subscribe("A", 100, 0.5f);
  EXPECT_EQ(x->takeHooks(), Hooks({"start 100 0.5"}));
  EXPECT_TRUE(log.take().empty());  // the start path logs nothing
  EXPECT_EQ(current(*x), Params(100, 0.5f));

  x->subscribe("B", 40, 0.2f);
  EXPECT_EQ(x->takeHooks(), Hooks({"update 40 0.5"}));
  EXPECT_EQ(log.takeLines(), Lines{received("subscribe", "B")});
  EXPECT_EQ(mine(*x, "B"), Params(40, 0.2f));

  x->unsubscribe("B");
  EXPECT_EQ(x->takeHooks(), Hooks({"update 100 0.5"}));
  EXPECT_EQ(log.takeLines(), Lines{received("unsubscribe", "B")});

  x->unsubscribe("A");
  EXPECT_EQ(x->takeHooks(), Hooks({"stop"}));
  EXPECT_EQ(current(*x), kIdle);
  EXPECT_EQ(log.takeLines(), Lines{received("unsubscribe", "A")});

  // Idle again: the next client starts detection afresh.
  x->subscribe("C", 70, 0.1f);
  EXPECT_EQ(x->takeHooks(), Hooks({"start 70 0.1"}));
}

TEST_F(ExtractorSubscription, ResubscribingWarnsReplacesBothValuesAndNeverRestarts) {
  auto x = make("Detector");
  x->subscribe("A", 100, 0.5f);
  x->takeHooks();
  LogCapture log;

  // Sole subscriber: the registry is not empty, so this is the update path.
  x->subscribe("A", 60, 0.7f);
  EXPECT_EQ(x->takeHooks(), Hooks({"update 60 0.7"}));
  EXPECT_EQ(log.takeLines(),
            Lines({{LogLevel_Warning, "subscribe",
                    "Detector the module is already subscribed: will just update the parameters."},
                   received("subscribe", "A")}));

  x->subscribe("B", 40, 0.2f);
  x->subscribe("B", 200, 0.9f);
  EXPECT_EQ(x->takeHooks(), Hooks({"update 40 0.7", "update 60 0.9"}));
  EXPECT_EQ(mine(*x, "B"), Params(200, 0.9f));
  EXPECT_EQ(x->getSubscribersInfo().getSize(), 2);
}

TEST_F(ExtractorSubscription, WithoutParametersUsesDefaultsWhenIdleAndCurrentValuesWhenRunning) {
  auto x = make("Detector");
  x->subscribe("A");
  EXPECT_EQ(x->takeHooks(), Hooks({"start 30 0"}));
  EXPECT_EQ(mine(*x, "A"), Params(30, 0.0f));
  x->unsubscribe("A");
  x->takeHooks();

  x->subscribe("A", 100, 0.5f);
  x->subscribe("B", 40, 0.2f);
  x->takeHooks();
  x->subscribe("C");
  EXPECT_EQ(x->takeHooks(), Hooks({"update 40 0.5"}));
  EXPECT_EQ(mine(*x, "C"), Params(40, 0.5f));
}

TEST_F(ExtractorSubscription, FailingStartLeavesTheSubscriberRegistered) {
  auto x = make("Detector");
  x->failStart = true;
  EXPECT_THROW(x->subscribe("A", 100, 0.5f), std::runtime_error);
  EXPECT_EQ(x->takeHooks(), Hooks({"start 100 0.5"}));
  EXPECT_EQ(x->getMyPeriod("A"), 100);
  EXPECT_EQ(x->getCurrentPeriod(), 100);

  // Counts as detecting: the next client takes the update path, and the lock was released.
  x->failStart = false;
  LogCapture log;
  x->subscribe("B", 40, 0.2f);
  EXPECT_EQ(x->takeHooks(), Hooks({"update 40 0.5"}));
  EXPECT_EQ(log.take().size(), 1u);
}

TEST_F(ExtractorSubscription, FailingStopLeavesTheRegistryEmptyAndLogsNothing) {
  auto x = make("Detector");
  x->subscribe("A", 100, 0.5f);
  x->failStop = true;
  LogCapture log;
  EXPECT_THROW(x->unsubscribe("A"), ZR::ZRError);
  EXPECT_EQ(x->takeHooks(), Hooks({"start 100 0.5", "stop"}));
  EXPECT_TRUE(log.take().empty());
  EXPECT_EQ(x->getSubscribersInfo().getSize(), 0);
  EXPECT_EQ(current(*x), kIdle);

  x->failStop = false;
  x->subscribe("A", 50, 0.1f);
  EXPECT_EQ(x->takeHooks(), Hooks({"start 50 0.1"}));
}

TEST_F(ExtractorClamping, DefaultLimitsRaiseToOneAndAcceptAnyLargePeriod) {
  auto x = make("Detector");
  LogCapture log;
  x->subscribe("A", 0, 0.5f);
  EXPECT_EQ(x->takeHooks(), Hooks({"start 1 0.5"}));
  EXPECT_EQ(log.takeLines(), Lines{clamped("subscribe", "small", 1)});

  x->subscribe("B", -250, 0.5f);
  EXPECT_EQ(x->getMyPeriod("B"), 1);
  EXPECT_EQ(log.takeLines(), Lines({clamped("subscribe", "small", 1), received("subscribe", "B")}));

  x->subscribe("C", 1000000, 0.5f);
  EXPECT_EQ(x->getMyPeriod("C"), 1000000);
  EXPECT_EQ(log.takeLines(), Lines{received("subscribe", "C")});
}

TEST_F(ExtractorClamping, MinimumAboveMaximumLogsBothAndKeepsTheMaximum) {
  auto x = make<Limited>("Detector", 50, 20);
  LogCapture log;
  x->subscribe("A", 5, 0.3f);
  EXPECT_EQ(x->takeHooks(), Hooks({"start 20 0.3"}));
  EXPECT_EQ(x->getMyPeriod("A"), 20);
  EXPECT_EQ(log.takeLines(),
            Lines({clamped("subscribe", "small", 50), clamped("subscribe", "big", 20)}));

  // Zero is a bound too; only a negative maximum means none.
  auto z = make<Limited>("Zero", 1, 0);
  z->subscribe("A", 5, 0.3f);
  EXPECT_EQ(z->getMyPeriod("A"), 0);
}

TEST_F(ExtractorClamping, UpdatePeriodClampsUnderItsOwnNameAndKeepsThePrecision) {
  auto x = make<Limited>("Detector", 10, 500);
  x->subscribe("A", 100, 0.3f);
  x->takeHooks();
  LogCapture log;

  x->updatePeriod("A", 3);
  EXPECT_EQ(mine(*x, "A"), Params(10, 0.3f));
  EXPECT_EQ(x->takeHooks(), Hooks({"update 10 0.3"}));
  x->updatePeriod("A", 900);
  EXPECT_EQ(x->getMyPeriod("A"), 500);
  EXPECT_EQ(x->takeHooks(), Hooks({"update 500 0.3"}));
  EXPECT_EQ(log.takeLines(),
            Lines({clamped("updatePeriod", "small", 10), clamped("updatePeriod", "big", 500)}));
}

TEST_F(ExtractorPrecision, NegativeValuesAreStoredUnchanged) {
  auto x = make("Detector");
  x->subscribe("A", 100, -0.5f);
  x->subscribe("B", 100, -2.0f);
  EXPECT_EQ(x->getMyPrecision("A"), -0.5f);
  EXPECT_EQ(x->getCurrentPrecision(), -0.5f);
  x->updatePrecision("A", -3.0f);
  EXPECT_EQ(x->getMyPrecision("A"), -3.0f);
  EXPECT_EQ(x->getCurrentPrecision(), -2.0f);
}

TEST_F(ExtractorPrecision, NaNCountsOnlyAsTheFirstEntryInNameOrder) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  auto x = make("Detector");
  x->subscribe("b", 10, 0.3f);
  x->subscribe("c", 10, nan);  // after "b": compares greater than nothing
  EXPECT_EQ(x->getCurrentPrecision(), 0.3f);
  x->subscribe("d", 10, 0.7f);
  EXPECT_EQ(x->getCurrentPrecision(), 0.7f);

  // "a" sorts first, so its NaN is the start value and nothing compares greater than it.
  x->subscribe("a", 10, nan);
  EXPECT_TRUE(std::isnan(x->getCurrentPrecision()));
  x->unsubscribe("a");
  EXPECT_EQ(x->getCurrentPrecision(), 0.7f);
}

TEST_F(ExtractorErrors, UnknownNamesThrowWithTheClassNameAndChangeNothing) {
  auto x = make("Detector");
  LogCapture log;
  for (int running = 0; running < 2; ++running) {
    if (running) {
      x->subscribe("A", 100, 0.5f);
      x->takeHooks();
      log.take();
    }
    const auto unknown = [&](auto call, const char* method) {
      expectError(call, "ZRExtractor", method, "nobody");
    };
    unknown([&] { x->getMyPeriod("nobody"); }, "getMyPeriod: unknown module name: ");
    unknown([&] { x->getMyPrecision("nobody"); }, "getMyPrecision: unknown module name: ");
    unknown([&] { x->updatePeriod("nobody", 10); }, "updateParam: unknown module name: ");
    unknown([&] { x->updatePrecision("nobody", 1.0f); }, "updateParam: unknown module name: ");
    EXPECT_TRUE(log.take().empty());

    // The warning has no colon, the error has one.
    unknown([&] { x->unsubscribe("nobody"); }, "received unsubscribe from non-subscribed module: ");
    EXPECT_EQ(log.takeLines(),
              Lines({{LogLevel_Warning, "unsubscribe",
                      "Detector received unsubscribe from non-subscribed module nobody"}}));

    EXPECT_TRUE(x->takeHooks().empty());
    EXPECT_EQ(x->getSubscribersInfo().getSize(), running);
    EXPECT_EQ(x->getCurrentPeriod(), running ? 100 : -1);
  }
}

TEST_F(ExtractorErrors, ReconcilingWithoutSubscribersNamesTheInstance) {
  auto x = make("Detector");
  expectError([&] { x->xUpdateParameters(); }, "Detector", "xUpdateParameters",
              "no module subscribed");
  EXPECT_TRUE(x->takeHooks().empty());
}

TEST_F(ExtractorRegistry, SubscribersInfoListsTriplesInNameOrder) {
  auto x = make("Detector");
  ZR::ZRValue info = x->getSubscribersInfo();
  EXPECT_TRUE(info.isArray());
  EXPECT_EQ(info.getSize(), 0);

  x->subscribe("b", 20, 0.2f);
  x->subscribe("a", 10, 0.1f);
  x->subscribe("c", 30, 0.3f);
  info = x->getSubscribersInfo();
  ASSERT_TRUE(info.isArray());
  std::vector<std::tuple<std::string, int, float>> triples;
  for (int i = 0; i < info.getSize(); ++i) {
    const ZR::ZRValue& e = info[i];
    ASSERT_TRUE(e.isArray());
    ASSERT_EQ(e.getSize(), 3);
    ASSERT_TRUE(e[0].isString() && e[1].isInt() && e[2].isFloat()) << e.toString();
    triples.emplace_back(std::string(e[0]), int(e[1]), float(e[2]));
  }
  EXPECT_EQ(triples, (decltype(triples){{"a", 10, 0.1f}, {"b", 20, 0.2f}, {"c", 30, 0.3f}}));
}

}  // namespace
