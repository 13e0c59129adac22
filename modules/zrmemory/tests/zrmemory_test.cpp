#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <mutex>
#include <random>
#include <set>
#include <thread>

#include <vo/log.h>
#include <zrcommon/detail/zrcaller.h>
#include <zrcommon/detail/zrlatencywindow.h>
#include <zrmemory/zrmemory.h>
#include <zrproducer.h>
#include <zrproxies/zrmemoryproxy.h>
#include <zrtest.h>

using namespace std::chrono_literals;
using zrtest::errorOf;
using zrtest::Producer;
using Strings = std::vector<std::string>;

namespace {

// Receives events; `hook` (set before subscribing) may block or throw.
class Client : public ZR::ZRModule {
 public:
  Client(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name) : ZRModule(broker, name) {
    functionName("onEvent", "Client", "Receives an event.", 0);
    for (const char* p : {"event", "value", "subscriber"}) addParam(p, "An argument.");
    bindMethod(&Client::onEvent);
  }
  void onEvent(const std::string& event, const ZR::ZRValue& value, const std::string& id) {
    if (++inside > 1 || id != getName()) ++faults;  // one at a time, each naming its subscriber
    {
      std::lock_guard<std::mutex> lock(mutex);
      got.push_back(event + ":" + value.toString());
    }
    if (hook) hook(value.toInt());
    --inside;
  }
  Strings received() {
    std::lock_guard<std::mutex> lock(mutex);
    return got;
  }
  std::function<void(int)> hook;
  std::atomic<int> inside{0}, faults{0};
  std::mutex mutex;
  Strings got;
};

// A broker with 4 threads and the service; keeps the service's warnings.
struct Fixture {
  explicit Fixture(int capacity = ZR::ZRMemory::kDefaultQueueCapacity)
      : broker(ZR::ZRBroker::createBroker("main", 4)),
        memory(ZR::ZRModule::createModule<ZR::ZRMemory>(broker, "ZRMemory", capacity)),
        proxy(broker) {}
  template <class T = Client>
  boost::shared_ptr<T> make(const std::string& name) {
    auto m = ZR::ZRModule::createModule<T>(broker, name);
    if constexpr (std::is_same_v<T, Producer>) {
      for (const char* e : {"/a", "/b"}) proxy.declareEvent(name + e, name);
    }
    return m;
  }
  zrtest::LogCapture warnings{"zrmemory", vo::LogLevel_Warning};
  boost::shared_ptr<ZR::ZRBroker> broker;
  boost::shared_ptr<ZR::ZRMemory> memory;
  ZR::ZRMemoryProxy proxy;
};

}  // namespace

TEST(ZRMemory, DataAndDeclarationsWithTheirErrors) {
  Fixture f;
  auto client = f.make("Client");
  auto producer = f.make<Producer>("P");
  f.proxy.insertData("b", 1);
  f.proxy.insertData("a", std::string("x"));
  f.proxy.insertData("b", 2);
  EXPECT_EQ(f.proxy.getData("b"), 2);
  EXPECT_EQ(f.proxy.getData("a"), std::string("x"));
  // A value is stored over the last one, whether its shape is the same or not.
  auto array = [](std::initializer_list<ZR::ZRValue> elements) {
    ZR::ZRValue a;
    a.arraySetSize(0);
    for (const ZR::ZRValue& e : elements) a.arrayPush(e);
    return a;
  };
  for (const ZR::ZRValue& v :
       {array({1, array({2.5f, "long enough to be on the heap"})}), array({3, array({4.5f, "y"})}),
        array({5, 6}), array({array({7}), 8, 9}), array({1, 2}), ZR::ZRValue(10)}) {
    f.proxy.insertData("c", v);
    EXPECT_EQ(f.proxy.getData("c"), v);
  }
  f.proxy.removeData("c");
  f.proxy.removeData("a");
  f.proxy.declareEvent("P/a", "P");  // again: harmless
  f.proxy.declareEvent("loose", "");
  f.proxy.raiseEvent("late", 7);  // raised before its producer declares it
  f.proxy.declareEvent("late", "Q");
  EXPECT_EQ(f.proxy.getDataListName(), (Strings{"b", "late"}));
  EXPECT_EQ(f.proxy.getExtractorEvent("P"), (Strings{"P/a", "P/b"}));
  EXPECT_EQ(f.proxy.getExtractorEvent("Q"), Strings{"late"});
  EXPECT_EQ(f.proxy.getExtractorEvent("nobody"), Strings{});
  EXPECT_EQ(f.proxy.getEventList(), (Strings{"P/a", "P/b", "late", "loose"}));
  EXPECT_EQ(f.proxy.getSubscribers("P/a"), Strings{});

  const std::vector<std::pair<std::function<void()>, std::string>> errors{
      {[&] { f.proxy.getData("a"); },
       "getData: nothing is stored under the key \"a\"; insert it first"},
      {[&] { f.proxy.removeData("a"); },
       "removeData: nothing is stored under the key \"a\", nothing to remove"},
      {[&] { f.proxy.insertData("", 1); }, "insertData: the key must not be empty"},
      {[&] { f.proxy.declareEvent("P/a", "Q"); },
       "declareEvent: event \"P/a\" is already declared by \"P\", so \"Q\" cannot declare it; "
       "give the event another name"},
      {[&] { f.proxy.subscribeToEvent("E", "Ghost", "onEvent"); },
       "subscribeToEvent: no module called \"Ghost\": only a running module can subscribe to "
       "event \"E\""},
      {[&] { f.proxy.subscribeToEvent("E", "Client", "nope"); },
       "subscribeToEvent: module \"Client\" has no method \"nope\" to receive event \"E\""},
      {[&] { f.proxy.unsubscribeToEvent("E", "Client"); },
       "unsubscribeToEvent: module \"Client\" is not subscribed to event \"E\""},
  };
  for (const auto& [call, text] : errors) EXPECT_EQ(errorOf(call).what(), "ZRMemory::" + text);
  EXPECT_EQ(errorOf([&] { ZR::ZRModule::createModule<ZR::ZRMemory>(f.broker, "M2", 0); }).what(),
            std::string("M2::ZRMemory: the queue capacity must be at least 1, not 0"));
  for (const auto& d : f.memory->getMethodDescriptions()) {
    if (d.moduleName != "ZRMemory") continue;
    EXPECT_FALSE(d.description.empty()) << d.methodName;
    for (const auto& p : d.parameters) EXPECT_FALSE(p.documentation.empty()) << d.methodName;
  }
}

