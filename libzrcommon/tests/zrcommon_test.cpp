#include <atomic>
#include <functional>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vo/future.h>
#include <vo/log.h>
#include <zrcommon/zrbroker.h>
#include <zrcommon/zrfunctor.h>
#include <zrcommon/zrmodule.h>
#include <zrcommon/zrproxy.h>
#include <zrcommon/zrservicenames.h>
#include <zrcommon/zrversion.h>
#include <zrtest.h>

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using zrtest::errorOf;
using zrtest::LogCapture;

namespace {

// The module from the architecture's host-side API, exactly as written there.
// clang-format off
namespace host_api {
class Calc : public ZR::ZRModule {
 public:
  Calc(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name) : ZRModule(broker, name) {
    functionName("add", "Calc", "Adds two numbers.", 0);
    addParam("a", "First term.");
    addParam("b", "Second term.");
    setReturn("sum", "The sum.");
    bindMethod(&Calc::add);  // objectBuilder().advertiseMethod(methodBuilder(), this, &Calc::add, 0)
  }
  int add(const int& a, const int& b) { return a + b; }
};
}  // namespace host_api
// clang-format on

// Registers methods every way a module writer can: bindMethod, advertiseMethod on the object
// builder, and createFunctor + bindMethodOverload. Calls through proxies, overloads among them
// and their errors are zrproxy_contract_test's; this one owns the descriptions.
class Shapes : public ZR::ZRModule {
 public:
  Shapes(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name) : ZRModule(broker, name) {
    functionName("scale", "Shapes", "Doubles a length.", 0);
    addParam("length", "Length to scale.");
    setReturn("scaled", "Twice the length.");
    bindMethod(static_cast<int (Shapes::*)(const int&)>(&Shapes::scale));

    functionName("scale", "Shapes", "Halves a real length.", 1);
    addParam("length", "Real length to scale.");
    setReturn("scaled", "Half the length.");
    objectBuilder().advertiseMethod(
        methodBuilder(), this, static_cast<float (Shapes::*)(const float&)>(&Shapes::scale), 0);

    functionName("label", "ShapeLabels", "Labels a shape.", 2);
    addParam("name", "Shape name.");
    addParam("sides", "Number of sides.");
    addParam("ratio", "Aspect ratio.");
    openLabel = getCurrentMethodDescription();
    bindMethodOverload(
        ZR::createFunctor<Shapes, std::string, int, float, void>(this, &Shapes::label));

    functionName("kind", "Shapes", "Names the family.", 0);
    setReturn("kind", "Family name.");
    bindMethod(&Shapes::kind);

    functionName("area", "Shapes", "Area of a rectangle.", 0);
    addParam("w", "Width.");
    addParam("h", "Height.");
    setReturn("area", "Width times height.");
    bindMethodOverload(ZR::createFunctor<Shapes, int, int, int>(this, &Shapes::area));
  }

  int scale(const int& x) { return 2 * x; }
  float scale(const float& x) { return x / 2; }
  void label(const std::string& name, const int& sides, const float& ratio) {
    std::ostringstream out;
    out << name << "/" << sides << "/" << ratio;
    lastLabel = out.str();
  }
  virtual std::string kind() { return "shape"; }
  virtual int area(const int& w, const int& h) { return w * h; }
  ZR::ZRMethodDescription openLabel;
  std::string lastLabel;
};

class Squares : public Shapes {
 public:
  using Shapes::Shapes;
  std::string kind() override { return "square"; }
  int area(const int& w, const int&) override { return w * w; }
};

// Every field of a description, so that a mismatch shows which one differs.
std::string fields(const ZR::ZRMethodDescription& d) {
  std::string s = d.methodName + " | " + d.moduleName + " | " + d.description + " | " +
                  std::to_string(d.flags) + " |";
  for (const auto& p : d.parameters) s += " " + p.name + ": " + p.documentation + ";";
  return s + " | [" + d.returnName + "][" + d.returnDocumentation + "] | " + d.signature;
}

}  // namespace

