// Hosts as separate processes: a directory host, two module hosts (the test host program) and
// this process as the client. Hosts are killed with SIGKILL for real; every wait is on an event
// with a hang guard, never a sleep.
#include <signal.h>

#include <future>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <zrcommon/zrbroker.h>
#include <zrcommon/zrproxy.h>
#include <zrhostprocess.h>
#include <zrtest.h>

namespace {

// Sanitized processes on a loaded machine can miss 3 heartbeats of 250 ms without being dead;
// three ThreadSanitizer hosts starting at once on two busy cores took over 5 s for their first
// exchange with the directory.
#if defined(__SANITIZE_THREAD__)
const std::string kBeat = "2000";
#elif defined(__SANITIZE_ADDRESS__)
const std::string kBeat = "1000";
#else
const std::string kBeat = "250";
#endif

// A test host process (its output read line by line), beating at the rate above.
struct Host : zrtest::HostProcess {
  explicit Host(std::vector<std::string> args)
      : HostProcess(ZRCOMMON_TEST_HOST, withBeat(std::move(args))) {}
  static std::vector<std::string> withBeat(std::vector<std::string> args) {
    args.insert(args.end(), {"--heartbeat", kBeat});
    return args;
  }
};

bool appears(const boost::shared_ptr<ZR::ZRBroker>& broker, const std::string& name) {
  return broker->session()->waitForService(name).async().wait(static_cast<int>(
             zrtest::kWaitLimit.count() * 1000)) == vo::FutureState::FinishedWithValue;
}

boost::shared_ptr<ZR::ZRBroker> join(const std::string& name, const std::string& directory) {
  ZR::ZRBrokerOptions o;
  o.directory = directory;
  o.heartbeat = std::chrono::milliseconds(std::stoi(kBeat));
  return ZR::ZRBroker::createBroker(name, o);
}

TEST(Hosts, AKilledHostFailsItsCallersTheOthersGoOnAndComesBackByName) {
  signal(SIGPIPE, SIG_IGN);
  auto directory = std::make_unique<Host>(
      std::vector<std::string>{"dir", "--directory", "tcp://127.0.0.1:0", "--serve"});
  const std::string at = directory->ready();
  auto a = std::make_unique<Host>(
      std::vector<std::string>{"hostA", "--directory", at, "--module", "Alpha"});
  Host b({"hostB", "--directory", at, "--module", "Beta"});
  a->ready();
  b.ready();

  auto client = join("client", at);
  ASSERT_TRUE(appears(client, "Alpha"));
  ASSERT_TRUE(appears(client, "Beta"));
  auto alpha = client->getProxy("Alpha");
  auto beta = client->getProxy("Beta");
  EXPECT_EQ(alpha->call<int>("add", 2, 3) + beta->call<int>("add", 4, 5), 14);

  // SIGKILL mid-call: the caller gets "module destroyed", the name leaves, listeners hear it.
  zrtest::Signal removed;
  client->session()->connectServiceRemoved([&](const std::string& name) {
    if (name == "Alpha") removed.notify();
  });
  auto pending = std::async(std::launch::async,
                            [&] { return zrtest::errorOf([&] { alpha->call<bool>("hold"); }); });
  ASSERT_NE(a->waitFor("holding Alpha"), "");
  a->kill9();
  ASSERT_EQ(pending.wait_for(zrtest::kWaitLimit), std::future_status::ready);
  const ZR::ZRError e = pending.get();
  EXPECT_EQ(e.getModuleName() + "|" + e.getMethodName() + "|" + e.getDescription(),
            "Alpha|hold|module destroyed");
  ASSERT_TRUE(removed.waitFor());
  EXPECT_FALSE(client->session()->hasService("Alpha"));
  EXPECT_EQ(zrtest::errorOf([&] { alpha->call<int>("add", 1, 1); }).getDescription(),
            "module destroyed");
  EXPECT_EQ(beta->call<int>("add", 1, 1), 2);  // the others go on

  // A late joiner gets a snapshot: Beta, and no Alpha.
  {
    auto late = join("late", at);
    ASSERT_TRUE(appears(late, "Beta"));
    EXPECT_FALSE(late->session()->hasService("Alpha"));
    EXPECT_EQ(late->getProxy("Beta")->call<int>("add", 20, 22), 42);
  }

  // The directory restarts at its address: the hosts publish again by themselves.
  directory->kill9();
  directory = std::make_unique<Host>(std::vector<std::string>{"dir", "--directory", at, "--serve"});
  EXPECT_EQ(directory->ready(), at);
  {
    auto after = join("after", at);
    ASSERT_TRUE(appears(after, "Beta"));
  }

  // Host A comes back under the same name: reached again by name.
  a = std::make_unique<Host>(
      std::vector<std::string>{"hostA", "--directory", at, "--module", "Alpha"});
  a->ready();
  ASSERT_TRUE(appears(client, "Alpha"));
  EXPECT_EQ(client->getProxy("Alpha")->call<int>("add", 40, 2), 42);

  client->shutdown();
  EXPECT_EQ(a->finish(), 0);
  EXPECT_EQ(b.finish(), 0);
  EXPECT_EQ(directory->finish(), 0);
}

}  // namespace
