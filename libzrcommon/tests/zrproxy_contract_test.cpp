// The proxy contract, run twice: over an in-process proxy, and over a proxy to a module of
// another broker reached through the network (directory, transport). The same cases, the same
// values and the same error texts prove the two equal.
#include <dlfcn.h>
#include <pthread.h>
#include <zmq.h>

#include <atomic>
#include <functional>
#include <future>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <zrcommon/detail/zrstream.h>
#include <zrcommon/zrbroker.h>
#include <zrcommon/zrfunctor.h>
#include <zrcommon/zrmodule.h>
#include <zrcommon/zrproxy.h>
#include <zrtest.h>

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using zrtest::errorOf;

namespace {

class Shapes : public ZR::ZRModule {
 public:
  Shapes(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name) : ZRModule(broker, name) {
    functionName("scale", "Shapes", "Doubles a length.", 0);
    addParam("length", "Length to scale.");
    bindMethod(static_cast<int (Shapes::*)(const int&)>(&Shapes::scale));
    functionName("scale", "Shapes", "Halves a real length.", 0);
    addParam("length", "Real length to scale.");
    bindMethod(static_cast<float (Shapes::*)(const float&)>(&Shapes::scale));
    functionName("scale", "Shapes", "Repeats a unit.", 0);
    addParam("unit", "Unit name.");
    addParam("count", "How many.");
    bindMethodOverload(
        ZR::createFunctor<Shapes, std::string, int, std::string>(this, &Shapes::scale));
    functionName("echo", "Shapes", "Gives its value back.", 0);
    addParam("value", "Any value.");
    bindMethod(&Shapes::echo);
    functionName("fail", "Shapes", "Always fails.", 0);
    bindMethodOverload(ZR::createFunctor<Shapes, void>(this, &Shapes::fail));
    functionName("hold", "Shapes", "Returns once released.", 0);
    bindMethod(&Shapes::hold);
    functionName("blob", "Shapes", "32 KB it keeps no hold of.", 0);
    bindMethod(&Shapes::blob);
  }
  int scale(const int& x) { return 2 * x; }
  float scale(const float& x) { return x / 2; }
  std::string scale(const std::string& unit, const int& count) {
    return std::to_string(count) + " " + unit;
  }
  ZR::ZRValue echo(const ZR::ZRValue& v) {
    std::lock_guard<std::mutex> lock(seenMutex);
    return seen = v;
  }
  // Under a lock: across hosts the only other hand-off to the caller is ZeroMQ's, which
  // ThreadSanitizer does not see.
  ZR::ZRValue lastSeen() {
    std::lock_guard<std::mutex> lock(seenMutex);
    return seen;
  }
  void fail() { throw std::runtime_error("no luck"); }
  bool hold() {
    holding.notify();
    return released.get_future().get();
  }
  // Its storage, once let go, says which thread let it go.
  ZR::ZRValue blob() {
    auto bytes = std::make_shared<std::vector<char>>(32768, 5);
    std::shared_ptr<const void> owner(bytes->data(), [this, bytes](const void*) mutable {
      char name[32] = {};
      pthread_getname_np(pthread_self(), name, sizeof name);
      blobReleasedOn = name;
      bytes.reset();
      blobReleased.notify();
    });
    return ZR::ZRValue(bytes->data(), bytes->size(), owner);
  }
  zrtest::Signal holding;
  std::promise<bool> released;
  std::mutex seenMutex;
  ZR::ZRValue seen;
  std::string blobReleasedOn;
  zrtest::Signal blobReleased;
};

// One broker: the module and its caller share it.
struct InProcess {
  boost::shared_ptr<ZR::ZRBroker> host = ZR::ZRBroker::createBroker("local");
  boost::shared_ptr<ZR::ZRBroker> caller = host;
};

// Two brokers in a network: the host serves the directory and holds the modules; the caller
// reaches them through the transport.
struct Remote {
  static constexpr int kHostThreads = 2;
  static ZR::ZRBrokerOptions directory() {
    ZR::ZRBrokerOptions o;
    o.directory = "tcp://127.0.0.1:0";
    o.serveDirectory = true;
    o.threads = kHostThreads;
    o.heartbeat = zrtest::kHeartbeat;
    return o;
  }
  boost::shared_ptr<ZR::ZRBroker> host = ZR::ZRBroker::createBroker("hostA", directory());
  boost::shared_ptr<ZR::ZRBroker> caller = [this] {
    ZR::ZRBrokerOptions o;
    o.directory = host->endpoint();
    o.heartbeat = zrtest::kHeartbeat;
    return ZR::ZRBroker::createBroker("hostB", o);
  }();
};

template <class Brokers>
class ProxyContract : public ::testing::Test {
 protected:
  // Creates the module on the host, and a proxy to it once the caller sees it.
  boost::shared_ptr<ZR::ZRProxy> make(const std::string& name) {
    module = ZR::ZRModule::createModule<Shapes>(b.host, name);
    b.caller->session()->waitForService(name).wait();
    EXPECT_TRUE(b.caller->session()->hasService(name));
    EXPECT_THAT(b.caller->session()->services(), ::testing::Contains(name));
    return b.caller->getProxy(name, 0);
  }
  Brokers b;
  boost::shared_ptr<Shapes> module;
};

using Kinds = ::testing::Types<InProcess, Remote>;
TYPED_TEST_SUITE(ProxyContract, Kinds);

std::string fieldsOf(const ZR::ZRError& e) {
  return e.getModuleName() + "|" + e.getMethodName() + "|" + e.getDescription();
}

TYPED_TEST(ProxyContract, ValuesAndErrorsAreThoseOfAnInProcessCall) {
  boost::shared_ptr<ZR::ZRProxy> p = this->make("Shapes");
  boost::shared_ptr<ZR::ZRProxy> local =
      this->b.host->getProxy("Shapes");  // the reference: a call in process
  EXPECT_TRUE(p->isValid());
  EXPECT_EQ(p->call<int>("scale", 3), 6);
  EXPECT_FLOAT_EQ(p->call<float>("scale", 3.0), 1.5f);  // double as float
  EXPECT_EQ(p->call<std::string>("scale", "cm", 4), "4 cm");
  ZR::ZRValue nested;
  nested.arrayPush(1);
  nested.arrayPush(std::string("a"));
  nested.arrayPush(ZR::ZRValue(0.25f));
  nested.arrayPush(ZR::ZRValue(static_cast<const void*>("\x01\x02\x03"), 3));
  nested.arrayPush(ZR::ZRValue());
  EXPECT_EQ(p->call<ZR::ZRValue>("echo", nested).toString(), nested.toString());
  EXPECT_THAT(p->call<std::vector<std::string>>("getMethodList"),
              ElementsAre("getMethodList", "getMethodHelp", "version", "ping", "scale", "echo",
                          "fail", "hold", "blob"));
  EXPECT_THAT(p->call<std::string>("getMethodHelp", "scale"), HasSubstr("Halves a real length."));

  // Each failure: the same three fields as the call in process, and the part that says why.
  using Call = std::function<void(ZR::ZRProxy&)>;
  const std::vector<std::tuple<Call, const char*, const char*>> failures = {
      {[](ZR::ZRProxy& q) { q.call<int>("scale", true); }, "scale", "scale(string, int)"},
      {[](ZR::ZRProxy& q) { q.call<std::string>("scale", 3); }, "scale", "unexpected result"},
      {[](ZR::ZRProxy& q) { q.call<int>("rotate", 90); }, "rotate", "rotate"},
      {[](ZR::ZRProxy& q) { q.call<void>("fail"); }, "fail", "no luck"},
      {[](ZR::ZRProxy& q) { q.call<std::string>("getMethodHelp", "x"); }, "getMethodHelp", "x"},
  };
  for (const auto& [call, method, part] : failures) {
    const ZR::ZRError e = errorOf([&] { call(*p); });
    EXPECT_EQ(fieldsOf(e), fieldsOf(errorOf([&] { call(*local); }))) << method;
    EXPECT_EQ(e.getModuleName() + "/" + e.getMethodName(), std::string("Shapes/") + method);
    EXPECT_THAT(e.getDescription(), HasSubstr(part)) << method;
    // Never wrapped twice: the description does not repeat module or method.
    EXPECT_THAT(e.getDescription(), ::testing::Not(HasSubstr("Shapes")));
  }
  EXPECT_EQ(errorOf([] { ZR::ZRProxy().call<int>("scale", 1); }).getDescription(),
            "This object is null");
  EXPECT_THAT(errorOf([&] { this->b.caller->getProxy("Nobody", 0); }).getDescription(),
              HasSubstr("Nobody"));
}

TYPED_TEST(ProxyContract, AModuleThatGoesIsDestroyedForEveryCallerAndCanComeBack) {
  boost::shared_ptr<ZR::ZRProxy> p = this->make("Adder");
  auto session = this->b.caller->session();
  zrtest::Signal removed;
  session->connectServiceRemoved([&](const std::string& name) {
    if (name == "Adder") removed.notify();
  });
  // Callers racing the removal: each call either succeeds or says "module destroyed".
  std::atomic<int> wrong{0}, destroyed{0};
  zrtest::Signal started;
  std::vector<std::thread> callers;
  for (int t = 0; t < 4; ++t) {
    boost::shared_ptr<ZR::ZRProxy> proxy = t % 2 ? p : this->b.caller->getProxy("Adder");
    callers.emplace_back([&, proxy, t] {
      started.notify();
      for (int i = 0;; ++i) {
        try {
          if (proxy->call<int>("scale", i + t) != 2 * (i + t)) ++wrong;
        } catch (const ZR::ZRError& e) {
          if (e.getDescription() != "module destroyed" || e.getModuleName() != "Adder") ++wrong;
          ++destroyed;
          return;
        }
      }
    });
  }
  ASSERT_TRUE(started.waitFor(4));
  this->module.reset();
  EXPECT_TRUE(this->b.host->removeModule("Adder"));
  for (auto& c : callers) c.join();
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_EQ(destroyed.load(), 4);
  ASSERT_TRUE(removed.waitFor());
  EXPECT_FALSE(session->hasService("Adder"));
  EXPECT_FALSE(p->isValid());
  EXPECT_THAT(session->services(), ::testing::Not(::testing::Contains("Adder")));
  EXPECT_EQ(fieldsOf(errorOf([&] { p->call<int>("scale", 1); })), "Adder|scale|module destroyed");
  EXPECT_THROW(this->b.caller->getProxy("Adder"), ZR::ZRError);

  // Registered again under the same name: reached again by name.
  boost::shared_ptr<ZR::ZRProxy> again = this->make("Adder");
  EXPECT_EQ(again->call<int>("scale", 21), 42);
}

// Remote only: what a call in process has no use for.
using RemoteProxy = ProxyContract<Remote>;

TEST_F(RemoteProxy, DeadlinesNamesOfOtherHostsAndShutdown) {
  boost::shared_ptr<ZR::ZRProxy> p = this->make("Shapes");
  // A deadline fails the call, and the callee's pool goes on once the held call lets go (a slow
  // host may also have dropped it, its deadline past before a thread took it).
  p->setDeadline(std::chrono::milliseconds(200));
  EXPECT_EQ(fieldsOf(errorOf([&] { p->call<bool>("hold"); })), "Shapes|hold|deadline exceeded");
  module->released.set_value(true);
  p->setDeadline(std::chrono::milliseconds(0));
  EXPECT_EQ(p->call<int>("scale", 5), 10);

  // A name the other host holds: refused, naming that host.
  const ZR::ZRError taken =
      errorOf([&] { ZR::ZRModule::createModule<Shapes>(b.caller, "Shapes"); });
  EXPECT_THAT(taken.getDescription(), HasSubstr("hostA"));
  EXPECT_TRUE(p->isValid());
  // Names published by the caller reach the host, even while every thread of the host's pool
  // waits (for that very name, say): the directory answers off the pool.
  std::promise<void> go;
  std::shared_future<void> gate = go.get_future().share();
  zrtest::Signal blocked;
  for (int i = 0; i < Remote::kHostThreads; ++i)
    b.host->post([&blocked, gate] {
      blocked.notify();
      gate.wait();
    });
  ASSERT_TRUE(blocked.waitFor(Remote::kHostThreads));
  ZR::ZRModule::createModule<Shapes>(b.caller, "Other");
  EXPECT_EQ(b.host->session()->waitForService("Other").async().wait(
                static_cast<int>(zrtest::kWaitLimit.count() * 1000)),
            vo::FutureState::FinishedWithValue);
  go.set_value();
  EXPECT_EQ(b.host->getProxy("Other")->call<int>("scale", 2), 4);

  // The host shuts down: its names leave the caller's directory, calls fail.
  zrtest::Signal removed;
  b.caller->session()->connectServiceRemoved([&](const std::string& name) {
    if (name == "Shapes") removed.notify();
  });
  module.reset();
  b.host->shutdown();
  ASSERT_TRUE(removed.waitFor());
  EXPECT_EQ(fieldsOf(errorOf([&] { p->call<int>("scale", 1); })), "Shapes|scale|module destroyed");
  b.caller->shutdown();
}

// A host that shuts down fails what its streams still wait for: a delivery line waiting on a
// credit holds itself through the stream, and would otherwise never be let go.
TEST_F(RemoteProxy, AShutdownFailsWhatItsStreamsWaitFor) {
  this->make("Shapes");
  std::shared_ptr<ZR::detail::ZRStreamSender> stream =
      ZR::detail::openStream(*b.caller, b.host->endpoint(), "test");
  ASSERT_TRUE(stream);
  std::promise<std::string> failure;
  stream->send("Shapes", "hold", {}, true, [&](const ZR::ZRError* e) {
    failure.set_value(e ? e->getDescription() : "answered");
  });
  ASSERT_TRUE(module->holding.waitFor());
  b.caller->shutdown();
  std::future<std::string> f = failure.get_future();
  ASSERT_EQ(f.wait_for(zrtest::kWaitLimit), std::future_status::ready);
  EXPECT_EQ(f.get(), "module destroyed");
  module->released.set_value(true);
}

// True when the binary of `v` lies inside the ZeroMQ message that owns it, as a received
// binary does. libzmq is there through the transport; this program does not link it itself.
bool insideItsMessage(const ZR::ZRValue& v) {
  static const auto data =
      reinterpret_cast<void* (*)(zmq_msg_t*)>(dlsym(RTLD_DEFAULT, "zmq_msg_data"));
  static const auto size =
      reinterpret_cast<size_t (*)(const zmq_msg_t*)>(dlsym(RTLD_DEFAULT, "zmq_msg_size"));
  std::shared_ptr<const void> owner = v.getBinaryOwner();
  // A copy owns its bytes directly; a received message is an object apart from its data.
  if (!data || !size || !owner || owner.get() == v.GetBinary()) return false;
  auto* message = static_cast<zmq_msg_t*>(const_cast<void*>(owner.get()));
  const char* begin = static_cast<const char*>(data(message));
  const char* p = static_cast<const char*>(v.GetBinary());
  return p >= begin && p + v.getBinarySize() <= begin + size(message);
}

TEST_F(RemoteProxy, BinariesCrossWithoutACopyBothWays) {
  boost::shared_ptr<ZR::ZRProxy> p = this->make("Shapes");
  std::vector<char> bytes(32768, 7);
  const ZR::ZRValue arg(bytes.data(), bytes.size(),
                        std::shared_ptr<const void>(&bytes, [](const void*) {}));
  // The method and the caller each read the bytes where they arrived.
  const ZR::ZRValue back = p->call<ZR::ZRValue>("echo", arg);
  EXPECT_TRUE(insideItsMessage(module->lastSeen()));
  EXPECT_TRUE(insideItsMessage(back));
  EXPECT_EQ(back, arg);
  // A result leaves by reference: ZeroMQ's own thread lets its storage go, once it is sent.
  EXPECT_EQ(p->call<ZR::ZRValue>("blob").getBinarySize(), 32768u);
  ASSERT_TRUE(module->blobReleased.waitFor());
  EXPECT_EQ(module->blobReleasedOn.rfind("ZMQbg/", 0), 0u) << module->blobReleasedOn;
}

}  // namespace

// A host that waits for a name it does not know asks the directory at once rather than at its
// next sync: with syncs a minute apart, a name another host published is found all the same.
TEST(RemoteNames, AWaitedNameIsAskedForAtOnce) {
  ZR::ZRBrokerOptions o = Remote::directory();
  o.heartbeat = std::chrono::seconds(60);
  auto host = ZR::ZRBroker::createBroker("hostA", o);
  auto early = ZR::ZRModule::createModule<Shapes>(host, "Early");
  o.serveDirectory = false;
  o.directory = host->endpoint();
  auto waiter = ZR::ZRBroker::createBroker("hostB", o);
  waiter->session()->waitForService("Early").wait();  // its first sync is over
  auto module = ZR::ZRModule::createModule<Shapes>(host, "Late");
  EXPECT_EQ(waiter->session()->waitForService("Late").async().wait(
                static_cast<int>(zrtest::kWaitLimit.count() * 1000)),
            vo::FutureState::FinishedWithValue);
  EXPECT_EQ(waiter->getProxy("Late")->call<int>("scale", 2), 4);
  module.reset();
  early.reset();
  waiter->shutdown();
  host->shutdown();
}