TEST(ZRModule, EveryWayOfBindingIsCallableAndDescribedInOrder) {
  auto broker = ZR::ZRBroker::createBroker("bindings");
  auto shapes = ZR::ZRModule::createModule<Shapes>(broker, "Shapes");
  ZR::ZRModule::createModule<Squares>(broker, "Squares");
  auto p = broker->getProxy("Shapes");
  auto squares = broker->getProxy("Squares");
  EXPECT_FLOAT_EQ(p->call<float>("scale", 3.0), 1.5f);  // advertiseMethod; double as float
  p->call<void>("label", std::string("tri"), 3, 0.5f);
  EXPECT_EQ(shapes->lastLabel, "tri/3/0.5");
  // Virtual members bound in the base constructor, by bindMethod and by createFunctor.
  EXPECT_EQ(p->call<std::string>("kind") + squares->call<std::string>("kind"), "shapesquare");
  EXPECT_EQ(p->call<int>("area", 3, 4) + squares->call<int>("area", 3, 4), 12 + 9);
  EXPECT_THAT(p->call<std::vector<std::string>>("getMethodList"),  // each name once
              ElementsAre("getMethodList", "getMethodHelp", "version", "ping", "scale", "label",
                          "kind", "area"));

  // The open description, before binding, already holds everything documented so far.
  EXPECT_THAT(fields(shapes->openLabel),
              HasSubstr("label | ShapeLabels | Labels a shape. | 2 | name: Shape name.; sides: "
                        "Number of sides.; ratio: Aspect ratio.; | [][] | "));

  std::vector<std::string> got;
  for (const auto& d : shapes->getMethodDescriptions()) got.push_back(fields(d));
  ASSERT_EQ(got.size(), 9u);
  EXPECT_THAT(got[3], StartsWith("ping | ZRModuleCore | "));  // the built-ins come first
  EXPECT_THAT(
      std::vector<std::string>(got.begin() + 4, got.end()),
      ElementsAre(
          "scale | Shapes | Doubles a length. | 0 | length: Length to scale.; | [scaled]["
          "Twice the length.] | scale(int) -> int",
          "scale | Shapes | Halves a real length. | 1 | length: Real length to scale.; | "
          "[scaled][Half the length.] | scale(float) -> float",
          "label | ShapeLabels | Labels a shape. | 2 | name: Shape name.; sides: Number "
          "of sides.; ratio: Aspect ratio.; | [][] | label(string, int, float) -> void",
          "kind | Shapes | Names the family. | 0 | | [kind][Family name.] | kind() -> string",
          "area | Shapes | Area of a rectangle. | 0 | w: Width.; h: Height.; | [area][Width "
          "times height.] | area(int, int) -> int"));
}

namespace {
class Holder : public ZR::ZRModule {
 public:
  Holder(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name) : ZRModule(broker, name) {
    functionName("seven", "Holder", "", 0);
    functor = boost::make_shared<ZR::ZRFunctorBase>(
        vo::makeAnyFunction(std::function<int()>([] { return 7; })));
    bindMethodOverload(functor);
  }
  // Methods belong in the constructor; this one tries later.
  void registerLate() {
    functionName("late", "Holder", "", 0);
    bindMethodOverload(functor);
  }
  boost::shared_ptr<ZR::ZRFunctorBase> functor;
};
}  // namespace

