#include <atomic>
#include <functional>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vo/future.h>
#include <vo/log.h>
#include <zrcommon/zrbroker.h>
#include <zrcommon/zrfunctor.h>
#include <zrcommon/zrmodule.h>
#include <zrcommon/zrproxy.h>
#include <zrcommon/zrsamples.h>
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
// builder, and createFunctor + bindMethodOverload.
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

    functionName("scale", "Shapes", "Repeats a unit.", 0);
    addParam("unit", "Unit name.");
    addParam("count", "How many.");
    setReturn("text", "The count and the unit.");
    bindMethodOverload(
        ZR::createFunctor<Shapes, std::string, int, std::string>(this, &Shapes::scale));

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

    functionName("fail", "Shapes", "Always fails.", 0);
    bindMethodOverload(ZR::createFunctor<Shapes, void>(this, &Shapes::fail));
  }

  int scale(const int& x) { return 2 * x; }
  float scale(const float& x) { return x / 2; }
  std::string scale(const std::string& unit, const int& count) {
    return std::to_string(count) + " " + unit;
  }
  void label(const std::string& name, const int& sides, const float& ratio) {
    std::ostringstream out;
    out << name << "/" << sides << "/" << ratio;
    lastLabel = out.str();
  }
  virtual std::string kind() { return "shape"; }
  virtual int area(const int& w, const int& h) { return w * h; }
  void fail() { throw std::runtime_error("no luck"); }

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
  EXPECT_EQ(p->call<int>("scale", 3), 6);                     // bindMethod
  EXPECT_FLOAT_EQ(p->call<float>("scale", 3.0), 1.5f);        // advertiseMethod; double as float
  EXPECT_EQ(p->call<std::string>("scale", "cm", 4), "4 cm");  // createFunctor
  p->call<void>("label", std::string("tri"), 3, 0.5f);
  EXPECT_EQ(shapes->lastLabel, "tri/3/0.5");
  // Virtual members bound in the base constructor, by bindMethod and by createFunctor.
  EXPECT_EQ(p->call<std::string>("kind") + squares->call<std::string>("kind"), "shapesquare");
  EXPECT_EQ(p->call<int>("area", 3, 4) + squares->call<int>("area", 3, 4), 12 + 9);
  EXPECT_THAT(p->call<std::vector<std::string>>("getMethodList"),  // each name once
              ElementsAre("getMethodList", "getMethodHelp", "version", "ping", "scale", "label",
                          "kind", "area", "fail"));

  // Calls and their errors, in process and remote: zrproxy_contract_test.

  // The open description, before binding, already holds everything documented so far.
  EXPECT_THAT(fields(shapes->openLabel),
              HasSubstr("label | ShapeLabels | Labels a shape. | 2 | name: Shape name.; sides: "
                        "Number of sides.; ratio: Aspect ratio.; | [][] | "));

  std::vector<std::string> got;
  for (const auto& d : shapes->getMethodDescriptions()) got.push_back(fields(d));
  ASSERT_EQ(got.size(), 11u);
  const std::string builtIns[] = {"getMethodList", "getMethodHelp", "version", "ping"};
  for (std::size_t i = 0; i < 4; ++i)
    EXPECT_THAT(got[i], StartsWith(builtIns[i] + " | ZRModuleCore | "));
  EXPECT_THAT(
      std::vector<std::string>(got.begin() + 4, got.end()),
      ElementsAre(
          "scale | Shapes | Doubles a length. | 0 | length: Length to scale.; | [scaled]["
          "Twice the length.] | scale(int) -> int",
          "scale | Shapes | Halves a real length. | 1 | length: Real length to scale.; | "
          "[scaled][Half the length.] | scale(float) -> float",
          "scale | Shapes | Repeats a unit. | 0 | unit: Unit name.; count: How many.; | "
          "[text][The count and the unit.] | scale(string, int) -> string",
          "label | ShapeLabels | Labels a shape. | 2 | name: Shape name.; sides: Number "
          "of sides.; ratio: Aspect ratio.; | [][] | label(string, int, float) -> void",
          "kind | Shapes | Names the family. | 0 | | [kind][Family name.] | kind() -> string",
          "area | Shapes | Area of a rectangle. | 0 | w: Width.; h: Height.; | [area][Width "
          "times height.] | area(int, int) -> int",
          "fail | Shapes | Always fails. | 0 | | [][] | fail() -> void"));
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