// In process any module raises any event, as before; a call from another host raises a declared
// event only when it comes from the host the directory lists for the producer (here: none).
TEST(ZRMemory, OnlyTheProducersHostRaisesItsEventsFromAfar) {
  Fixture f;
  auto producer = f.make<Producer>("P");
  auto client = f.make("Client");
  f.proxy.subscribeToEvent("P/a", "Client", "onEvent");
  f.proxy.declareEvent("free", "");
  f.memory->raiseEvent("P/a", 1);
  {
    // As the broker runs a call from another host: through a proxy, in the caller's scope.
    const ZR::detail::ZRCaller evil{"evil", "tcp://127.0.0.1:9", ""};
    ZR::detail::ZRCallerScope from(evil);
    auto memory = f.broker->getProxy("ZRMemory");
    auto raise = [&](const std::string& event, int value) {
      memory->call<void>("raiseEvent", event, ZR::ZRValue(value));
    };
    EXPECT_EQ(errorOf([&] { raise("P/a", 2); }).what(),
              std::string("ZRMemory::raiseEvent: event \"P/a\" belongs to \"P\", which declared "
                          "it; host evil (tcp://127.0.0.1:9) may not raise it"));
    raise("free", 3);                // declared without a producer: anyone's
    raise("undeclared", 4);          // nobody's either
    f.memory->raiseEvent("P/a", 6);  // not through the caller's call: this process's own
  }
  f.memory->raiseEvent("P/a", 5);
  ASSERT_TRUE(f.memory->waitForDeliveries());
  EXPECT_EQ(client->received(), (Strings{"P/a:1", "P/a:6", "P/a:5"}));
  EXPECT_EQ(f.proxy.getData("P/a"), 5);
}

