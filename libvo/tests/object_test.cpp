#include <atomic>
#include <chrono>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <boost/make_shared.hpp>

#include <vo/anyfunction.h>
#include <vo/dynamicobject.h>
#include <vo/dynamicobjectbuilder.h>
#include <vo/metamethod.h>
#include <vo/session.h>
#include <zrtest.h>

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using zrtest::errorOf;

namespace {

const int kWaitMs = static_cast<int>(std::chrono::milliseconds(zrtest::kWaitLimit).count());

// Counts live copies, so that a storage cloned or freed the wrong number of times shows.
struct Counted {
  static std::atomic<int> live;
  Counted() { ++live; }
  Counted(const Counted&) { ++live; }
  ~Counted() { --live; }
  int operator()(int x) const { return x * 3; }
};
std::atomic<int> Counted::live{0};

struct Animal {
  virtual ~Animal() = default;
  virtual std::string speak(const int& times) { return std::string(times, '.'); }
  int legs() const { return legs_; }
  int legs_ = 4;
};
struct Dog : Animal {
  std::string speak(const int& times) override { return std::string(times, 'w'); }
};
// Animal is not the first base: binding its members must adjust the object pointer.
struct Padding {
  virtual ~Padding() = default;
  double pad[3] = {1, 2, 3};
};
struct Bird : Padding, Dog {
  Bird() { legs_ = 2; }
};

ZR::ZRValue callWith(const vo::AnyFunction& f, std::vector<ZR::ZRValue> args) {
  return f.call(args.data(), args.size());
}

}  // namespace

TEST(AnyFunction, StorageIsClonedAndReleasedOnceAndMembersReachTheMostDerivedOverride) {
  ASSERT_EQ(Counted::live, 0);
  {
    vo::AnyFunction a = vo::makeAnyFunction(std::function<int(int)>(Counted()));
    EXPECT_EQ(a.parametersSignature() + a.resultSignature(), "ii");
    vo::AnyFunction copy(a);
    EXPECT_EQ(callWith(copy, {ZR::ZRValue(2)}).toInt(), 6);
    vo::AnyFunction moved(std::move(copy));
    EXPECT_FALSE(copy.isValid());  // NOLINT(bugprone-use-after-move): moved-from holds nothing
    vo::AnyFunction assigned;
    assigned = a;
    assigned = moved;  // the previous storage goes, a clone comes
    assigned = assigned;
    EXPECT_EQ(Counted::live, 3);
    EXPECT_EQ(callWith(assigned, {ZR::ZRValue(1)}).toInt(), 3);
    assigned = vo::AnyFunction();
    EXPECT_EQ(Counted::live, 2);
  }
  EXPECT_EQ(Counted::live, 0);
  vo::AnyFunction empty;
  EXPECT_EQ(empty.parametersSignature() + empty.resultSignature(), "v");
  EXPECT_FALSE(vo::AnyFunction(empty).isValid());
  EXPECT_THROW(empty.call(nullptr, 0), ZR::ZRError);

  vo::AnyFunction bare = vo::detail::makeAnyFunctionBare(&Animal::speak);
  EXPECT_EQ(bare.parametersSignature() + bare.resultSignature(), "ois");
  EXPECT_THROW(callWith(bare, {ZR::ZRValue(1)}), ZR::ZRError);  // no object to run on
  Bird bird;  // Animal is not its first base: the object pointer must be adjusted
  vo::AnyFunction speak = bare;
  speak.prependArgument(vo::detail::objectFor(&bird, &Animal::speak)).dropFirstArgument();
  EXPECT_EQ(speak.parametersSignature() + bare.parametersSignature(), "ioi");
  EXPECT_EQ(callWith(speak, {ZR::ZRValue(2)}).toStringRef(), "ww");
  EXPECT_THROW(callWith(speak, {}), ZR::ZRError);
  EXPECT_THROW(callWith(speak, {ZR::ZRValue(1), ZR::ZRValue(2)}), ZR::ZRError);
  vo::AnyFunction legs = vo::detail::makeAnyFunctionBare(&Animal::legs);
  legs.prependArgument(vo::detail::objectFor(&bird, &Animal::legs)).dropFirstArgument();
  EXPECT_EQ(callWith(legs, {}).toInt(), 2);
}

