#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <mutex>
#include <random>
#include <set>
#include <thread>

#include <vo/log.h>
#include <zrmemory/zrmemory.h>
#include <zrproxies/zrmemoryproxy.h>
#include <zrtest.h>

using namespace std::chrono_literals;
using ::testing::HasSubstr;
using zrtest::errorOf;
using Strings = std::vector<std::string>;

namespace {

// Receives events; `hook` (set before subscribing) may block or throw.
class Client : public ZR::ZRModule {
 public:
  Client(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name) : ZRModule(broker, name) {
    functionName("onEvent", "Client", "Receives an event.", 0);
    addParam("event", "Event name.");
    addParam("value", "Event value.");
    addParam("subscriber", "Subscriber identifier.");
    bindMethod(&Client::onEvent);
  }
  void onEvent(const std::string& event, const ZR::ZRValue& value, const std::string& id) {
    // One event at a time, each telling the subscriber who it is.
    if (++inside > 1 || id != getName()) ++faults;
    struct Leave {
      std::atomic<int>& n;
      ~Leave() { --n; }
    } leave{inside};
    {
      std::lock_guard<std::mutex> lock(mutex);
      got.push_back(event + ":" + value.toString());
    }
    ++calls;
    if (hook) hook(value.toInt());
  }
  Strings received() {
    std::lock_guard<std::mutex> lock(mutex);
    return got;
  }

  std::function<void(int)> hook;
  std::atomic<int> calls{0}, inside{0}, faults{0};
  std::mutex mutex;
  Strings got;
};

// Records "subscribe"/"unsubscribe" calls and the subscribers it serves; calls back into the
// memory service from "subscribe", as a real producer may.
class Producer : public ZR::ZRModule {
 public:
  Producer(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name)
      : ZRModule(broker, name) {
    functionName("subscribe", "Producer", "Adds a subscriber.", 0);
    addParam("module", "Subscriber.");
    bindMethod(&Producer::subscribe);
    functionName("unsubscribe", "Producer", "Removes a subscriber.", 0);
    addParam("module", "Subscriber.");
    bindMethod(&Producer::unsubscribe);
  }
  void subscribe(const std::string& module) {
    if (failSubscribe) throw ZR::ZRError(getName(), "subscribe", "device unavailable");
    std::this_thread::sleep_for(delay);
    ZR::ZRMemoryProxy(getParentBroker()).insertData(getName() + "/last", module);
    std::lock_guard<std::mutex> lock(mutex);
    subscribes.push_back(module);
    if (!active.insert(module).second) ++violations;
  }
  void unsubscribe(const std::string& module) {
    if (failUnsubscribe) throw ZR::ZRError(getName(), "unsubscribe", "busy");
    std::this_thread::sleep_for(delay);
    std::lock_guard<std::mutex> lock(mutex);
    unsubscribes.push_back(module);
    if (active.erase(module) == 0) ++violations;
  }

  std::atomic<bool> failSubscribe{false}, failUnsubscribe{false};
  std::chrono::microseconds delay{0};  // a real producer takes time to start or stop
  std::mutex mutex;
  Strings subscribes, unsubscribes;
  std::set<std::string> active;
  int violations = 0;
};

// A broker with 4 threads and the service; keeps the service's warnings.
struct Fixture {
  explicit Fixture(int capacity = ZR::ZRMemory::kDefaultQueueCapacity)
      : broker(ZR::ZRBroker::createBroker("main", 4)),
        memory(ZR::ZRModule::createModule<ZR::ZRMemory>(broker, "ZRMemory", capacity)),
        proxy(broker) {}
  template <class T = Client>
  boost::shared_ptr<T> make(const std::string& name) {
    return ZR::ZRModule::createModule<T>(broker, name);
  }
  int warningCount() const {
    int n = 0;
    for (const auto& r : warnings.records()) n += r.level == vo::LogLevel_Warning;
    return n;
  }
  zrtest::LogCapture warnings{"zrmemory", vo::LogLevel_Warning};
  boost::shared_ptr<ZR::ZRBroker> broker;
  boost::shared_ptr<ZR::ZRMemory> memory;
  ZR::ZRMemoryProxy proxy;
};

}  // namespace

