// The pipeline across processes: `zr host` processes for the device, the extractors (with
// "ZRMemory") and the test doubles, `zr watch` as the client, and this process serving the
// directory and asking the modules remotely. Processes are killed with SIGKILL for real; every
// wait is for a line a process prints or an event, bounded by a deadline (the reaping ones by
// 2 s), never a sleep.
#include <signal.h>

#include <fstream>

#include <gtest/gtest.h>

#include <zraudiodevice/zraudiodevice.h>
#include <zrcommon/zrbroker.h>
#include <zrcommon/zrproxy.h>
#include <zrextractors/zrextractorregistry.h>
#include <zrmemory/zrmemory.h>
#include <zrproxies/zrmemoryproxy.h>
#include <zrtest.h>

#include <zrhostprocess.h>

namespace {

using Strings = std::vector<std::string>;
using Process = std::unique_ptr<zrtest::HostProcess>;

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
// Events a test sends, divided: a sanitizer slows every host several times over.
const int kLighter = 5;
// What a host's peak memory may grow by while it holds events (kB): AddressSanitizer keeps
// freed memory in quarantine, up to 256 MB.
const long kMemoryGrowth = 384 * 1024;
#else
const int kLighter = 1;
const long kMemoryGrowth = 32 * 1024;
#endif

// This process serves the directory; the zr processes join it.
struct Net : ::testing::Test {
  Net() {
    signal(SIGPIPE, SIG_IGN);
    zrtest::hostFailure = [](const std::string& message) { ADD_FAILURE() << message; };
    ZR::ZRBrokerOptions o;
    o.directory = "tcp://127.0.0.1:0";
    o.serveDirectory = true;
    o.heartbeat = zrtest::kHeartbeat;
    broker = ZR::ZRBroker::createBroker("test", o);
  }
  ~Net() override { broker->shutdown(); }
  Process zr(Strings args) {
    args.insert(args.end(), {"--directory", broker->endpoint(), "--heartbeat",
                             std::to_string(zrtest::kHeartbeat.count())});
    return std::make_unique<zrtest::HostProcess>(ZR_BINARY, args);
  }
  // A `zr host` with these modules, logging what the pipeline does, once it serves.
  Process host(const std::string& name, Strings args) {
    args.insert(args.begin(), {"host", "--name", name, "--log-level", "verbose"});
    Process h = zr(args);
    h->waitFor("serving");
    return h;
  }
  boost::shared_ptr<ZR::ZRProxy> proxy(const std::string& name) {
    EXPECT_EQ(broker->session()->waitForService(name).async().wait(
                  static_cast<int>(zrtest::kWaitLimit.count() * 1000)),
              vo::FutureState::FinishedWithValue)
        << name;
    return broker->getProxy(name);
  }
  Strings subscribersOf(const std::string& extractor) {
    Strings names;
    const ZR::ZRValue info = proxy(extractor)->call<ZR::ZRValue>("getSubscribersInfo");
    for (int i = 0; i < info.getSize(); ++i) names.push_back(info[i][0]);
    return names;
  }
  Strings deviceSubscribers() { return proxy("ZRAudioDevice")->call<Strings>("getSubscribers"); }
  // A client module "Client" printing SoundLevel's levels as they come.
  Process watch() {
    Process w = zr({"watch", "SoundLevel/Levels", "--name", "Client"});
    w->waitFor("\"event\":\"Levels\"");
    return w;
  }
  // A live device, an extractor host and a client receiving its levels.
  void startLivePipeline() {
    device = host("devhost", {"--device", "tone:440", "--realtime"});
    extractors = host("exthost", {"--memory", "-e", "SoundLevel"});
    client = watch();
    ASSERT_EQ(subscribersOf("SoundLevel"), Strings{"Client"});
    ASSERT_EQ(deviceSubscribers(), Strings{"SoundLevel"});
  }
  boost::shared_ptr<ZR::ZRBroker> broker;
  Process device, extractors, client;
};

TEST_F(Net, KilledClientsAndExtractorHostsAreReaped) {
  startLivePipeline();
  client->kill9();
  // The extractor's stop hook ran, its registry is empty, the device stopped (how soon is
  // bench_reaping's to measure).
  extractors->waitFor("ZRSoundExtractor : stopDetection");
  device->waitFor("stopped tone");
  EXPECT_EQ(subscribersOf("SoundLevel"), Strings{});
  EXPECT_EQ(deviceSubscribers(), Strings{});

  // Back under its name, it subscribes afresh; then the extractor host goes.
  client = watch();
  EXPECT_EQ(subscribersOf("SoundLevel"), Strings{"Client"});
  extractors->kill9();
  device->waitFor("stopped tone");
  EXPECT_EQ(deviceSubscribers(), Strings{});
  EXPECT_EQ(client->stop(SIGTERM), 0);
  EXPECT_EQ(device->stop(SIGTERM), 0);
}

TEST_F(Net, AKilledDeviceHostIsReportedAndReachedAgain) {
  startLivePipeline();
  device->kill9();
  const std::string line = extractors->waitFor("zrcommon.ZRReaper");
  EXPECT_NE(line.find("SoundLevel: its audio device \"ZRAudioDevice\" is gone"), std::string::npos)
      << line;
  EXPECT_EQ(subscribersOf("SoundLevel"), Strings{"Client"});  // the host lives on

  device = host("devhost", {"--device", "tone:440", "--realtime"});
  extractors->waitFor("subscribed again to \"ZRAudioDevice\"");
  EXPECT_EQ(deviceSubscribers(), Strings{"SoundLevel"});
  EXPECT_TRUE(zrtest::eventually([&] {
    return proxy("ZRAudioDevice")->call<int>("getDeliveredBufferCount", std::string("SoundLevel")) >
           1;
  }));
  // Destroying the extractor unsubscribes it from the device that came back: a clean exit.
  EXPECT_EQ(client->stop(SIGTERM), 0);
  EXPECT_EQ(extractors->stop(SIGTERM), 0);
  EXPECT_NE(device->waitFor("stopped tone"), "");
  EXPECT_EQ(device->stop(SIGTERM), 0);
}

TEST_F(Net, ASlowRemoteSubscriberHoldsUpNobody) {
  device = host("devhost", {"--device", "tone:440", "--realtime", "--buffer", "800"});
  Process sinks = host("sinks", {"--load", ZR_TEST_DOUBLES, "-e", "Fast", "-e", "Slow"});
  auto dev = proxy("ZRAudioDevice");
  for (const char* sink : {"Fast", "Slow"}) dev->call<void>("subscribe", std::string(sink));
  // Slow holds its first buffer; the source goes on and drops Slow's oldest ones.
  device->waitFor("subscriber \"Slow\" does not keep up");
  const int atDrop = dev->call<int>("getDeliveredBufferCount", std::string("Fast"));
  sinks->waitFor("buffer Fast " + std::to_string(atDrop + 20));
  // Sent to Slow are only the few its stream may have in flight, the first still held.
  EXPECT_LE(dev->call<int>("getDeliveredBufferCount", std::string("Slow")), 3);
  EXPECT_GT(dev->call<int>("getDroppedBufferCount", std::string("Slow")), 0);
  EXPECT_EQ(dev->call<int>("getDroppedBufferCount", std::string("Fast")), 0);
  proxy("Slow")->call<void>("release");
  sinks->waitFor("buffer Slow 2");
  const int fast = dev->call<int>("getDeliveredBufferCount", std::string("Fast"));
  sinks->rewind();
  sinks->waitFor("buffer Fast " + std::to_string(fast));  // every buffer counted reached it
  EXPECT_EQ(dev->call<int>("getDroppedBufferCount", std::string("Fast")), 0);
  EXPECT_EQ(sinks->stop(SIGTERM), 0);
  device->waitFor("stopped tone");  // its subscribers left without unsubscribing
  EXPECT_EQ(device->stop(SIGTERM), 0);
}

// A host started again at once, by a supervisor say, gets its names back although the directory
// still lists them for the killed one (its lease has not run out).
TEST_F(Net, AHostKilledAndStartedAgainAtOnceGetsItsNamesBack) {
  device = host("devhost", {"--device", "tone:440"});
  device->kill9();
  device = host("devhost", {"--device", "tone:440"});  // serving: its names are its own
  EXPECT_EQ(device->stop(SIGTERM), 0);
}

// Receives memory events through "onEvent".
struct Client : ZR::ZRModule {
  Client(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name) : ZRModule(broker, name) {
    functionName("onEvent", "Client", "Receives one event.", 0);
    addParam("eventName", "Name of the event.");
    addParam("value", "Its value.");
    addParam("subscriberIdentifier", "Name of the subscriber.");
    bindMethod(&Client::onEvent);
  }
  void onEvent(const std::string&, const ZR::ZRValue&, const std::string&) { received.notify(); }
  zrtest::Signal received;
};

// A failed start is no subscription: the extractor that could not reach a device is left with no
// subscriber, and a retry once the device exists starts it and delivers.
TEST(Pipeline, AFailedStartIsUndoneAndARetryDelivers) {
  auto b = ZR::ZRBroker::createBroker("local");
  auto memory = ZR::ZRModule::createModule<ZR::ZRMemory>(b, "ZRMemory");
  auto level = ZR::ZRExtractorRegistry::withStockExtractors().create("SoundLevel", b, "SoundLevel");
  auto client = ZR::ZRModule::createModule<Client>(b, "Client");
  ZR::ZRMemoryProxy m(b);
  const ZR::ZRError e =
      zrtest::errorOf([&] { m.subscribeToEvent("SoundLevel/Levels", "Client", "onEvent"); });
  EXPECT_EQ(e.getMethodName(), "subscribeToEvent");
  EXPECT_NE(std::string(e.what()).find("startDetection"), std::string::npos) << e.what();
  EXPECT_EQ(b->getProxy("SoundLevel")->call<ZR::ZRValue>("getSubscribersInfo").getSize(), 0);
  EXPECT_EQ(m.getSubscribers("SoundLevel/Levels"), Strings{});

  auto device = ZR::ZRModule::createModule<ZR::ZRAudioDevice>(
      b, "ZRAudioDevice", ZR::ZRAudioDeviceOptions::fromInput("tone:440"));
  m.subscribeToEvent("SoundLevel/Levels", "Client", "onEvent");
  EXPECT_TRUE(client->received.waitFor(3));
  client.reset(), level.reset(), device.reset(), memory.reset();
  b->shutdown();
}

// Counts the numbered events it receives, and those that came out of order, until `last` is
// `until`.
struct Counting : ZR::ZRModule {
  Counting(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name)
      : ZRModule(broker, name) {
    functionName("onEvent", "Counting", "Receives one numbered event.", 0);
    addParam("eventName", "Name of the event.");
    addParam("value", "Its number.");
    addParam("subscriberIdentifier", "Name of the subscriber.");
    bindMethod(&Counting::onEvent);
  }
  void onEvent(const std::string&, const ZR::ZRValue& value, const std::string&) {
    if (held && received == 0) holding.notify(), go.waitFor();
    const int n = value.toInt();
    disorder += n <= last;  // one call at a time: a module's calls run in order
    last = n, ++received;
    if (n == until) finished.notify();
  }
  bool held = false;  // its first event, until `go`
  int until = -1, last = -1, disorder = 0, received = 0;
  zrtest::Signal holding, go, finished;
};

// The events of a producer in a third process, through a memory service in a second one.
struct Events : Net {
  Events() {
    memoryHost = host("memhost", {"--memory"});
    proxy("ZRMemory");  // its name has reached this host
    memory = std::make_unique<ZR::ZRMemoryProxy>(broker);
    counting = ZR::ZRModule::createModule<Counting>(broker, "Counting");
  }
  ~Events() override { counting.reset(); }
  // "Counter" and its device on `input`, counting to `count`, `perBuffer` for each buffer.
  Process producer(int count, int perBuffer, Strings input) {
    setenv("ZR_TEST_COUNT", std::to_string(count).c_str(), 1);
    setenv("ZR_TEST_PER_BUFFER", std::to_string(perBuffer).c_str(), 1);
    input.insert(input.begin(), "--device");
    input.insert(input.end(), {"--load", ZR_TEST_DOUBLES, "-e", "Counter"});
    return host("prodhost", input);
  }
  std::int64_t count(const char* method, const std::string& of) {
    return proxy("ZRMemory")->call<int>(method, of);
  }
  // The numbers of the events a sinks host printed for "Slow": how many, how many out of order.
  static std::pair<int, int> slowEvents(const zrtest::HostProcess& sinks) {
    int got = 0, last = -1, disorder = 0;
    for (const std::string& line : sinks.lines())
      if (line.rfind("event Slow ", 0) == 0) {
        const int n = std::stoi(line.substr(11));
        disorder += n <= last;
        last = n, ++got;
      }
    return {got, disorder};
  }
  // Peak resident memory of a process, in kB.
  static long peakMemoryOf(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    long peak = 0;
    for (std::string key; status >> key;)
      if (key == "VmHWM:") status >> peak;
    return peak;
  }
  Process memoryHost;
  std::unique_ptr<ZR::ZRMemoryProxy> memory;
  boost::shared_ptr<Counting> counting;
};

TEST_F(Events, AFileRunDeliversEveryEventInOrder) {
  const int n = 100000 / kLighter;
  Process prod = producer(n, 1000, {"tone:440"});  // not paced: every buffer, as a file's
  auto dev = proxy("ZRAudioDevice");
  dev->call<void>("hold");  // what a producer raises before a subscription is nobody's
  counting->until = n - 1;
  counting->held = true;
  memory->subscribeToEvent("Counter/Count", "Counting", "onEvent");
  dev->call<void>("release");
  // Held up, the subscriber holds up the source: what the producer's stream has in flight
  // (8 messages of up to 256 events, as many as the producer had queued when each left) reaches
  // the memory service, and nothing more, however long it waits (a lossy path would take on past
  // its queue and stream, 1024 + 16 * 256, and drop).
  ASSERT_TRUE(counting->holding.waitFor());
  const auto raised = [&] { return count("getRaisedEventCount", "Counter/Count"); };
  EXPECT_FALSE(zrtest::eventually([&] { return raised() > 1024 + 16 * 256; },
                                  std::chrono::milliseconds(1000)));
  counting->go.notify();
  // 100 000 events through three processes: on a machine busy with other suites, more than the
  // usual limit.
  ASSERT_TRUE(counting->finished.waitFor(1, 3 * zrtest::kWaitLimit));
  EXPECT_EQ(counting->received, n);
  EXPECT_EQ(counting->disorder, 0);
  EXPECT_EQ(count("getRaisedEventCount", "Counter/Count"), n);
  EXPECT_EQ(count("getDroppedEventCount", "Counting"), 0);
  memory->unsubscribeToEvent("Counter/Count", "Counting");
  prod->waitFor("stopped tone");
  EXPECT_EQ(prod->stop(SIGTERM), 0);
}

// A live source: a subscriber that stalls loses its oldest events, counted exactly, while the
// producer and the other subscriber go on.
TEST_F(Events, AStalledSubscriberLosesOnlyItsOwnCountedExactly) {
  const int n = 20000;  // beyond what the memory service keeps for one subscriber: some drop
  Process prod = producer(n, 100, {"tone:440", "--realtime", "--buffer", "160"});
  Process sinks = host("sinks", {"--load", ZR_TEST_DOUBLES, "-e", "Slow"});
  auto dev = proxy("ZRAudioDevice");
  dev->call<void>("hold");  // both subscribers from the first event on
  memory->subscribeToEvent("Counter/Count", "Slow", "onEvent");
  counting->until = n - 1;  // the newest event is never dropped
  memory->subscribeToEvent("Counter/Count", "Counting", "onEvent");
  dev->call<void>("release");

  sinks->waitFor("event Slow 0");  // and holds it
  ASSERT_TRUE(counting->finished.waitFor());
  prod->waitFor("counted 20000");
  EXPECT_EQ(counting->received + count("getDroppedEventCount", "Counting"), n);
  EXPECT_EQ(counting->disorder, 0);
  EXPECT_EQ(slowEvents(*sinks).first, 1);  // still held: nobody waited for it
  const std::int64_t lost = count("getDroppedEventCount", "Slow");
  EXPECT_GT(lost, 0);

  proxy("Slow")->call<void>("release");
  sinks->waitFor("event Slow " + std::to_string(n - 1));
  const auto [got, disorder] = slowEvents(*sinks);
  EXPECT_EQ(got + lost, n);
  EXPECT_EQ(disorder, 0);
  EXPECT_EQ(count("getDroppedEventCount", "Slow"), lost);
  EXPECT_EQ(sinks->stop(SIGTERM), 0);
  EXPECT_EQ(prod->stop(SIGTERM), 0);
}

// Killed while thousands of events are on their way to it, a subscriber's host is reaped as any
// other, and the memory service's host held no more than its bounded queues meanwhile.
TEST_F(Events, ASubscriberKilledWithEventsInFlightIsReaped) {
  Process prod = producer(1 << 30, 100 / kLighter, {"tone:440", "--realtime", "--buffer", "160"});
  Process sinks = host("sinks", {"--load", ZR_TEST_DOUBLES, "-e", "Slow"});
  const long before = peakMemoryOf(memoryHost->pid());
  memory->subscribeToEvent("Counter/Count", "Slow", "onEvent");
  sinks->waitFor("event Slow 0");  // and holds it
  ASSERT_TRUE(zrtest::eventually([&] {
    return count("getRaisedEventCount", "Counter/Count") > 10000 / kLighter &&
           count("getDroppedEventCount", "Slow") > 0;
  }));
  sinks->kill9();
  prod->waitFor("stopped tone");  // the memory service unsubscribed it
  EXPECT_EQ(memory->getSubscribers("Counter/Count"), Strings{});
  EXPECT_LT(peakMemoryOf(memoryHost->pid()) - before, kMemoryGrowth);
  EXPECT_EQ(prod->stop(SIGTERM), 0);
}

// A one-way raise that fails there: the next raise through the same proxy throws the error as
// the service raised it, once.
TEST_F(Events, AOneWayRaiseThatFailsThrowsAtTheNextRaise) {
  memory->raiseEvent("", ZR::ZRValue(1));
  memory->getEventList();  // answered after the raise was taken, and its error with it
  const ZR::ZRError e = zrtest::errorOf([&] { memory->raiseEvent("Test/Ok", ZR::ZRValue(2)); });
  EXPECT_EQ(e.getModuleName(), "ZRMemory");
  EXPECT_EQ(e.getMethodName(), "raiseEvent");
  EXPECT_EQ(e.getDescription(), "the event name must not be empty");
  memory->raiseEvent("Test/Ok", ZR::ZRValue(3));
  memory->getEventList();
  EXPECT_EQ(count("getRaisedEventCount", "Test/Ok"), 1);
}

}  // namespace