TEST(HostApi, CalcWorksAsWrittenUnderAUniqueNameAndFunctorsAreReleasedOnce) {
  boost::shared_ptr<ZR::ZRBroker> broker = ZR::ZRBroker::createBroker("main");
  auto calc = ZR::ZRModule::createModule<host_api::Calc>(broker, "Calc");
  boost::shared_ptr<ZR::ZRProxy> p = broker->getProxy("Calc", 0);
  EXPECT_EQ(p->call<int>("add", 2, 40), 42);
  EXPECT_TRUE(p->call<bool>("ping"));
  EXPECT_EQ(p->call<std::string>("version"), ZR::kPlatformVersion);
  // A refused module goes away without taking the name from the original.
  EXPECT_THROW(ZR::ZRModule::createModule<Shapes>(broker, "Calc"), ZR::ZRError);
  EXPECT_EQ(p->call<int>("add", 1, 1), 2);
  // Calls read the method table without a lock: once reachable, a module takes no new methods.
  auto holder = ZR::ZRModule::createModule<Holder>(broker, "Holder");
  EXPECT_THROW(holder->registerLate(), ZR::ZRError);
  EXPECT_FALSE(holder->hasMethod("late"));
  EXPECT_THAT(broker->getModuleNames(), ElementsAre("Calc", "Holder"));

  // A functor's packed call only logs; the function it binds calls.
  auto shapes = ZR::ZRModule::createModule<Shapes>(broker, "Shapes");
  boost::shared_ptr<ZR::ZRFunctorBase> f =
      ZR::createFunctor<Shapes, int, int, int>(shapes.get(), &Shapes::area);
  ZR::ZRValue params, result(42);
  params.arraySetSize(2);
  params[0] = 3;
  params[1] = 4;
  LogCapture capture;
  f->call(params, result);
  EXPECT_EQ(capture.records().at(0).category, "zrcommon.ZRFunctor");
  EXPECT_EQ(capture.takeLines(),
            zrtest::Lines({{vo::LogLevel_Error, "call", "ZRFunctor::call not implemented"}}));
  EXPECT_EQ(result, ZR::ZRValue(42));
  EXPECT_EQ(f->function().call(&params[0], 2).toInt(), 12);
  // The broker's share of a functor goes with its module, once.
  boost::shared_ptr<ZR::ZRFunctorBase> kept = holder->functor;
  boost::weak_ptr<ZR::ZRFunctorBase> watch = kept;
  EXPECT_EQ(broker->getProxy("Holder")->call<int>("seven"), 7);
  holder.reset();
  EXPECT_TRUE(broker->removeModule("Holder"));
  EXPECT_FALSE(broker->removeModule("Holder"));
  EXPECT_EQ(kept->function().call(nullptr, 0).toInt(), 7);  // this test still holds it
  kept.reset();
  EXPECT_TRUE(watch.expired());  // released once, or AddressSanitizer tells
  EXPECT_EQ(calc->getParentBroker(), broker);
  broker.reset();
  EXPECT_THROW(calc->getParentBroker(), ZR::ZRError);
}

namespace {
// Calls each module it uses from its destructor, as a sound extractor unsubscribes from the
// audio device, and notes whether it reached it; "hold" returns once `gate` opens.
class Tracer : public ZR::ZRModule {
 public:
  using Note = std::function<void(const std::string&)>;
  Tracer(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name, Note note,
         std::vector<std::string> uses, zrtest::Signal* gate = nullptr)
      : ZRModule(broker, name), note_(std::move(note)), uses_(std::move(uses)), gate_(gate) {
    functionName("hold", "Tracer", "Returns once the gate opens.", 0);
    bindMethod(&Tracer::hold);
  }
  ~Tracer() override {
    note_(getName());
    for (const std::string& used : uses_) {
      try {
        getParentBroker()->getProxy(used)->call<bool>("ping");
        note_(getName() + " reached " + used);
      } catch (const ZR::ZRError&) {
        note_(getName() + " lost " + used);
      }
    }
  }
  bool hold() {
    entered.notify();
    gate_->waitFor();
    note_("call returns");
    return true;
  }
  zrtest::Signal entered;

 private:
  Note note_;
  std::vector<std::string> uses_;
  zrtest::Signal* gate_;
};
}  // namespace

TEST(ZRBroker, ShutdownDestroysModulesBeforeTheServicesTheyUse) {
  const std::string device = ZR::kAudioDeviceServiceName, memory = ZR::kMemoryServiceName;
  std::vector<std::string> log;
  auto note = [&](const std::string& s) { log.push_back(s); };
  auto add = [&](const boost::shared_ptr<ZR::ZRBroker>& b, const std::string& name,
                 std::vector<std::string> uses) {
    ZR::ZRModule::createModule<Tracer>(b, name, Tracer::Note(note), uses);
  };
  auto broker = ZR::ZRBroker::createBroker("shutdown");
  // The worst order of creation: each service after the modules that use it.
  add(broker, "A", {});
  add(broker, "Extractor", {device, memory});
  add(broker, device, {memory});
  add(broker, "C", {"A"});
  add(broker, memory, {});
  EXPECT_THAT(broker->getModuleNames(), ElementsAre("A", "Extractor", device, "C", memory));
  broker->shutdown();
  EXPECT_THAT(log, ElementsAre("C", "C reached A", "Extractor", "Extractor reached " + device,
                               "Extractor reached " + memory, "A", device,
                               device + " reached " + memory, memory));
  EXPECT_TRUE(broker->isShutdown());
  EXPECT_TRUE(broker->getModuleNames().empty());
  broker->shutdown();  // idempotent
  EXPECT_THROW(ZR::ZRModule::createModule<host_api::Calc>(broker, "Calc"), ZR::ZRError);
  EXPECT_THROW(broker->post([] {}), ZR::ZRError);

  // Dropping the broker without shutting it down destroys them in the same order.
  log.clear();
  broker = ZR::ZRBroker::createBroker("dropped");
  for (const std::string& name : {memory, std::string("X"), std::string("Y")})
    add(broker, name, {});
  broker.reset();
  EXPECT_THAT(log, ElementsAre("Y", "X", memory));
}

