// ZR::ZRExtractor called directly and remotely: the subscription protocol and its hooks, clamping,
// reconciliation, the exact log, error and method texts, the declared outputs, many clients.

#include <cmath>
#include <limits>
#include <optional>
#include <random>
#include <set>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <tuple>

#include <zrextractor/zrextractor.h>
#include <zrproxies/zrmemoryproxy.h>

#include "extractor_fixture.h"

namespace {

using namespace extractortest;
using Params = std::pair<int, float>;  // period, precision
const Params kIdle{-1, -1.0f};
const int kWarning = vo::LogLevel_Warning, kVerbose = vo::LogLevel_Verbose;
const std::string kSource = "../libzrextractor/src/zrextractor";

// Records each hook as "start P Q;", "update P Q;" or "stop;", and counts as faults starts and
// stops that overlap or do not alternate; fails a hook or narrows the limits on demand.
class Recorder : public ZR::ZRExtractor {
 public:
  using ZRExtractor::xUpdateParameters;
  using ZRExtractor::ZRExtractor;
  void xStartDetection(int period, float precision) override {
    edge(0, text("start", period, precision));
    if (failStart) throw std::runtime_error("device busy");
  }
  void xUpdateParameters(int period, float precision) override {
    getSubscribersInfo();  // the readers stay usable from inside a hook
    note(text("update", period, precision));
  }
  void xStopDetection() override {
    edge(1, "stop;");
    if (failStop) throw ZR::ZRError(getName(), "xStopDetection", "device gone");
  }
  int getMinimumPeriod() override { return minimum.value_or(ZRExtractor::getMinimumPeriod()); }
  int getMaximumPeriod() override { return maximum.value_or(ZRExtractor::getMaximumPeriod()); }
  std::string takeHooks() {
    std::lock_guard<std::mutex> lock(mutex_);
    return std::exchange(hooks_, "");
  }
  bool failStart = false, failStop = false;
  std::optional<int> minimum, maximum;
  std::atomic<int> starts{0}, stops{0}, faults{0};