TEST(ZRMemoryData, InsertGetListRemoveAndErrors) {
  Fixture f;
  f.proxy.insertData("b", 1);
  f.proxy.insertData("a", std::string("x"));
  f.proxy.insertData("b", 2);
  EXPECT_EQ(f.proxy.getData("b"), 2);
  EXPECT_EQ(f.proxy.getData("a"), std::string("x"));
  EXPECT_EQ(f.proxy.getDataListName(), (Strings{"a", "b"}));
  f.proxy.removeData("a");
  EXPECT_EQ(f.proxy.getDataListName(), Strings{"b"});
  EXPECT_THAT(errorOf([&] { f.proxy.getData("a"); }).what(),
              HasSubstr("ZRMemory::getData: nothing is stored under the key \"a\""));
  EXPECT_THROW(f.proxy.removeData("a"), ZR::ZRError);
  EXPECT_THROW(f.proxy.insertData("", 1), ZR::ZRError);
  EXPECT_THROW(ZR::ZRModule::createModule<ZR::ZRMemory>(f.broker, "Other", 0), ZR::ZRError);

  // Every method is documented, each parameter too.
  for (const auto& d : f.memory->getMethodDescriptions()) {
    if (d.moduleName != "ZRMemory") continue;
    EXPECT_FALSE(d.description.empty()) << d.methodName;
    for (const auto& p : d.parameters) EXPECT_FALSE(p.documentation.empty()) << d.methodName;
  }
}

TEST(ZRMemoryEvents, DeclarationsAndLists) {
  Fixture f;
  f.proxy.declareEvent("P/b", "P");
  f.proxy.declareEvent("P/a", "P");
  f.proxy.declareEvent("Q/x", "Q");
  f.proxy.declareEvent("P/b", "P");  // harmless
  f.proxy.declareEvent("loose", "");
  EXPECT_EQ(f.proxy.getExtractorEvent("P"), (Strings{"P/b", "P/a"}));
  EXPECT_EQ(f.proxy.getExtractorEvent("nobody"), Strings{});
  EXPECT_THROW(f.proxy.declareEvent("P/a", "Q"), ZR::ZRError);
  // An event raised before its producer declares it gets that producer.
  f.proxy.raiseEvent("late", 7);
  EXPECT_EQ(f.proxy.getData("late"), 7);
  f.proxy.declareEvent("late", "Q");
  EXPECT_EQ(f.proxy.getExtractorEvent("Q"), (Strings{"Q/x", "late"}));
  EXPECT_EQ(f.proxy.getEventList(), (Strings{"P/a", "P/b", "Q/x", "late", "loose"}));
  EXPECT_EQ(f.proxy.getSubscribers("P/a"), Strings{});
}

TEST(ZRMemoryDelivery, InRaiseOrderUntilUnsubscribed) {
  Fixture f;
  auto client = f.make("Client");
  client->hook = [](int v) {
    if (v % 7 == 0) std::this_thread::yield();
  };
  f.proxy.subscribeToEvent("E", "Client", "onEvent");
  f.proxy.subscribeToEvent("F", "Client", "onEvent");
  EXPECT_EQ(f.proxy.getSubscribers("E"), Strings{"Client"});
  Strings expected;
  for (int i = 0; i < 1000; ++i) {
    f.proxy.raiseEvent(i % 2 ? "F" : "E", i);
    expected.push_back((i % 2 ? "F:" : "E:") + std::to_string(i));
  }
  ASSERT_TRUE(f.memory->waitForDeliveries(10s));
  EXPECT_EQ(client->received(), expected);
  EXPECT_EQ(client->faults, 0);
  EXPECT_EQ(f.proxy.getData("F"), 999);

  f.proxy.unsubscribeToEvent("E", "Client");
  f.proxy.raiseEvent("E", -5);
  ASSERT_TRUE(f.memory->waitForDeliveries(10s));
  EXPECT_EQ(client->calls, 1000);
  EXPECT_THROW(f.proxy.unsubscribeToEvent("E", "Client"), ZR::ZRError);
}