TEST(HostApi, CalcModuleWorksAsWrittenUnderAUniqueName) {
  boost::shared_ptr<ZR::ZRBroker> broker = ZR::ZRBroker::createBroker("main");
  vo::Future<void> arrived = broker->session()->waitForService("Calc").async();
  auto calc = ZR::ZRModule::createModule<host_api::Calc>(broker, "Calc");
  EXPECT_TRUE(arrived.hasValue());  // registration releases those waiting for the name
  boost::shared_ptr<ZR::ZRProxy> p = broker->getProxy("Calc", 0);
  EXPECT_EQ(p->call<int>("add", 2, 40), 42);
  EXPECT_TRUE(p->call<bool>("ping"));
  EXPECT_EQ(p->call<std::string>("version"), ZR::kPlatformVersion);
  EXPECT_THAT(p->call<std::vector<std::string>>("getMethodList"),
              ElementsAre("getMethodList", "getMethodHelp", "version", "ping", "add"));
  EXPECT_THAT(errorOf([&] { broker->getProxy("Nobody", 0); }).getDescription(),
              HasSubstr("Nobody"));

  // A refused module goes away without taking the name from the original.
  EXPECT_THROW(ZR::ZRModule::createModule<Shapes>(broker, "Calc"), ZR::ZRError);
  EXPECT_EQ(p->call<int>("add", 1, 1), 2);
  // Calls read the method table without a lock: once reachable, a module takes no new methods.
  auto holder = ZR::ZRModule::createModule<Holder>(broker, "Holder");
  EXPECT_THROW(holder->registerLate(), ZR::ZRError);
  EXPECT_FALSE(holder->hasMethod("late"));
  EXPECT_THAT(broker->getModuleNames(), ElementsAre("Calc", "Holder"));
  EXPECT_EQ(calc->getParentBroker(), broker);
  broker.reset();
  EXPECT_THROW(calc->getParentBroker(), ZR::ZRError);
}

TEST(ZRFunctor, PackedCallOnlyLogsAndTheFunctorIsReleasedOnce) {
  auto broker = ZR::ZRBroker::createBroker("functors");
  auto shapes = ZR::ZRModule::createModule<Shapes>(broker, "Shapes");
  boost::shared_ptr<ZR::ZRFunctorBase> f =
      ZR::createFunctor<Shapes, int, int, int>(shapes.get(), &Shapes::area);
  ZR::ZRValue params;
  params.arraySetSize(2);
  params[0] = 3;
  params[1] = 4;
  ZR::ZRValue result(42);
  LogCapture capture;
  f->call(params, result);
  ASSERT_EQ(capture.records().size(), 1u);
  EXPECT_EQ(capture.records()[0].category, "zrcommon.ZRFunctor");
  EXPECT_EQ(capture.takeLines(),
            zrtest::Lines({{vo::LogLevel_Error, "call", "ZRFunctor::call not implemented"}}));
  EXPECT_EQ(result, ZR::ZRValue(42));
  EXPECT_EQ(f->function().call(&params[0], 2).toInt(), 12);  // the bound function calls

  auto holder = ZR::ZRModule::createModule<Holder>(broker, "Holder");
  boost::shared_ptr<ZR::ZRFunctorBase> kept = holder->functor;
  boost::weak_ptr<ZR::ZRFunctorBase> watch = kept;
  EXPECT_EQ(broker->getProxy("Holder")->call<int>("seven"), 7);
  holder.reset();
  EXPECT_TRUE(broker->removeModule("Holder"));
  EXPECT_FALSE(broker->removeModule("Holder"));
  EXPECT_EQ(kept->function().call(nullptr, 0).toInt(), 7);  // this test still holds it
  kept.reset();
  EXPECT_TRUE(watch.expired());  // released once, or AddressSanitizer tells
  broker->shutdown();
}

namespace {
class Adder : public ZR::ZRModule {
 public:
  Adder(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name, std::atomic<bool>* torn)
      : ZRModule(broker, name), torn_(torn) {
    functionName("add", "Adder", "Adds slowly enough to overlap removal.", 0);
    bindMethod(&Adder::add);
  }
  ~Adder() override {
    if (inCall_ != 0) *torn_ = true;
  }
  int add(const int& a, const int& b) {
    ++inCall_;
    const int sum = a + b;
    --inCall_;
    return sum;
  }

 private:
  std::atomic<int> inCall_{0};
  std::atomic<bool>* torn_;
};
}  // namespace