 private:
  static std::string text(const char* hook, int p, float q) {
    std::ostringstream s;
    s << hook << ' ' << p << ' ' << q << ';';
    return s.str();
  }
  void note(const std::string& hook) {
    std::lock_guard<std::mutex> lock(mutex_);
    hooks_ += hook;
  }
  void edge(int running, const std::string& hook) {  // running: starts - stops before this edge
    if (inEdge_.exchange(true) || starts.load() - stops.load() != running) ++faults;
    std::this_thread::yield();  // widens the window an overlapping hook would fall into
    ++(running ? stops : starts);
    inEdge_.store(false);
    note(hook);
  }
  std::atomic<bool> inEdge_{false};
  std::mutex mutex_;
  std::string hooks_;
};

// The current values, or those of `name`, through the remote methods.
Params query(ZR::ZRExtractor& x, const std::string& name = "") {
  auto p = x.getParentBroker()->getProxy(x.getName());
  if (name.empty())
    return {p->call<int>("getCurrentPeriod"), p->call<float>("getCurrentPrecision")};
  return {p->call<int>("getMyPeriod", name), p->call<float>("getMyPrecision", name)};
}
Line received(const std::string& method, const std::string& from) {
  return {kVerbose, method, "X received " + method + " from " + from};
}

class ExtractorTest : public BrokerTest {
 protected:
  ExtractorTest() : BrokerTest("core.extractor") {}
  boost::shared_ptr<Recorder> make(const std::string& name = "X") { return add<Recorder>(name); }
};

TEST_F(ExtractorTest, HooksFollowTheFirstArrivalEveryChangeAndTheLastDeparture) {
  auto x = make();
  EXPECT_EQ(query(*x), kIdle);
  x->subscribe("A", 100, 0.5f);
  EXPECT_EQ(x->takeHooks(), "start 100 0.5;");
  EXPECT_EQ(query(*x), Params(100, 0.5f));
  EXPECT_TRUE(log.take().empty());  // the start path logs nothing
  auto p = broker->getProxy("X");
  p->call<void>("subscribe", std::string("B"), 40, 0.2f);
  x->subscribe("B", 200, 0.9f);                  // again: warns and replaces both values
  p->call<void>("subscribe", std::string("C"));  // adopts the current values
  EXPECT_EQ(x->takeHooks(), "update 40 0.5;update 100 0.9;update 100 0.9;");
  EXPECT_EQ(query(*x, "B"), Params(200, 0.9f));
  EXPECT_EQ(query(*x, "C"), Params(100, 0.9f));
  const Line again{kWarning, "subscribe",
                   "X the module is already subscribed: will just update the parameters."};
  EXPECT_EQ(log.takeLines(), Lines({received("subscribe", "B"), again, received("subscribe", "B"),
                                    received("subscribe", "C")}));
  p->call<void>("unsubscribe", std::string("C"));
  x->unsubscribe("B");
  x->unsubscribe("A");
  EXPECT_EQ(x->takeHooks(), "update 100 0.9;update 100 0.5;stop;");
  EXPECT_EQ(query(*x), kIdle);
  EXPECT_EQ(log.takeLines(), Lines({received("unsubscribe", "C"), received("unsubscribe", "B"),
                                    received("unsubscribe", "A")}));

  // Idle: without parameters the defaults apply; a sole subscriber again takes the update path.
  p->call<void>("subscribe", std::string("A"));
  x->subscribe("A", 60, 0.7f);
  // A failing hook keeps the state it changed: idle after a stop, detecting after a start.
  x->failStop = x->failStart = true;
  EXPECT_THROW(x->unsubscribe("A"), ZR::ZRError);
  EXPECT_EQ(query(*x), kIdle);
  EXPECT_EQ(errorFields([&] { x->xUpdateParameters(); }),
            "X|xUpdateParameters|no module subscribed|" + kSource + "|line");
  EXPECT_THROW(x->subscribe("B", 40, 0.2f), std::runtime_error);
  x->failStart = false;
  p->call<void>("subscribe", std::string("C"));  // the update path, and the lock was released
  EXPECT_EQ(x->takeHooks(), "start 30 0;update 60 0.7;stop;start 40 0.2;update 40 0.2;");
  // No received-unsubscribe record after the failed stop.
  EXPECT_EQ(log.takeLines(),
            Lines({again, received("subscribe", "A"), received("subscribe", "C")}));
}

TEST_F(ExtractorTest, PeriodsAreClampedWithAWarningOnSubscribeAndOnUpdate) {
  const struct {
    std::optional<int> minimum, maximum;
    int requested, stored;
    std::vector<std::pair<const char*, int>> warnings;  // "small" or "big", the bound
  } cases[] = {
      {{}, {}, 0, 1, {{"small", 1}}},
      {{}, {}, -250, 1, {{"small", 1}}},
      {{}, {}, 1, 1, {}},
      {{}, {}, 1000000, 1000000, {}},  // a negative maximum is no bound
      {50, 20, 5, 20, {{"small", 50}, {"big", 20}}},
      {1, 0, 5, 0, {{"big", 0}}},
      {10, 500, 900, 500, {{"big", 500}}},
  };
  int n = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.requested);
    const std::string name = "X" + std::to_string(n++);
    auto x = make(name);
    x->minimum = c.minimum;
    x->maximum = c.maximum;
    for (const std::string method : {"subscribe", "updatePeriod"}) {
      method == "subscribe"
          ? x->subscribe("A", c.requested, 0.5f)
          : broker->getProxy(name)->call<void>("updatePeriod", std::string("A"), c.requested);
      Lines expected;
      for (const auto& [size, bound] : c.warnings)
        expected.emplace_back(kWarning, method,
                              name + " requested period is too " + size +
                                  "; subscribe with period = " + std::to_string(bound) + " ms.");
      EXPECT_EQ(log.takeLines(), expected);
      EXPECT_EQ(query(*x, "A"), Params(c.stored, 0.5f));
    }
    const std::string values = std::to_string(c.stored) + " 0.5;";
    EXPECT_EQ(x->takeHooks(), "start " + values + "update " + values);
  }
}