namespace {

class Host : public vo::DynamicObject {
 public:
  Host() {
    vo::DynamicObjectBuilder object(this);
    vo::MetaMethodBuilder method;
    auto publish = [&](const char* name, auto member) {
      method.reset();
      method.setName(name);
      object.advertiseMethod(method, this, member);
    };
    // The float overload comes first: an int argument must still pick the int one.
    publish("pick", static_cast<std::string (Host::*)(const float&)>(&Host::pick));
    publish("pick", static_cast<std::string (Host::*)(const int&)>(&Host::pick));
    publish("pick", static_cast<std::string (Host::*)(const std::string&)>(&Host::pick));
    publish("pick", static_cast<std::string (Host::*)(const int&, const int&)>(&Host::pick));
    publish("half", &Host::half);
    publish("kind", &Host::kind);
    publish("fail", &Host::fail);
  }
  std::string objectName() const override { return "Host"; }

  std::string pick(const float&) { return "float"; }
  std::string pick(const int&) { return "int"; }
  std::string pick(const std::string&) { return "string"; }
  std::string pick(const int&, const int&) { return "int, int"; }
  float half(const float& x) { return x / 2; }
  std::string kind(const ZR::ZRValue& v) { return v.getTypeName(); }
  void fail() { throw ZR::ZRError("Elsewhere", "deep", "it broke"); }

  ZR::ZRValue call(std::string_view name, std::vector<ZR::ZRValue> args) const {
    return metaCall(name, args.data(), args.size());
  }
};

}  // namespace

TEST(DynamicObject, OverloadsAreChosenByTheirArgumentsAndMisfitsNameThemAll) {
  Host h;
  EXPECT_EQ(h.call("pick", {ZR::ZRValue(1)}).toStringRef(), "int");
  EXPECT_EQ(h.call("pick", {ZR::ZRValue(1.5f)}).toStringRef(), "float");
  EXPECT_EQ(h.call("pick", {ZR::ZRValue("a")}).toStringRef(), "string");
  EXPECT_EQ(h.call("pick", {ZR::ZRValue(1), ZR::ZRValue(2)}).toStringRef(), "int, int");
  // An int fills a float parameter when nothing takes it exactly.
  ZR::ZRValue half = h.call("half", {ZR::ZRValue(3)});
  EXPECT_TRUE(half.isFloat());
  EXPECT_FLOAT_EQ(half.toFloat(), 1.5f);
  // A ZRValue parameter takes anything, as it is.
  EXPECT_EQ(h.call("kind", {ZR::ZRValue(true)}).toStringRef(), ZR::ZRValue(true).getTypeName());
  EXPECT_EQ(h.call("kind", {ZR::ZRValue()}).toStringRef(), ZR::ZRValue().getTypeName());
  EXPECT_TRUE(h.hasMethod("half"));
  EXPECT_FALSE(h.hasMethod("halve"));
  std::vector<std::string> names;
  for (const vo::MetaMethod& m : h.metaMethods()) names.push_back(m.readableSignature());
  EXPECT_THAT(names,
              ElementsAre("pick(float) -> string", "pick(int) -> string", "pick(string) -> string",
                          "pick(int, int) -> string", "half(float) -> float",
                          "kind(ZRValue) -> string", "fail() -> void"));

  // Too few, too many, a bool for an int, wrong kinds, nothing at all.
  const std::vector<std::vector<ZR::ZRValue>> misfits = {
      {},
      {ZR::ZRValue(1), ZR::ZRValue(2), ZR::ZRValue(3)},
      {ZR::ZRValue(true)},
      {ZR::ZRValue("a"), ZR::ZRValue(2)},
      {ZR::ZRValue()},
  };
  for (const auto& args : misfits) {
    ZR::ZRError e = errorOf([&] { h.call("pick", args); });
    EXPECT_EQ(e.getModuleName() + "/" + e.getMethodName(), "Host/pick");
    for (const char* s : {"pick(float)", "pick(int)", "pick(string)", "pick(int, int)"})
      EXPECT_THAT(e.getDescription(), HasSubstr(s)) << args.size() << " arguments";
  }
  EXPECT_THAT(errorOf([&] { h.call("half", {ZR::ZRValue("x")}); }).getDescription(),
              HasSubstr("half(float)"));
  ZR::ZRError unknown = errorOf([&] { h.call("halve", {ZR::ZRValue(1)}); });
  EXPECT_EQ(unknown.getMethodName(), "halve");
  EXPECT_THAT(unknown.getDescription(), HasSubstr("halve"));
  // What the method itself throws passes through untouched.
  ZR::ZRError thrown = errorOf([&] { h.call("fail", {}); });
  EXPECT_EQ(thrown.getModuleName() + thrown.getDescription(), "Elsewhereit broke");
}