TEST(ZRBroker, RemovalAndShutdownWaitForProxyCallsInFlight) {
  std::mutex mutex;
  std::vector<std::string> order;
  Tracer::Note note = [&](const std::string& what) {
    std::lock_guard<std::mutex> lock(mutex);
    order.push_back(what);
  };
  auto broker = ZR::ZRBroker::createBroker("inflight");
  ZR::ZRModule::createModule<Tracer>(broker, "Older", Tracer::Note([](const std::string&) {}),
                                     std::vector<std::string>{});
  for (const char* how : {"removed", "shut down"}) {
    SCOPED_TRACE(how);
    order.clear();
    zrtest::Signal gate;
    auto held = ZR::ZRModule::createModule<Tracer>(broker, "Held", note,
                                                   std::vector<std::string>{"Older"}, &gate);
    auto proxy = broker->getProxy("Held");
    std::thread caller([&] { EXPECT_TRUE(proxy->call<bool>("hold")); });
    ASSERT_TRUE(held->entered.waitFor());
    held.reset();
    LogCapture capture("zrcommon.ZRBroker");
    std::thread stopper([&] {
      how[0] == 'r' ? (void)broker->removeModule("Held") : broker->shutdown();
      note(how);
    });
    if (how[0] == 's')
      ASSERT_TRUE(capture.waitFor("waiting for 1 call(s) in flight on \"Held\""));
    else
      stopper.join();  // the call in flight keeps the module
    // Meanwhile new calls are refused, and the one in flight goes on.
    EXPECT_EQ(errorOf([&] { proxy->call<bool>("ping"); }).getDescription(), "module destroyed");
    gate.notify();
    caller.join();
    if (stopper.joinable()) stopper.join();
    // Not waiting would destroy the module under the call, or the older one before it.
    std::vector<std::string> expected{"call returns", "Held", "Held reached Older"};
    how[0] == 'r' ? (void)expected.insert(expected.begin(), how) : expected.push_back(how);
    EXPECT_EQ(order, expected);
  }
}

TEST(ZRBroker, PostAndStrandsRunWorkInOrderOneAtATimeAndLogFailures) {
  auto broker = ZR::ZRBroker::createBroker("pool", 4);
  EXPECT_EQ(broker->threadCount(), 4);
  LogCapture capture("zrcommon.ZRBroker");
  zrtest::Signal hop, drained;
  ZR::ZRStrand strand = broker->makeStrand();
  std::vector<int> seen;
  std::atomic<int> running{0};
  std::atomic<bool> overlapped{false};
  // The first task holds on until pool work posted after the others has run: by then a free
  // thread would have started the next task, were the strand not serialising them.
  strand.post([&] {
    ++running;
    hop.waitFor();
    --running;
    throw std::runtime_error("boom");  // logged; the strand goes on
  });
  for (int i = 0; i < 1000; ++i) {
    strand.post([&, i] {
      if (++running > 1) overlapped = true;
      seen.push_back(i);
      --running;
    });
  }
  broker->post([&] { broker->post([&] { hop.notify(); }); });
  strand.post([&] { drained.notify(); });
  ASSERT_TRUE(drained.waitFor());
  EXPECT_FALSE(overlapped);
  ASSERT_EQ(seen.size(), 1000u);
  for (int i = 0; i < 1000; ++i) ASSERT_EQ(seen[i], i);
  EXPECT_EQ(capture.count("background task failed: boom"), 1);
  EXPECT_THROW(ZR::ZRStrand().post([] {}), ZR::ZRError);
  broker->shutdown();
}