TEST_F(ExtractorTest, SubscribersInfoListsTriplesInNameOrderAndUnknownNamesChangeNothing) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  auto x = make();
  EXPECT_EQ(x->getSubscribersInfo().toString(), "[]");
  x->subscribe("b", 20, -0.5f);
  x->subscribe("c", 10, -2.0f);
  broker->getProxy("X")->call<void>("updatePrecision", std::string("b"), -3.0f);
  EXPECT_EQ(query(*x), Params(10, -2.0f));
  x->subscribe("d", 10, nan);  // after "b": compares greater than nothing
  EXPECT_EQ(x->getCurrentPrecision(), -2.0f);
  x->subscribe("a", 5, nan);  // first: the start value, and nothing compares greater
  EXPECT_TRUE(std::isnan(x->getCurrentPrecision()));
  const std::string info = R"([["a", 5, nan], ["b", 20, -3.0], ["c", 10, -2.0], ["d", 10, nan]])";
  EXPECT_EQ(x->getSubscribersInfo().toString(), info);
  x->takeHooks();
  log.take();

  // The class name in the module field, the message in the operation field, as they stand.
  const std::vector<std::tuple<std::function<void()>, std::string, Lines>> unknown = {
      {[&] { x->getMyPeriod("nobody"); }, "getMyPeriod: unknown module name: ", {}},
      {[&] { x->getMyPrecision("nobody"); }, "getMyPrecision: unknown module name: ", {}},
      {[&] { x->updatePeriod("nobody", 0); }, "updateParam: unknown module name: ", {}},
      {[&] { x->updatePrecision("nobody", 1.0f); }, "updateParam: unknown module name: ", {}},
      // The warning has no colon, the error has one.
      {[&] { x->unsubscribe("nobody"); },
       "received unsubscribe from non-subscribed module: ",
       {{kWarning, "unsubscribe", "X received unsubscribe from non-subscribed module nobody"}}},
  };
  for (const auto& [call, method, lines] : unknown) {
    EXPECT_EQ(errorFields(call), "ZRExtractor|" + method + "|nobody|" + kSource + "|line");
    EXPECT_EQ(log.takeLines(), lines);
  }
  EXPECT_EQ(x->takeHooks(), "");
  EXPECT_EQ(x->getSubscribersInfo().toString(), info);
  x->unsubscribe("a");
  EXPECT_EQ(x->getCurrentPrecision(), -2.0f);
}

const std::string kSubscribe =
    "Subscribes to the extractor. This causes the extractor to start writing information to memory "
    "using the keys described by getOutputNames(). These can be accessed in memory using "
    "ZRMemory.getData(\"keyName\"). In many cases you can avoid calling subscribe on the extractor "
    "by just calling ZRMemory.subscribeToEvent() supplying a callback method. This will "
    "automatically subscribe to the extractor for you.";
const std::string kSubscribes = "name: Name of the module which subscribes.;";
const std::string kHas = "name: Name of the module which has subscribed.;";
const std::string kPeriod = "Refresh period (in milliseconds).";
const std::string kEvents =
    " | [outputNames][Array of events updated by this extractor in ZRMemory]";
// clang-format off
const Names kTable{
    "subscribe(string, int, float) -> void | " + kSubscribe + " | " + kSubscribes +
        " period: Refresh period (in milliseconds) if relevant.;"
        " precision: Precision of the extractor if relevant.; | [][]",
    "subscribe(string) -> void | " + kSubscribe + " | " + kSubscribes + " | [][]",
    "unsubscribe(string) -> void | Unsubscribes from the extractor. |"
        " name: Name of the module which had subscribed.; | [][]",
    "updatePeriod(string, int) -> void | Updates the period if relevant. | " + kHas +
        " period: " + kPeriod + "; | [][]",
    "updatePrecision(string, float) -> void | Updates the precision if relevant. | " + kHas +
        " precision: Precision of the extractor.; | [][]",
    "getCurrentPeriod() -> int | Gets the current period. | | [period][" + kPeriod + "]",
    "getCurrentPrecision() -> float | Gets the current precision. | |"
        " [precision][Precision of the extractor.]",
    "getMyPeriod(string) -> int | Gets the period for a specific subscription. | " + kHas +
        " | [period][" + kPeriod + "]",
    "getMyPrecision(string) -> float | Gets the precision for a specific subscription. |"
        " name: name of the module which has subscribed; | [precision][precision of the extractor]",
    "getSubscribersInfo() -> ZRValue | Gets the parameters given by the module. | |"
        " [subscribersInfo][Array of names and parameters of all subscribers.]",
    "getOutputNames() -> list of strings | Get the list of values updated in ZRMemory. | |"
        " [outputNames][Array of values updated by this extractor in ZRMemory]",
    "getEventList() -> list of strings | Get the list of events updated in ZRMemory. |" + kEvents,
    "getMemoryKeyList() -> list of strings | Get the list of events updated in ZRMemory. |" +
        kEvents};
