#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <vo/anyfunction.h>
#include <vo/dynamicobject.h>
#include <vo/dynamicobjectbuilder.h>
#include <vo/metamethod.h>
#include <vo/session.h>
#include <zrtest.h>
#include <atomic>
#include <boost/make_shared.hpp>
#include <chrono>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using zrtest::errorOf;
using V = ZR::ZRValue;

namespace {

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
struct Padding {
  virtual ~Padding() = default;
  double pad[3] = {1, 2, 3};
};
struct Bird : Padding, Animal {  // Animal is not its first base: the object pointer must move
  Bird() { legs_ = 2; }
  std::string speak(const int& times) override { return std::string(times, 'w'); }
};

V callWith(const vo::AnyFunction& f, std::vector<V> args) {
  return f.call(args.data(), args.size());
}

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
  std::string kind(const V& v) { return v.getTypeName(); }
  void fail() { throw ZR::ZRError("Elsewhere", "deep", "it broke"); }
  V call(std::string_view n, std::vector<V> a) const { return metaCall(n, a.data(), a.size()); }
};

}  // namespace

TEST(AnyFunction, StorageIsClonedAndReleasedOnceAndMembersReachTheMostDerivedOverride) {
  ASSERT_EQ(Counted::live, 0);
  {
    vo::AnyFunction a = vo::makeAnyFunction(std::function<int(int)>(Counted()));
    EXPECT_EQ(a.parametersSignature() + a.resultSignature(), "ii");
    vo::AnyFunction copy(a);
    EXPECT_EQ(callWith(copy, {V(2)}).toInt(), 6);
    vo::AnyFunction moved(std::move(copy));
    EXPECT_FALSE(copy.isValid());  // NOLINT(bugprone-use-after-move): moved-from holds nothing
    vo::AnyFunction assigned;
    assigned = a;
    assigned = moved;  // the previous storage goes, a clone comes
    assigned = assigned;
    EXPECT_EQ(Counted::live, 3);
    EXPECT_EQ(callWith(assigned, {V(1)}).toInt(), 3);
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
  EXPECT_THROW(callWith(bare, {V(1)}), ZR::ZRError);  // no object to run on
  Bird bird;
  vo::AnyFunction speak = bare;
  speak.prependArgument(vo::detail::objectFor(&bird, &Animal::speak)).dropFirstArgument();
  EXPECT_EQ(speak.parametersSignature() + bare.parametersSignature(), "ioi");
  EXPECT_EQ(callWith(speak, {V(2)}).toStringRef(), "ww");
  EXPECT_THROW(callWith(speak, {}), ZR::ZRError);
  EXPECT_THROW(callWith(speak, {V(1), V(2)}), ZR::ZRError);
  vo::AnyFunction legs = vo::detail::makeAnyFunctionBare(&Animal::legs);
  legs.prependArgument(vo::detail::objectFor(&bird, &Animal::legs)).dropFirstArgument();
  EXPECT_EQ(callWith(legs, {}).toInt(), 2);
}

TEST(DynamicObject, OverloadsAreChosenByTheirArgumentsAndMisfitsNameThemAll) {
  Host h;
  std::string picked;  // an int fills a float parameter when nothing takes it exactly
  for (const auto& args : std::vector<std::vector<V>>{{V(1)}, {V(1.5f)}, {V("a")}, {V(1), V(2)}})
    picked += h.call("pick", args).toStringRef() + ";";
  EXPECT_EQ(picked, "int;float;string;int, int;");
  const V half = h.call("half", {V(3)});
  EXPECT_TRUE(half.isFloat() && half.toFloat() == 1.5f);
  // A ZRValue parameter takes anything, as it is.
  EXPECT_EQ(h.call("kind", {V(true)}).toStringRef(), V(true).getTypeName());
  EXPECT_EQ(h.call("kind", {V()}).toStringRef(), V().getTypeName());
  EXPECT_TRUE(h.hasMethod("half") && !h.hasMethod("halve"));
  std::vector<std::string> names;
  for (const vo::MetaMethod& m : h.metaMethods()) names.push_back(m.readableSignature());
  EXPECT_THAT(names,
              ElementsAre("pick(float) -> string", "pick(int) -> string", "pick(string) -> string",
                          "pick(int, int) -> string", "half(float) -> float",
                          "kind(ZRValue) -> string", "fail() -> void"));
  // Too few, too many, a bool for an int, wrong kinds, nothing at all.
  for (const auto& args :
       std::vector<std::vector<V>>{{}, {V(1), V(2), V(3)}, {V(true)}, {V("a"), V(2)}, {V()}}) {
    ZR::ZRError e = errorOf([&] { h.call("pick", args); });
    EXPECT_EQ(e.getModuleName() + "/" + e.getMethodName(), "Host/pick");
    for (const char* s : {"pick(float)", "pick(int)", "pick(string)", "pick(int, int)"})
      EXPECT_THAT(e.getDescription(), HasSubstr(s)) << args.size() << " arguments";
  }
  EXPECT_THAT(errorOf([&] { h.call("half", {V("x")}); }).getDescription(),
              HasSubstr("half(float)"));
  ZR::ZRError unknown = errorOf([&] { h.call("halve", {V(1)}); });
  EXPECT_EQ(unknown.getMethodName(), "halve");
  EXPECT_THAT(unknown.getDescription(), HasSubstr("halve"));
  // What the method itself throws passes through untouched.
  ZR::ZRError thrown = errorOf([&] { h.call("fail", {}); });
  EXPECT_EQ(thrown.getModuleName() + thrown.getDescription(), "Elsewhereit broke");
}

TEST(Session, RegistersForgetsTellsOfRemovalsAndCompletesWaits) {
  vo::Session s;
  auto a = boost::make_shared<vo::DynamicObject>(), b = boost::make_shared<vo::DynamicObject>(),
       c = boost::make_shared<vo::DynamicObject>(), other = boost::make_shared<vo::DynamicObject>();
  for (const auto& [name, object] : {std::pair{"c", c}, {"a", a}, {"b", b}})
    s.registerService(name, object);
  EXPECT_THAT(s.services(), ElementsAre("c", "a", "b"));
  EXPECT_TRUE(s.service("a") == a && s.service("z") == nullptr);
  std::vector<std::string> heard;  // with whether the name was still listed
  s.connectServiceRemoved([](const std::string&) { throw std::runtime_error("careless"); });
  const unsigned long id = s.connectServiceRemoved([&](const std::string& name) {
    heard.push_back(name + (s.hasService(name) ? "+" : ""));  // outside the session's lock
  });
  // A taken name is refused and keeps its service; only its own object can take it away.
  EXPECT_THROW(s.registerService("a", other), ZR::ZRError);
  EXPECT_FALSE(s.unregisterService("a", other.get()));
  EXPECT_EQ(s.service("a"), a);
  EXPECT_TRUE(s.unregisterService("a", a.get()));
  EXPECT_FALSE(s.unregisterService("a"));
  s.registerService("a", other);
  c.reset();  // a service that went away is not found, and its name is free again
  EXPECT_FALSE(s.hasService("c"));
  EXPECT_THAT(s.services(), ElementsAre("b", "a"));
  EXPECT_NO_THROW(s.registerService("c", a));
  s.disconnectServiceRemoved(id);
  EXPECT_TRUE(s.unregisterService("b"));
  EXPECT_THAT(heard, ElementsAre("a"));

  // Waits complete on registration, every one, from any thread, and fail when the session closes.
  EXPECT_TRUE(s.waitForService("a").async().hasValue());
  vo::Future<void> first = s.waitForService("late").async(), second = first;
  second = s.waitForService("late").async();
  vo::Future<void> never = s.waitForService("never").async();
  EXPECT_TRUE(first.isRunning());
  std::thread registrar([&] { s.registerService("late", a); });
  const int waitMs = static_cast<int>(std::chrono::milliseconds(zrtest::kWaitLimit).count());
  EXPECT_EQ(first.wait(waitMs), vo::FutureState::FinishedWithValue);
  EXPECT_EQ(second.wait(waitMs), vo::FutureState::FinishedWithValue);
  registrar.join();
  EXPECT_TRUE(never.isRunning());
  s.close();
  EXPECT_TRUE(s.isClosed());
  EXPECT_THAT(never.error(), HasSubstr("never"));
  EXPECT_TRUE(s.waitForService("gone").async().hasError());
  EXPECT_TRUE(s.waitForService("late").async().hasValue());
  EXPECT_THROW(s.registerService("more", a), ZR::ZRError);
  EXPECT_EQ(s.service("a"), other);  // a closed session still answers lookups
}

// The network's publish is where other hosts learn the name: their calls may come before it
// returns, so the object is reached from then on, though not listed until the publish succeeds.
TEST(Session, ANameIsReachedFromItsPublishAndFreedWhenThePublishFails) {
  struct Network : vo::SessionNetwork {
    vo::Session* session = nullptr;
    std::vector<std::string> seen;
    void publish(const std::string& name) override {
      seen.push_back(name + (session->service(name) ? " reached" : " missed") +
                     (session->hasService(name) ? " listed" : ""));
      if (name == "taken") throw ZR::ZRError("Directory", "publish", "held by hostB");
    }
    void unpublish(const std::string&) noexcept override {}
  };
  vo::Session s;
  auto network = std::make_shared<Network>();
  network->session = &s;
  s.setNetwork(network);
  auto a = boost::make_shared<vo::DynamicObject>();
  s.registerService("a", a);
  EXPECT_THROW(s.registerService("taken", a), ZR::ZRError);
  EXPECT_THAT(network->seen, ElementsAre("a reached", "taken reached"));
  EXPECT_TRUE(s.service("a") == a && s.hasService("a"));
  EXPECT_TRUE(s.service("taken") == nullptr && !s.hasService("taken"));
  s.setNetwork(nullptr);
}