TEST(ZRMemoryDelivery, SlowAndThrowingSubscribersHoldUpNobody) {
  Fixture f;
  auto fast = f.make("Fast");
  auto slow = f.make("Slow");
  auto thrower = f.make("Thrower");
  std::promise<void> release;
  std::shared_future<void> gate = release.get_future().share();
  slow->hook = [gate](int) { gate.wait(); };
  thrower->hook = [](int) { throw std::runtime_error("cannot take it"); };
  for (const char* m : {"Fast", "Slow", "Thrower"}) f.proxy.subscribeToEvent("E", m, "onEvent");

  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < 100; ++i) f.proxy.raiseEvent("E", i);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);  // raising never waited
  EXPECT_TRUE(zrtest::eventually([&] { return fast->calls == 100 && thrower->calls == 100; }));
  EXPECT_EQ(slow->calls, 1);
  EXPECT_FALSE(f.memory->waitForDeliveries(10ms));
  release.set_value();
  ASSERT_TRUE(f.memory->waitForDeliveries(10s));
  EXPECT_EQ(slow->received().size(), 100u);
  EXPECT_EQ(fast->faults + slow->faults, 0);
  EXPECT_GE(f.warningCount(), 1);
  EXPECT_LT(f.warningCount(), 10);  // rate-limited
}

TEST(ZRMemoryDelivery, OverflowDropsOldestAndCounts) {
  Fixture f(4);
  auto client = f.make("Client");
  std::promise<void> release;
  std::shared_future<void> gate = release.get_future().share();
  client->hook = [gate](int v) {
    if (v == 0) gate.wait();
  };
  f.proxy.subscribeToEvent("E", "Client", "onEvent");
  f.proxy.raiseEvent("E", 0);
  ASSERT_TRUE(zrtest::eventually([&] { return client->calls == 1; }));  // 0 is being delivered
  for (int i = 1; i <= 10; ++i) f.proxy.raiseEvent("E", i);
  release.set_value();
  ASSERT_TRUE(f.memory->waitForDeliveries(10s));
  EXPECT_EQ(client->received(), (Strings{"E:0", "E:7", "E:8", "E:9", "E:10"}));
  EXPECT_EQ(f.memory->getDroppedEventCount("Client"), 6);
  EXPECT_EQ(f.proxy.getGenericProxy()->call<int>("getDroppedEventCount", "Client"), 6);
  EXPECT_EQ(f.memory->getDroppedEventCount("Nobody"), 0);
  EXPECT_EQ(f.warningCount(), 1);
}

TEST(ZRMemoryProducer, SubscribesOnFirstEventAndUnsubscribesOnLast) {
  Fixture f;
  auto producer = f.make<Producer>("P");
  auto client = f.make("Client");
  f.proxy.declareEvent("P/a", "P");
  f.proxy.declareEvent("P/b", "P");

  f.proxy.subscribeToEvent("P/a", "Client", "onEvent");
  EXPECT_EQ(producer->subscribes, Strings{"Client"});
  EXPECT_EQ(f.proxy.getData("P/last"), std::string("Client"));  // re-entered the service
  f.proxy.subscribeToEvent("P/b", "Client", "onEvent");
  f.proxy.subscribeToEvent("P/a", "Client", "onEvent");
  EXPECT_EQ(producer->subscribes.size(), 1u);
  f.proxy.unsubscribeToEvent("P/a", "Client");
  EXPECT_TRUE(producer->unsubscribes.empty());

  // A producer refusing to let go keeps the subscription.
  producer->failUnsubscribe = true;
  EXPECT_THROW(f.proxy.unsubscribeToEvent("P/b", "Client"), ZR::ZRError);
  EXPECT_EQ(f.proxy.getSubscribers("P/b"), Strings{"Client"});
  producer->failUnsubscribe = false;
  f.proxy.unsubscribeToEvent("P/b", "Client");
  EXPECT_EQ(producer->unsubscribes, Strings{"Client"});

  // A producer refusing the subscription: the caller learns why, nothing is recorded.
  producer->failSubscribe = true;
  EXPECT_THAT(errorOf([&] { f.proxy.subscribeToEvent("P/a", "Client", "onEvent"); }).what(),
              HasSubstr("ZRMemory::subscribeToEvent: P::subscribe: device unavailable"));
  EXPECT_EQ(f.proxy.getSubscribers("P/a"), Strings{});
  producer->failSubscribe = false;
  f.proxy.subscribeToEvent("P/a", "Client", "onEvent");
  EXPECT_EQ(producer->subscribes.size(), 2u);
  EXPECT_EQ(producer->violations, 0);

  EXPECT_THAT(errorOf([&] { f.proxy.subscribeToEvent("P/a", "Ghost", "onEvent"); }).what(),
              HasSubstr("\"Ghost\""));
  EXPECT_THAT(errorOf([&] { f.proxy.subscribeToEvent("P/b", "Client", "nope"); }).what(),
              HasSubstr("\"nope\""));
}