TEST(ZRMemory, DeliveryInRaiseOrderIdleAfterTheLastAndNothingAfterUnsubscribe) {
  Fixture f;
  auto client = f.make("Client");
  auto thrower = f.make("Thrower");
  bool idleInLast = true;
  client->hook = [&](int v) {
    if (v == 199) idleInLast = f.memory->waitForDeliveries(0ms);
  };
  thrower->hook = [](int) { throw std::runtime_error("cannot take it"); };
  for (const char* e : {"E", "F"}) {
    f.proxy.subscribeToEvent(e, "Client", "onEvent");
    f.proxy.subscribeToEvent(e, "Thrower", "onEvent");
  }
  Strings expected;
  for (int i = 0; i < 200; ++i) {
    f.proxy.raiseEvent(i % 2 ? "F" : "E", i);
    expected.push_back((i % 2 ? "F:" : "E:") + std::to_string(i));
  }
  ASSERT_TRUE(f.memory->waitForDeliveries(10s));
  EXPECT_EQ(client->received(), expected);
  EXPECT_EQ(thrower->received(), expected) << "a failing subscriber keeps receiving";
  EXPECT_FALSE(idleInLast) << "idle while the last callback still ran";
  EXPECT_EQ(client->faults, 0);
  EXPECT_EQ(f.proxy.getData("F"), 199);
  EXPECT_EQ(f.warnings.count("failed"), 1) << "failure warnings are rate-limited";
  EXPECT_EQ(f.warnings.records().at(0).message,
            "ZRMemory: delivering event \"E\" to \"Thrower\" through \"onEvent\" failed: "
            "Thrower::onEvent: cannot take it");

  // Unsubscribed from E while an F callback runs and an E one waits: the E one never comes.
  zrtest::Signal entered, go;
  client->hook = [&](int v) {
    if (v == 1000) entered.notify(), go.waitFor();
  };
  f.proxy.raiseEvent("F", 1000);
  ASSERT_TRUE(entered.waitFor());
  f.proxy.raiseEvent("E", 1001);
  f.proxy.raiseEvent("F", 1002);
  f.proxy.unsubscribeToEvent("E", "Client");
  go.notify();
  ASSERT_TRUE(f.memory->waitForDeliveries(10s));
  const Strings got = client->received();
  EXPECT_EQ(Strings(got.begin() + 200, got.end()), (Strings{"F:1000", "F:1002"}));

  // An event raised from sound reaches its subscribers with the sound's capture time, so that
  // what they record or raise from it is timed from the capture too; one raised from nothing,
  // with none.
  std::vector<std::int64_t> captures;
  client->hook = [&](int) { captures.push_back(ZR::detail::zrCurrentCaptureNs()); };
  {
    const ZR::detail::ZRCaptureScope scope(123456789);
    f.proxy.raiseEvent("F", 2000);
  }
  f.proxy.raiseEvent("F", 2001);
  ASSERT_TRUE(f.memory->waitForDeliveries(10s));
  EXPECT_EQ(captures, (std::vector<std::int64_t>{123456789, 0}));
}

TEST(ZRMemory, ASubscriberThatDoesNotKeepUpLosesItsOldestEvents) {
  Fixture f(4);
  auto slow = f.make("Slow");
  zrtest::Signal entered, go;
  slow->hook = [&](int v) {
    if (v == 0) entered.notify(), go.waitFor();
  };
  // Each event dropped is announced, to whoever listens (before it was ever raised).
  auto listener = f.make("Listener");
  f.proxy.subscribeToEvent("ZRMemory/EventDropped", "Listener", "onEvent");
  f.proxy.subscribeToEvent("E", "Slow", "onEvent");
  f.proxy.raiseEvent("E", 0);
  ASSERT_TRUE(entered.waitFor());
  for (int i = 1; i <= 10; ++i) f.proxy.raiseEvent("E", i);  // never waits
  go.notify();
  ASSERT_TRUE(f.memory->waitForDeliveries(10s));
  EXPECT_EQ(slow->received(), (Strings{"E:0", "E:7", "E:8", "E:9", "E:10"}));
  EXPECT_EQ(f.proxy.getDroppedEventCount("Slow"), 6);
  // The listener has a queue of 4 too: it got the announcements in order, the last one among
  // them, and what it lost of them is counted (its own losses are not announced: no cascade).
  const Strings heard = listener->received();
  ASSERT_FALSE(heard.empty());
  EXPECT_EQ(static_cast<int>(heard.size()) + f.proxy.getDroppedEventCount("Listener"), 6);
  const std::string prefix =
      "ZRMemory/EventDropped:[[\"subscriber\", \"Slow\"], [\"event\", \"E\"], [\"dropped\", ";
  int last = 0;
  for (const std::string& h : heard) {
    ASSERT_EQ(h.compare(0, prefix.size(), prefix), 0) << h;
    const int n = std::stoi(h.substr(prefix.size()));
    EXPECT_GT(n, last) << h;
    last = n;
  }
  EXPECT_EQ(last, 6);
  const zrtest::Lines warned = f.warnings.takeLines();
  ASSERT_FALSE(warned.empty());
  EXPECT_EQ(warned[0], (zrtest::Line{3, "raiseEvent",
                                     "ZRMemory: \"Slow\" does not keep up with its events: its 4 "
                                     "pending events are full, the oldest is dropped (1 dropped "
                                     "so far)"}));
  EXPECT_LE(warned.size(), 2u);
}