TEST(ZRProxy, CallsRacingModuleRemovalEitherSucceedOrSayModuleDestroyed) {
  auto broker = ZR::ZRBroker::createBroker("race");
  std::atomic<bool> torn{false};
  auto adder = ZR::ZRModule::createModule<Adder>(broker, "Adder", &torn);
  boost::weak_ptr<Adder> watch = adder;
  auto shared = broker->getProxy("Adder");
  std::atomic<int> wrong{0}, otherErrors{0}, sawDestroyed{0};
  zrtest::Signal running;

  // Once removed, the module takes no new call, so every caller meets "module destroyed" soon;
  // the bound only turns a module that stays reachable into a failure instead of a hang.
  constexpr int kThreads = 8, kMaxCalls = 1000000;
  std::vector<std::thread> callers;
  for (int t = 0; t < kThreads; ++t) {
    // Half the threads share one proxy, half have their own.
    auto proxy = t % 2 ? shared : broker->getProxy("Adder");
    callers.emplace_back([&, proxy, t] {
      for (int i = 0; i < kMaxCalls; ++i) {
        if (i == 100) running.notify();
        try {
          if (proxy->call<int>("add", i, t) != i + t) ++wrong;
        } catch (const ZR::ZRError& e) {
          if (e.getDescription() != "module destroyed") ++otherErrors;
          ++sawDestroyed;
          return;
        }
      }
    });
  }
  ASSERT_TRUE(running.waitFor(kThreads));
  EXPECT_TRUE(broker->removeModule("Adder"));
  adder.reset();
  for (auto& c : callers) c.join();

  EXPECT_EQ(sawDestroyed, kThreads);
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(otherErrors, 0);
  EXPECT_FALSE(torn);
  EXPECT_TRUE(watch.expired());
  EXPECT_FALSE(shared->isValid());
  EXPECT_EQ(errorOf([&] { shared->call<int>("add", 1, 2); }).getDescription(), "module destroyed");
  EXPECT_THROW(broker->getProxy("Adder"), ZR::ZRError);
}

namespace {
// Calls each module it uses from its destructor, as a sound extractor unsubscribes from the
// audio device, and logs whether it reached it.
class Tracer : public ZR::ZRModule {
 public:
  Tracer(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name,
         std::vector<std::string>* log, std::vector<std::string> uses)
      : ZRModule(broker, name), log_(log), uses_(std::move(uses)) {}
  ~Tracer() override {
    log_->push_back(getName());
    for (const std::string& used : uses_) {
      try {
        getParentBroker()->getProxy(used)->call<bool>("ping");
        log_->push_back(getName() + " reached " + used);
      } catch (const ZR::ZRError&) {
        log_->push_back(getName() + " lost " + used);
      }
    }
  }

 private:
  std::vector<std::string>* log_;
  std::vector<std::string> uses_;
};
}  // namespace

TEST(ZRBroker, ShutdownDestroysModulesBeforeTheServicesTheyUse) {
  const std::string device = ZR::kAudioDeviceServiceName, memory = ZR::kMemoryServiceName;
  std::vector<std::string> log;
  auto broker = ZR::ZRBroker::createBroker("shutdown");
  // The worst order of creation: each service after the modules that use it.
  ZR::ZRModule::createModule<Tracer>(broker, "A", &log, std::vector<std::string>{});
  ZR::ZRModule::createModule<Tracer>(broker, "Extractor", &log,
                                     std::vector<std::string>{device, memory});
  ZR::ZRModule::createModule<Tracer>(broker, device, &log, std::vector<std::string>{memory});
  ZR::ZRModule::createModule<Tracer>(broker, "C", &log, std::vector<std::string>{"A"});
  ZR::ZRModule::createModule<Tracer>(broker, memory, &log, std::vector<std::string>{});
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
  ZR::ZRModule::createModule<Tracer>(broker, memory, &log, std::vector<std::string>{});
  ZR::ZRModule::createModule<Tracer>(broker, "X", &log, std::vector<std::string>{});
  ZR::ZRModule::createModule<Tracer>(broker, "Y", &log, std::vector<std::string>{});
  broker.reset();
  EXPECT_THAT(log, ElementsAre("Y", "X", memory));
}

namespace {
// Each call of "hold" waits until the test opens the gate; its destructor uses an older module.
class Gatekeeper : public ZR::ZRModule {
 public:
  Gatekeeper(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name,
             zrtest::Signal* entered, zrtest::Signal* gate, std::function<void(std::string)> note)
      : ZRModule(broker, name), entered_(entered), gate_(gate), note_(std::move(note)) {
    functionName("hold", "Gatekeeper", "Returns once the gate opens.", 0);
    bindMethod(&Gatekeeper::hold);
  }
  ~Gatekeeper() override {
    note_("destroyed");
    try {
      getParentBroker()->getProxy("Older")->call<bool>("ping");
      note_("reached Older");
    } catch (const ZR::ZRError&) {
      note_("lost Older");
    }
  }
  bool hold() {
    entered_->notify();
    gate_->waitFor();
    note_("call returns");
    return true;
  }

 private:
  zrtest::Signal *entered_, *gate_;
  std::function<void(std::string)> note_;
};
}  // namespace