TEST(Session, RegistersForgetsAndTellsOfRemovals) {
  vo::Session s;
  auto a = boost::make_shared<vo::DynamicObject>();
  auto b = boost::make_shared<vo::DynamicObject>();
  auto c = boost::make_shared<vo::DynamicObject>();
  s.registerService("c", c);
  s.registerService("a", a);
  s.registerService("b", b);
  EXPECT_THAT(s.services(), ElementsAre("c", "a", "b"));
  EXPECT_EQ(s.service("a"), a);
  EXPECT_EQ(s.service("z"), nullptr);

  std::vector<std::string> heard;
  bool stillListed = true;
  s.connectServiceRemoved([](const std::string&) { throw std::runtime_error("careless"); });
  const unsigned long id = s.connectServiceRemoved([&](const std::string& name) {
    stillListed = s.hasService(name);  // outside the session's lock: the session may be used
    heard.push_back(name);
  });

  // A taken name is refused and keeps its service; only the object a name designates can take
  // it away.
  auto intruder = boost::make_shared<vo::DynamicObject>();
  EXPECT_THROW(s.registerService("a", intruder), ZR::ZRError);
  EXPECT_FALSE(s.unregisterService("a", intruder.get()));
  EXPECT_EQ(s.service("a"), a);
  EXPECT_TRUE(s.unregisterService("a", a.get()));
  EXPECT_FALSE(s.unregisterService("a"));
  EXPECT_THAT(heard, ElementsAre("a"));
  EXPECT_FALSE(stillListed);
  s.registerService("a", intruder);
  EXPECT_THAT(s.services(), ElementsAre("c", "b", "a"));

  // A service that went away is not found, and its name is free again.
  c.reset();
  EXPECT_FALSE(s.hasService("c"));
  EXPECT_THAT(s.services(), ElementsAre("b", "a"));
  auto c2 = boost::make_shared<vo::DynamicObject>();
  EXPECT_NO_THROW(s.registerService("c", c2));

  s.disconnectServiceRemoved(id);
  EXPECT_TRUE(s.unregisterService("b"));
  EXPECT_THAT(heard, ElementsAre("a"));
}

TEST(Session, WaitsCompleteOnRegistrationAndFailOnClose) {
  vo::Session s;
  auto early = boost::make_shared<vo::DynamicObject>();
  auto late = boost::make_shared<vo::DynamicObject>();
  s.registerService("early", early);
  EXPECT_TRUE(s.waitForService("early").async().hasValue());

  vo::Future<void> first = s.waitForService("late").async();
  vo::Future<void> second = s.waitForService("late").async();
  vo::Future<void> never = s.waitForService("never").async();
  EXPECT_TRUE(first.isRunning());
  std::thread registrar([&] { s.registerService("late", late); });
  EXPECT_EQ(first.wait(kWaitMs), vo::FutureState::FinishedWithValue);
  EXPECT_EQ(second.wait(kWaitMs), vo::FutureState::FinishedWithValue);
  registrar.join();
  EXPECT_TRUE(never.isRunning());

  s.close();
  EXPECT_TRUE(s.isClosed());
  ASSERT_TRUE(never.hasError());
  EXPECT_THAT(never.error(), HasSubstr("never"));
  EXPECT_TRUE(s.waitForService("gone").async().hasError());
  EXPECT_TRUE(s.waitForService("late").async().hasValue());
  auto more = boost::make_shared<vo::DynamicObject>();
  EXPECT_THROW(s.registerService("more", more), ZR::ZRError);
  EXPECT_EQ(s.service("early"), early);  // a closed session still answers lookups
}
