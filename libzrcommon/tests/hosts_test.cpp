// Hosts as separate processes: a directory host, two module hosts (the test host program) and
// this process as the client. Hosts are killed with SIGKILL for real; every wait is on an event
// with a hang guard, never a sleep.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <future>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <zrcommon/zrbroker.h>
#include <zrcommon/zrproxy.h>
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

// A test host process, its standard input and output on pipes.
class Host {
 public:
  explicit Host(std::vector<std::string> args) {
    args.insert(args.end(), {"--heartbeat", kBeat});
    int out[2], in[2];
    // Close-on-exec: a host started later must not hold this one's input open.
    if (pipe2(out, O_CLOEXEC) != 0 || pipe2(in, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
    pid_ = fork();
    if (pid_ == 0) {
      dup2(out[1], STDOUT_FILENO);
      dup2(in[0], STDIN_FILENO);
      close(out[0]);
      close(in[1]);
      std::vector<char*> argv{const_cast<char*>(ZRCOMMON_TEST_HOST)};
      for (auto& a : args) argv.push_back(a.data());
      argv.push_back(nullptr);
      execv(ZRCOMMON_TEST_HOST, argv.data());
      _exit(127);
    }
    close(out[1]);
    close(in[0]);
    out_ = fdopen(out[0], "r");
    in_ = in[1];
  }
  ~Host() {
    if (pid_ > 0) kill9();
    if (out_) fclose(out_);
  }
  // The next line it prints ("" once it is gone).
  std::string line() {
    char buffer[512];
    if (!fgets(buffer, sizeof buffer, out_)) return "";
    std::string s(buffer);
    if (!s.empty() && s.back() == '\n') s.pop_back();
    return s;
  }
  // The endpoint from its "ready" line.
  std::string ready() {
    const std::string l = line();
    EXPECT_EQ(l.rfind("ready ", 0), 0u) << l;
    return l.size() > 6 ? l.substr(6) : "";
  }
  void kill9() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
    closeInput();
  }
  // Closes its input: it shuts down. Its exit status.
  int finish() {
    closeInput();
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  void closeInput() {
    if (in_ >= 0) close(in_);
    in_ = -1;
  }
  pid_t pid_ = -1;
  FILE* out_ = nullptr;
  int in_ = -1;
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
  ASSERT_EQ(a->line(), "holding Alpha");
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
