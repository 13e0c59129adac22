// Hosts as separate processes: `zr host` for the directory and two module hosts, this process as
// the client, and `zr keygen` and `zr call` for a network with keys. Hosts are killed with SIGKILL
// for real; every wait is on an event with a hang guard, never a sleep.
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <future>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <zrcommon/zrbroker.h>
#include <zrcommon/zrproxy.h>
#include <zrhostprocess.h>
#include <zrtest.h>

namespace {

const std::string kBeat = std::to_string(zrtest::kHeartbeat.count());

// `zr host --name NAME ARGS...`, beating at the rate above, its modules from the test plugin
// ("Alpha" and "Beta": "add", and "hold" that prints "holding NAME"). Constructed once it
// serves; `directory` is the address it serves the directory at, when it does.
struct Host : zrtest::HostProcess {
  Host(const std::string& name, std::vector<std::string> args)
      : HostProcess(ZR_BINARY, command(name, std::move(args))) {
    zrtest::hostFailure = [](const std::string& message) { ADD_FAILURE() << message; };
    for (const std::string& line : {waitFor("zr: host "), waitFor("serving")})
      if (line.find(" serves the directory at ") != std::string::npos)
        directory = line.substr(line.rfind(' ') + 1);
  }
  static std::vector<std::string> command(const std::string& name, std::vector<std::string> args) {
    args.insert(args.begin(), {"host", "--name", name, "--load", ZR_TEST_DOUBLES});
    args.insert(args.end(), {"--heartbeat", kBeat});
    return args;
  }
  std::string directory;
};

// A directory host at `at`, with the memory service, which `zr host` waits for before it creates
// the modules it is given.
std::unique_ptr<Host> directoryHost(const std::string& at, std::vector<std::string> more = {}) {
  more.insert(more.begin(), {"--serve-directory", "--directory", at, "--memory"});
  return std::make_unique<Host>("dir", std::move(more));
}

bool appears(const boost::shared_ptr<ZR::ZRBroker>& broker, const std::string& name) {
  return broker->session()->waitForService(name).async().wait(static_cast<int>(
             zrtest::kWaitLimit.count() * 1000)) == vo::FutureState::FinishedWithValue;
}

boost::shared_ptr<ZR::ZRBroker> join(const std::string& name, const std::string& directory) {
  ZR::ZRBrokerOptions o;
  o.directory = directory;
  o.heartbeat = zrtest::kHeartbeat;
  return ZR::ZRBroker::createBroker(name, o);
}

TEST(Hosts, AKilledHostFailsItsCallersTheOthersGoOnAndComesBackByName) {
  signal(SIGPIPE, SIG_IGN);
  auto directory = directoryHost("tcp://127.0.0.1:0");
  const std::string at = directory->directory;
  ASSERT_NE(at, "");
  auto a =
      std::make_unique<Host>("hostA", std::vector<std::string>{"--directory", at, "-e", "Alpha"});
  Host b("hostB", {"--directory", at, "-e", "Beta"});

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
  directory = directoryHost(at);
  EXPECT_EQ(directory->directory, at);
  {
    auto after = join("after", at);
    ASSERT_TRUE(appears(after, "Beta"));
  }

  // Host A comes back under the same name: reached again by name.
  a = std::make_unique<Host>("hostA", std::vector<std::string>{"--directory", at, "-e", "Alpha"});
  ASSERT_TRUE(appears(client, "Alpha"));
  EXPECT_EQ(client->getProxy("Alpha")->call<int>("add", 40, 2), 42);

  client->shutdown();
  EXPECT_EQ(a->stop(SIGTERM), 0);
  EXPECT_EQ(b.stop(SIGTERM), 0);
  EXPECT_EQ(directory->stop(SIGTERM), 0);
}

// The keys as the documentation sets them up: one pair for the hosts, one per client, and an
// allow-list of the hosts' and the admitted clients' public keys.
TEST(Hosts, WithKeysOnlyTheAdmittedClientsCall) {
  const std::string dir = ::testing::TempDir() + "zr_hosts_" + std::to_string(getpid()) + "_";
  const std::string zr = std::string("timeout 60 ") + ZR_BINARY;
  for (const char* name : {"hosts", "alice", "mallory"})
    ASSERT_EQ(zrtest::shell(zr + " keygen " + dir + name).first, 0) << name;
  ASSERT_EQ(zrtest::shell("cat " + dir + "hosts.pub " + dir + "alice.pub > " + dir + "allow").first,
            0);
  const std::vector<std::string> keys{"--curve-keys", dir + "hosts.key", "--allow", dir + "allow"};
  auto directory = directoryHost("tcp://127.0.0.1:0", keys);
  const std::string at = directory->directory;
  std::vector<std::string> b{"--directory", at, "-e", "Beta"};
  b.insert(b.end(), keys.begin(), keys.end());
  Host beta("hostB", b);

  const std::string call = zr + " call Beta add 2 40 --directory " + at + " --heartbeat " + kBeat;
  const std::string admitted =
      " --curve-keys " + dir + "alice.key --server-key " + dir + "hosts.pub";
  EXPECT_EQ(zrtest::shell(call + admitted, true), std::make_pair(0, std::string("42\n")));
  // A key not on the list, or none: the directory never answers, and says whom it refused;
  // the client says it was refused, not that nothing runs there.
  const auto refused = zrtest::shell(
      call + " --curve-keys " + dir + "mallory.key --server-key " + dir + "hosts.pub", true);
  EXPECT_EQ(refused.first, 3) << refused.second;
  EXPECT_NE(refused.second.find("refused this client or did not complete the secure handshake"),
            std::string::npos)
      << refused.second;
  std::ifstream malloryPub(dir + "mallory.pub");
  std::string mallory;
  std::getline(malloryPub, mallory);
  EXPECT_NE(directory->waitFor("key " + mallory + " is not on the allow-list"), "");
  const auto keyless = zrtest::shell(call, true);
  EXPECT_EQ(keyless.first, 3);
  EXPECT_NE(keyless.second.find("give --curve-keys"), std::string::npos) << keyless.second;

  EXPECT_EQ(beta.stop(SIGTERM), 0);
  EXPECT_EQ(directory->stop(SIGTERM), 0);
  for (const char* file :
       {"hosts.key", "hosts.pub", "alice.key", "alice.pub", "mallory.key", "mallory.pub", "allow"})
    std::remove((dir + file).c_str());
}

}  // namespace