// clang-format on

// The thirteen registrations after the built-in ones, word for word under any name; the declared
// outputs, listed in order and known to the memory service.
TEST_F(ExtractorTest, RemoteMethodsWordForWordAndDeclaredOutputsListedInOrder) {
  const std::set<std::string> builtIns{"getMethodList", "getMethodHelp", "version", "ping"};
  auto x = make("Onsets");
  for (const auto& module : {x, make("Elsewhere")}) {
    Names own;
    for (const auto& d : module->getMethodDescriptions()) {
      if (builtIns.count(d.methodName)) continue;
      EXPECT_EQ(d.signature.substr(0, d.methodName.size() + 1), d.methodName + "(");
      EXPECT_EQ(std::tie(d.moduleName, d.flags), std::make_tuple("ZRExtractor", 0));
      own.push_back(describe(d));
    }
    EXPECT_EQ(own, kTable) << module->getName();
  }
  auto p = broker->getProxy("Onsets");
  EXPECT_TRUE(x->getOutputNames().empty() && x->getEventList().empty() &&
              x->getMemoryKeyList().empty());
  x->declareEvent("Onsets/onset");
  x->declareMemoryKey("Onsets/level");
  x->declareEvent("Onsets/offset");
  const Names events{"Onsets/onset", "Onsets/offset"};
  EXPECT_EQ(x->getEventList(), events);
  EXPECT_EQ(x->getMemoryKeyList(), Names{"Onsets/level"});
  EXPECT_EQ(p->call<Names>("getOutputNames"),
            Names({"Onsets/onset", "Onsets/offset", "Onsets/level"}));
  ZR::ZRMemoryProxy memory(broker);
  EXPECT_EQ(memory.getExtractorEvent("Onsets"), events);
  EXPECT_EQ(memory.getData("Onsets/level").toString(), "[]");
  // A repeated declaration is listed again and writes the empty array again.
  memory.insertData("Onsets/level", ZR::ZRValue(42));
  x->declareMemoryKey("Onsets/level");
  EXPECT_EQ(memory.getData("Onsets/level").toString(), "[]");
  EXPECT_EQ(p->call<Names>("getMemoryKeyList"), Names({"Onsets/level", "Onsets/level"}));
  EXPECT_EQ(p->call<Names>("getEventList"), events);
}

TEST_F(ExtractorTest, ManyClientsAtOnceStartsAndStopsAlternateAndTheRegistryStaysConsistent) {
  auto x = make();
  // Eight threads subscribe, unsubscribe, update and query at random, directly and remotely.
  std::vector<std::thread> threads;
  for (unsigned t = 0; t < 8; ++t) {
    threads.emplace_back([&, seed = t + 1] {
      auto p = broker->getProxy("X");
      std::mt19937 rng(seed);
      for (int i = 0; i < 2000; ++i) {
        const std::string name = "m" + std::to_string(rng() % 4);
        const int period = static_cast<int>(rng() % 200) - 10;
        const float precision = static_cast<float>(rng() % 100) / 100.0f;
        const std::function<void()> operations[] = {
            [&] { x->subscribe(name, period, precision); },
            [&] { p->call<void>("subscribe", name, period, precision); },
            [&] { p->call<void>("subscribe", name); },
            [&] { x->unsubscribe(name); },
            [&] { p->call<void>("unsubscribe", name); },
            [&] { x->updatePeriod(name, period); },
            [&] { p->call<void>("updatePrecision", name, precision); },
        };
        try {
          operations[rng() % 7]();
          x->getMyPeriod(name);
        } catch (const ZR::ZRError&) {
          // Unknown names and an update racing the last departure are expected.
        }
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(x->faults.load(), 0);
  EXPECT_GT(x->starts.load(), 10);
  const ZR::ZRValue info = x->getSubscribersInfo();
  EXPECT_EQ(x->starts.load() - x->stops.load(), info.getSize() ? 1 : 0);
  Params expected = kIdle;
  for (int i = 0; i < info.getSize(); ++i) {
    const Params entry(info[i][1], info[i][2]);
    EXPECT_GE(entry.first, 1);  // clamped on every path
    expected =
        i ? Params(std::min(expected.first, entry.first), std::max(expected.second, entry.second))
          : entry;
  }
  EXPECT_EQ(query(*x), expected);
}

}  // namespace
