// The extractor as other modules see it: its declared outputs in the memory service, its remote
// method table, and subscriptions made through the memory service.

#include <set>

#include <zrcommon/zrproxy.h>
#include <zrproxies/zrmemoryproxy.h>

#include "extractor_fixture.h"

using namespace testing_zr;

namespace {

class Publisher : public Recorder {
 public:
  Publisher(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name)
      : Recorder(broker, name) {
    declareEvent(name + "/onset");
    declareMemoryKey(name + "/level");
    declareEvent(name + "/offset");
    declareMemoryKey(name + "/level");
  }
};

class Custom : public Recorder {
 public:
  using Recorder::Recorder;
  std::vector<std::string> getOutputNames() override { return {"custom/a", "custom/b"}; }
};

// A client of the memory service's events.
class Listener : public ZR::ZRModule {
 public:
  Listener(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name)
      : ZRModule(broker, name) {
    functionName("onEvent", "Listener", "Receives memory events.", 0);
    addParam("eventName", "The event.");
    addParam("value", "Its value.");
    addParam("subscriberIdentifier", "Who subscribed.");
    bindMethod(&Listener::onEvent);
  }
  void onEvent(const std::string&, const ZR::ZRValue&, const std::string&) {}
};

using ExtractorOutputs = ExtractorTest;
using ExtractorRemoteTable = ExtractorTest;
using ExtractorThroughMemory = ExtractorTest;

TEST_F(ExtractorOutputs, DeclarationsReachTheMemoryServiceAndAreListedInOrder) {
  auto x = make<Publisher>("Onsets");
  const Names events{"Onsets/onset", "Onsets/offset"};
  const Names keys{"Onsets/level", "Onsets/level"};
  EXPECT_EQ(x->getEventList(), events);
  EXPECT_EQ(x->getMemoryKeyList(), keys);
  EXPECT_EQ(x->getOutputNames(),
            Names({"Onsets/onset", "Onsets/offset", "Onsets/level", "Onsets/level"}));

  ZR::ZRMemoryProxy mem(broker);
  ZR::ZRValue level = mem.getData("Onsets/level");
  EXPECT_TRUE(level.isArray());
  EXPECT_EQ(level.getSize(), 0);
  EXPECT_EQ(mem.getExtractorEvent("Onsets"), events);

  // A repeated declaration writes the empty array again.
  mem.insertData("Onsets/level", ZR::ZRValue(42));
  x->declareMemoryKey("Onsets/level");
  EXPECT_EQ(mem.getData("Onsets/level").getSize(), 0);
  EXPECT_EQ(x->getMemoryKeyList().size(), 3u);

  auto p = broker->getProxy("Onsets");
  EXPECT_EQ(p->call<Names>("getEventList"), events);
  EXPECT_EQ(p->call<Names>("getMemoryKeyList"), x->getMemoryKeyList());
  EXPECT_EQ(p->call<Names>("getOutputNames"), x->getOutputNames());
}

TEST_F(ExtractorOutputs, NothingDeclaredListsNothing) {
  auto x = make("Plain");
  EXPECT_TRUE(x->getOutputNames().empty());
  EXPECT_TRUE(x->getEventList().empty());
  EXPECT_TRUE(x->getMemoryKeyList().empty());
}

TEST_F(ExtractorRemoteTable, SubscribeOverloadsAndQueriesAnswerByName) {
  auto x = make("Detector");
  auto p = broker->getProxy("Detector");

  p->call<void>("subscribe", std::string("A"), 100, 0.5f);
  EXPECT_EQ(x->takeHooks(), Hooks({"start 100 0.5"}));
  p->call<void>("subscribe", std::string("B"));  // adopts the current values
  EXPECT_EQ(x->takeHooks(), Hooks({"update 100 0.5"}));
  EXPECT_EQ(p->call<int>("getMyPeriod", std::string("B")), 100);
  EXPECT_EQ(p->call<float>("getMyPrecision", std::string("B")), 0.5f);

  p->call<void>("updatePeriod", std::string("B"), 40);
  p->call<void>("updatePrecision", std::string("A"), 0.75f);
  p->call<void>("updatePrecision", std::string("A"), 0.75f);  // unchanged still reconciles
  EXPECT_EQ(x->takeHooks(), Hooks({"update 40 0.5", "update 40 0.75", "update 40 0.75"}));
  EXPECT_EQ(p->call<int>("getCurrentPeriod"), 40);
  EXPECT_EQ(p->call<float>("getCurrentPrecision"), 0.75f);
  EXPECT_EQ(p->call<ZR::ZRValue>("getSubscribersInfo").getSize(), 2);

  EXPECT_THROW(p->call<int>("getMyPeriod", std::string("nobody")), ZR::ZRError);
  p->call<void>("unsubscribe", std::string("A"));
  p->call<void>("unsubscribe", std::string("B"));
  EXPECT_EQ(x->takeHooks(), Hooks({"update 40 0.5", "stop"}));

  // One argument on an idle extractor: the defaults.
  p->call<void>("subscribe", std::string("C"));
  EXPECT_EQ(x->takeHooks(), Hooks({"start 30 0"}));
}

TEST_F(ExtractorRemoteTable, OverriddenOutputNamesAnswerRemotely) {
  auto x = make<Custom>("Custom");
  auto p = broker->getProxy("Custom");
  EXPECT_EQ(p->call<Names>("getOutputNames"), Names({"custom/a", "custom/b"}));
  EXPECT_TRUE(p->call<Names>("getEventList").empty());
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

// A registration as "signature | description | parameter: documentation; ... | [return][doc]".
std::string fields(const ZR::ZRMethodDescription& d) {
  std::string s = d.signature + " | " + d.description + " |";
  for (const auto& p : d.parameters) s += " " + p.name + ": " + p.documentation + ";";
  return s + " | [" + d.returnName + "][" + d.returnDocumentation + "]";
}

void expectTable(const ZR::ZRModuleCore& module) {
  const std::set<std::string> builtIns{"getMethodList", "getMethodHelp", "version", "ping"};
  Names own;
  for (const auto& d : module.getMethodDescriptions()) {
    if (builtIns.count(d.methodName)) continue;
    SCOPED_TRACE(d.signature);
    EXPECT_EQ(d.signature.substr(0, d.methodName.size() + 1), d.methodName + "(");
    EXPECT_EQ(d.moduleName, "ZRExtractor");
    EXPECT_EQ(d.flags, 0);
    own.push_back(fields(d));
  }
  // clang-format off
  EXPECT_EQ(own, Names({
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
          " name: name of the module which has subscribed; |"
          " [precision][precision of the extractor]",
      "getSubscribersInfo() -> ZRValue | Gets the parameters given by the module. | |"
          " [subscribersInfo][Array of names and parameters of all subscribers.]",
      "getOutputNames() -> list of strings | Get the list of values updated in ZRMemory. | |"
          " [outputNames][Array of values updated by this extractor in ZRMemory]",
      "getEventList() -> list of strings | Get the list of events updated in ZRMemory. |" + kEvents,
      "getMemoryKeyList() -> list of strings | Get the list of events updated in ZRMemory. |" +
          kEvents}));
  // clang-format on
}

TEST_F(ExtractorRemoteTable, ThirteenRegistrationsWordForWord) {
  EXPECT_EQ(kSubscribe.size(), 402u);
  auto x = make("Detector");
  expectTable(*x);
  // A derived class under another name still documents them as the base's.
  auto y = make<Custom>("Elsewhere");
  expectTable(*y);
  EXPECT_EQ(y->getSubscribersInfo().getSize(), 0);
}

TEST_F(ExtractorThroughMemory, EventSubscriptionsStartAndStopTheDeclaringExtractor) {
  auto x = make<Publisher>("Onsets");
  auto client = ZR::ZRModule::createModule<Listener>(broker, "Client");
  auto mem = broker->getProxy("ZRMemory");

  mem->call<void>("subscribeToEvent", std::string("Onsets/onset"), std::string("Client"),
                  std::string("onEvent"));
  ASSERT_TRUE(zrtest::eventually([&] { return x->getSubscribersInfo().getSize() == 1; }));
  EXPECT_EQ(x->takeHooks(), Hooks({"start 30 0"}));
  EXPECT_EQ(x->getMyPeriod("Client"), 30);

  // A second event of the same extractor is not a second subscription.
  mem->call<void>("subscribeToEvent", std::string("Onsets/offset"), std::string("Client"),
                  std::string("onEvent"));
  mem->call<void>("unsubscribeToEvent", std::string("Onsets/onset"), std::string("Client"));
  EXPECT_EQ(x->getSubscribersInfo().getSize(), 1);

  mem->call<void>("unsubscribeToEvent", std::string("Onsets/offset"), std::string("Client"));
  ASSERT_TRUE(zrtest::eventually([&] { return x->getSubscribersInfo().getSize() == 0; }));
  EXPECT_EQ(x->takeHooks(), Hooks({"stop"}));
}

}  // namespace