TEST(ZRMemory, ProducerSubscribedOnFirstEventAndUnsubscribedOnLast) {
  Fixture f;
  auto producer = f.make<Producer>("P");
  auto client = f.make("Client");
  f.proxy.subscribeToEvent("P/a", "Client", "onEvent");
  EXPECT_EQ(producer->of("subscribe"), Strings{"Client"});
  EXPECT_EQ(f.proxy.getData("P/last"), std::string("Client"));  // re-entered the service
  f.proxy.subscribeToEvent("P/b", "Client", "onEvent");
  f.proxy.subscribeToEvent("P/a", "Client", "onEvent");
  EXPECT_EQ(producer->of("subscribe").size(), 1u);
  f.proxy.unsubscribeToEvent("P/a", "Client");
  EXPECT_TRUE(producer->of("unsubscribe").empty());

  // A producer refusing to let go keeps the subscription.
  producer->failUnsubscribe = true;
  EXPECT_THROW(f.proxy.unsubscribeToEvent("P/b", "Client"), ZR::ZRError);
  EXPECT_EQ(f.proxy.getSubscribers("P/b"), Strings{"Client"});
  producer->failUnsubscribe = false;
  f.proxy.unsubscribeToEvent("P/b", "Client");
  EXPECT_EQ(producer->of("unsubscribe"), Strings{"Client"});

  // A producer refusing the subscription: the caller learns why, nothing is recorded.
  producer->failSubscribe = true;
  EXPECT_EQ(errorOf([&] { f.proxy.subscribeToEvent("P/a", "Client", "onEvent"); }).what(),
            std::string("ZRMemory::subscribeToEvent: P::subscribe: device unavailable"));
  EXPECT_EQ(f.proxy.getSubscribers("P/a"), Strings{});
  producer->failSubscribe = false;
  f.proxy.subscribeToEvent("P/a", "Client", "onEvent");
  EXPECT_EQ(producer->of("subscribe").size(), 2u);
  EXPECT_EQ(producer->violations, 0);
}

TEST(ZRMemory, ModulesGoingAwayAndComingBack) {
  Fixture f;
  auto producer = f.make<Producer>("P");
  auto client = f.make("Client");
  f.proxy.subscribeToEvent("P/a", "Client", "onEvent");
  f.proxy.subscribeToEvent("P/b", "Client", "onEvent");
  f.broker->removeModule("Client");
  client.reset();
  EXPECT_EQ(producer->of("unsubscribe"), Strings{"Client"});
  EXPECT_EQ(f.proxy.getSubscribers("P/a"), Strings{});

  // A producer re-created under its name serves the modules still subscribed to its events.
  auto other = f.make("Other");
  f.proxy.subscribeToEvent("P/a", "Other", "onEvent");
  f.proxy.subscribeToEvent("P/b", "Other", "onEvent");
  f.broker->removeModule("P");
  producer.reset();
  producer = ZR::ZRModule::createModule<Producer>(f.broker, "P");
  ASSERT_TRUE(producer->subscribed.waitFor());
  EXPECT_EQ(producer->of("subscribe"), Strings{"Other"});
  f.proxy.unsubscribeToEvent("P/a", "Other");
  f.proxy.unsubscribeToEvent("P/b", "Other");
  EXPECT_EQ(producer->of("unsubscribe"), Strings{"Other"});

  // A producer that went away first has nobody to tell; its events can still be left.
  f.proxy.subscribeToEvent("P/a", "Other", "onEvent");
  f.broker->removeModule("P");
  producer.reset();
  f.proxy.unsubscribeToEvent("P/a", "Other");

  // Shutdown destroys the newer subscriber first: the producer still hears of it.
  auto second = f.make<Producer>("P2");
  auto late = f.make("Late");
  f.proxy.subscribeToEvent("P2/a", "Late", "onEvent");
  late.reset();
  f.broker->shutdown();
  EXPECT_EQ(second->of("unsubscribe"), Strings{"Late"});
}

TEST(ZRMemory, OutlivesItsBrokerWithSubscribers) {
  auto [memory, client] = [] {
    Fixture f;
    auto made = f.make("Client");
    f.proxy.subscribeToEvent("E", "Client", "onEvent");
    f.broker->shutdown();
    return std::make_pair(f.memory, made);
  }();
  EXPECT_EQ(memory->getSubscribers("E"), Strings{"Client"});
  memory->raiseEvent("E", 2);  // nothing runs it any more, and nobody waits for it
  EXPECT_TRUE(memory->waitForDeliveries(10s));
  EXPECT_EQ(memory->getData("E"), 2);
}

TEST(ZRMemory, ConcurrentSubscribeUnsubscribeStaysConsistent) {
  Fixture f;
  auto producer = f.make<Producer>("P");
  const Strings events{"P/a", "P/b"};
  const Strings clients{"C0", "C1"};
  std::vector<boost::shared_ptr<Client>> modules;
  for (const auto& c : clients) modules.push_back(f.make(c));
  auto quietly = [](auto call) {
    try {
      call();
    } catch (const ZR::ZRError&) {
    }  // not subscribed
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