TEST(ZRBroker, ShutdownWaitsForProxyCallsInFlight) {
  std::mutex mutex;
  std::vector<std::string> order;
  auto note = [&](std::string what) {
    std::lock_guard<std::mutex> lock(mutex);
    order.push_back(std::move(what));
  };
  zrtest::Signal entered, gate;
  auto broker = ZR::ZRBroker::createBroker("inflight");
  std::vector<std::string> olderLog;
  ZR::ZRModule::createModule<Tracer>(broker, "Older", &olderLog, std::vector<std::string>{});
  ZR::ZRModule::createModule<Gatekeeper>(broker, "Gatekeeper", &entered, &gate, note);
  auto proxy = broker->getProxy("Gatekeeper");
  std::thread caller([&] { EXPECT_TRUE(proxy->call<bool>("hold")); });
  ASSERT_TRUE(entered.waitFor());

  LogCapture capture("zrcommon.ZRBroker");
  std::thread stopper([&] {
    broker->shutdown();
    note("shutdown returns");
  });
  ASSERT_TRUE(capture.waitFor("waiting for 1 call(s) in flight on \"Gatekeeper\""));
  // Meanwhile new calls are refused, and the one in flight goes on.
  EXPECT_EQ(errorOf([&] { proxy->call<bool>("ping"); }).getDescription(), "module destroyed");
  gate.notify();
  caller.join();
  stopper.join();
  // Not waiting would destroy the older module at once, under the call still in flight.
  EXPECT_THAT(order, ElementsAre("call returns", "destroyed", "reached Older", "shutdown returns"));
}

TEST(ZRBroker, PostAndStrandsRunWorkInOrderAndLogFailures) {
  auto broker = ZR::ZRBroker::createBroker("pool", 4);
  EXPECT_EQ(broker->threadCount(), 4);
  LogCapture capture("zrcommon.ZRBroker");
  zrtest::Signal posted, drained;
  broker->post([&] { posted.notify(); });
  ASSERT_TRUE(posted.waitFor());

  ZR::ZRStrand strand = broker->makeStrand();
  std::vector<int> seen;
  std::atomic<int> running{0};
  std::atomic<bool> overlapped{false};
  strand.post([] { throw std::runtime_error("boom"); });  // logged; the strand goes on
  for (int i = 0; i < 1000; ++i) {
    strand.post([&, i] {
      if (++running > 1) overlapped = true;
      seen.push_back(i);
      --running;
    });
  }
  strand.post([&] { drained.notify(); });
  ASSERT_TRUE(drained.waitFor());
  ASSERT_EQ(seen.size(), 1000u);
  for (int i = 0; i < 1000; ++i) ASSERT_EQ(seen[i], i);
  EXPECT_FALSE(overlapped);
  EXPECT_EQ(capture.count("background task failed: boom"), 1);
  EXPECT_THROW(ZR::ZRStrand().post([] {}), ZR::ZRError);
  broker->shutdown();
}

// A consumer handed a bare sample pointer learns the size of the binary the call carried.
class SampleReader : public ZR::ZRModule {
 public:
  SampleReader(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name)
      : ZRModule(broker, name) {
    functionName("fits", "SampleReader", "Whether the counts fit the buffer.", 0);
    bindMethod(&SampleReader::fits);
  }
  bool fits(const int& channels, const int& samples, const ZR::ZRValue& buffer) {
    return ZR::samplesFit(channels, samples, static_cast<const short*>(buffer.GetBinary()));
  }
};

TEST(ZRSamples, CountsAreCheckedAgainstTheBinaryTheCallCarried) {
  auto broker = ZR::ZRBroker::createBroker("samples");
  ZR::ZRModule::createModule<SampleReader>(broker, "Reader");
  auto reader = broker->getProxy("Reader");
  const std::vector<short> pcm(8, 1);
  const ZR::ZRValue buffer(pcm.data(), pcm.size() * sizeof(short));
  const ZR::ZRValue text(std::string("not sound"));
  const struct {
    int channels, samples;
    const ZR::ZRValue& buffer;
    bool fits;
  } cases[] = {{2, 4, buffer, true},          {1, 8, buffer, true},  {2, 5, buffer, false},
               {4, 4, buffer, false},         {0, 4, buffer, false}, {2, -4, buffer, false},
               {65536, 65536, buffer, false}, {1, 1, text, false},   {1, 1, ZR::ZRValue(), false}};
  for (const auto& c : cases) {
    EXPECT_EQ(reader->call<bool>("fits", c.channels, c.samples, c.buffer), c.fits)
        << c.channels << " x " << c.samples << " over " << c.buffer.toString();
  }
  // Outside any call the pointer cannot be sized: the host's own buffers are trusted.
  EXPECT_TRUE(ZR::samplesFit(2, 100, pcm.data()));
  EXPECT_FALSE(ZR::samplesFit(2, 100, nullptr));
  broker->shutdown();
}