TEST(ZRMemoryProducer, SubscriberGoingAwayIsUnsubscribed) {
  Fixture f;
  auto producer = f.make<Producer>("P");
  auto client = f.make("Client");
  f.proxy.declareEvent("P/a", "P");
  f.proxy.declareEvent("P/b", "P");
  f.proxy.subscribeToEvent("P/a", "Client", "onEvent");
  f.proxy.subscribeToEvent("P/b", "Client", "onEvent");
  f.broker->removeModule("Client");
  client.reset();
  EXPECT_EQ(producer->unsubscribes, Strings{"Client"});
  EXPECT_EQ(f.proxy.getSubscribers("P/a"), Strings{});
  EXPECT_EQ(f.proxy.getSubscribers("P/b"), Strings{});

  // A producer that went away first has nobody to tell; its events can still be left.
  auto other = f.make("Other");
  f.proxy.subscribeToEvent("P/a", "Other", "onEvent");
  f.proxy.subscribeToEvent("P/b", "Other", "onEvent");
  f.broker->removeModule("P");
  producer.reset();
  f.proxy.unsubscribeToEvent("P/a", "Other");
  f.broker->removeModule("Other");
  other.reset();
  EXPECT_EQ(f.proxy.getSubscribers("P/b"), Strings{});

  // Shutdown destroys the newer subscriber first: the producer still hears of it.
  auto second = f.make<Producer>("P2");
  auto late = f.make("Late");
  f.proxy.declareEvent("P2/a", "P2");
  f.proxy.subscribeToEvent("P2/a", "Late", "onEvent");
  late.reset();
  f.broker->shutdown();
  EXPECT_EQ(second->unsubscribes, Strings{"Late"});
}

TEST(ZRMemoryLifetime, OutlivesItsBrokerWithSubscribers) {
  auto [memory, client] = [] {
    Fixture f;
    auto client = f.make("Client");
    f.proxy.subscribeToEvent("E", "Client", "onEvent");
    f.proxy.raiseEvent("E", 1);
    f.memory->waitForDeliveries(10s);
    f.broker->shutdown();
    return std::make_pair(f.memory, client);
  }();
  EXPECT_EQ(memory->getSubscribers("E"), Strings{"Client"});
  memory->raiseEvent("E", 2);  // nothing runs it any more, and nobody waits for it
  EXPECT_TRUE(memory->waitForDeliveries(1s));
  EXPECT_EQ(memory->getData("E"), 2);
}

TEST(ZRMemoryProducer, ConcurrentSubscribeUnsubscribeStaysConsistent) {
  Fixture f;
  auto producer = f.make<Producer>("P");
  producer->delay = 200us;
  const Strings events{"P/0", "P/1", "P/2"};
  const Strings clients{"C0", "C1"};
  std::vector<boost::shared_ptr<Client>> modules;
  for (const auto& c : clients) modules.push_back(f.make(c));
  for (const auto& e : events) f.proxy.declareEvent(e, "P");
  auto quietly = [](auto call) {
    try {
      call();
    } catch (const ZR::ZRError&) {  // not subscribed
    }
  };

  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      std::mt19937 rng(t);
      ZR::ZRMemoryProxy memory(f.broker);
      for (int i = 0; i < 400; ++i) {
        const std::string& e = events[rng() % events.size()];
        const std::string& c = clients[rng() % clients.size()];
        quietly([&] {
          if (rng() % 2)
            memory.subscribeToEvent(e, c, "onEvent");
          else
            memory.unsubscribeToEvent(e, c);
        });
        if (i % 16 == 0) memory.raiseEvent(e, i);
      }
    });
  }
  for (auto& t : threads) t.join();

  for (const auto& c : clients) {
    bool subscribed = false;
    for (const auto& e : events) {
      const Strings s = f.proxy.getSubscribers(e);
      subscribed = subscribed || std::find(s.begin(), s.end(), c) != s.end();
    }
    EXPECT_EQ(subscribed, producer->active.count(c) == 1) << c;
    for (const auto& e : events) quietly([&] { f.proxy.unsubscribeToEvent(e, c); });
  }
  EXPECT_TRUE(producer->active.empty());
  EXPECT_EQ(producer->violations, 0);
  EXPECT_TRUE(f.memory->waitForDeliveries(10s));
}
