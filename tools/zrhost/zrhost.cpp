// zrhost: a small host program, for the multi-process tests and for trying hosts by hand on one
// machine or several (README, "Two terminals, two machines").
//   zrhost NAME [OPTION]... [--module MODULE]...   a host: prints "ready ENDPOINT" once
//       its modules are published and "holding MODULE" when a call to "hold" begins; shuts down
//       when its standard input closes or on SIGINT/SIGTERM
//   zrhost NAME [OPTION]... --call MODULE METHOD [ARG]...   prints the result, or the
//       ZRError's three fields (exit status 1)
//   zrhost NAME [OPTION]... --wait-gone MODULE   says so once MODULE has vanished
//   zrhost --keygen FILE   writes a CURVE key pair (public, then secret line)
// OPTION: --directory ADDR, --serve, --listen ADDR, --advertise ADDR, --heartbeat MS,
//   --curve-keys FILE, --allow FILE (public keys, one a line), --directory-key FILE, --insecure.
// Modules offer "add" (two ints) and "hold" (returns when the host stops).
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <future>
#include <iostream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <zrcommon/zrbroker.h>
#include <zrcommon/zrmodule.h>
#include <zrcommon/zrproxy.h>
#include <zrnet/zrtransport.h>

namespace {

std::promise<void> stopping;
std::shared_future<void> stopped = stopping.get_future().share();
const int kAppearMs = 5000;  // how long a client waits for the module it names

class Worker : public ZR::ZRModule {
 public:
  Worker(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name) : ZRModule(broker, name) {
    functionName("add", "Worker", "Adds two numbers.", 0);
    addParam("a", "First term.");
    addParam("b", "Second term.");
    bindMethod(&Worker::add);
    functionName("hold", "Worker", "Returns when the host stops.", 0);
    bindMethod(&Worker::hold);
  }
  int add(const int& a, const int& b) { return a + b; }
  bool hold() {
    std::cout << "holding " << getName() << std::endl;
    stopped.wait();
    return true;
  }
};

std::vector<std::string> linesOf(const std::string& file) {
  std::ifstream in(file);
  if (!in) throw std::runtime_error("cannot read " + file);
  std::vector<std::string> lines;
  for (std::string l; std::getline(in, l);)
    if (!l.empty()) lines.push_back(l);
  return lines;
}

// A command-line word as a value: an int, a float, true/false, or else a string.
ZR::ZRValue valueOf(const std::string& word) {
  if (word == "true" || word == "false") return ZR::ZRValue(word == "true");
  std::size_t used = 0;
  try {
    if (word.find_first_of(".eE") == std::string::npos) {
      const int i = std::stoi(word, &used);
      if (used == word.size()) return ZR::ZRValue(i);
    } else {
      const float f = std::stof(word, &used);
      if (used == word.size()) return ZR::ZRValue(f);
    }
  } catch (const std::exception&) {
  }
  return ZR::ZRValue(word);
}

bool appears(ZR::ZRBroker& broker, const std::string& module) {
  if (broker.session()->waitForService(module).async().wait(kAppearMs) ==
      vo::FutureState::FinishedWithValue)
    return true;
  std::cerr << "no module called \"" << module << "\" appeared within " << kAppearMs << " ms"
            << std::endl;
  return false;
}

int call(ZR::ZRBroker& broker, const std::vector<std::string>& words) {
  if (!appears(broker, words[0])) return 1;
  std::vector<ZR::ZRValue> args;
  for (std::size_t i = 2; i < words.size(); ++i) args.push_back(valueOf(words[i]));
  try {
    std::cout << broker.getProxy(words[0])->callValues(words[1], args).toString() << std::endl;
    return 0;
  } catch (const ZR::ZRError& e) {
    std::cout << "ZRError module=\"" << e.getModuleName() << "\" method=\"" << e.getMethodName()
              << "\" description=\"" << e.getDescription() << "\"" << std::endl;
    return 1;
  }
}

int waitGone(ZR::ZRBroker& broker, const std::string& module) {
  std::promise<void> gone;
  std::once_flag once;
  const unsigned long id = broker.session()->connectServiceRemoved([&](const std::string& name) {
    if (name == module) std::call_once(once, [&] { gone.set_value(); });
  });
  const bool there = appears(broker, module);
  if (there) {
    std::cout << module << " is there; waiting for it to vanish" << std::endl;
    gone.get_future().wait();
    // The time of day, to hold against the moment its host was killed.
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const long long ms =
        std::chrono::duration_cast<std::chrono::milliseconds>(now).count() % 86400000;
    char at[32];
    std::snprintf(at, sizeof at, "%02lld:%02lld:%02lld.%03lld", ms / 3600000, ms / 60000 % 60,
                  ms / 1000 % 60, ms % 1000);
    std::cout << module << " vanished at " << at << " UTC" << std::endl;
  }
  broker.session()->disconnectServiceRemoved(id);
  return there ? 0 : 1;
}

int usage(const char* self) {
  std::cerr << "usage: " << self
            << " NAME [--directory ADDR] [--serve] [--listen ADDR] [--advertise ADDR]"
               " [--heartbeat MS] [--curve-keys FILE] [--allow FILE] [--directory-key FILE]"
               " [--insecure] [--module MODULE]... [--call MODULE METHOD [ARG]... |"
               " --wait-gone MODULE]\n       "
            << self << " --keygen FILE" << std::endl;
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 3 && std::string(argv[1]) == "--keygen") {
    try {
      const auto [publicKey, secretKey] = ZR::ZRTransport::generateKeyPair();
      umask(077);
      if (!(std::ofstream(argv[2]) << publicKey << "\n" << secretKey << "\n"))
        throw std::runtime_error(std::string("cannot write ") + argv[2]);
      std::cout << publicKey << std::endl;
      return 0;
    } catch (const std::exception& e) {
      std::cerr << argv[0] << ": " << e.what() << std::endl;
      return 1;
    }
  }
  if (argc < 2 || argv[1][0] == '-') return usage(argv[0]);
  ZR::ZRBrokerOptions options;
  std::vector<std::string> modules, callWords;
  std::string gone;
  try {
    for (int i = 2; i < argc; ++i) {
      const std::string arg = argv[i];
      const bool hasValue = i + 1 < argc;
      if (arg == "--serve") {
        options.serveDirectory = true;
      } else if (arg == "--insecure") {
        options.insecure = true;
      } else if (arg == "--call" && i + 2 < argc) {
        callWords.assign(argv + i + 1, argv + argc);
        break;
      } else if (!hasValue) {
        return usage(argv[0]);
      } else if (arg == "--heartbeat") {
        options.heartbeat = std::chrono::milliseconds(std::stoi(argv[++i]));
      } else if (arg == "--directory") {
        options.directory = argv[++i];
      } else if (arg == "--listen") {
        options.listen = argv[++i];
      } else if (arg == "--advertise") {
        options.advertise = argv[++i];
      } else if (arg == "--module") {
        modules.push_back(argv[++i]);
      } else if (arg == "--wait-gone") {
        gone = argv[++i];
      } else if (arg == "--curve-keys") {
        const auto keys = linesOf(argv[++i]);
        if (keys.size() != 2) throw std::runtime_error(std::string(argv[i]) + " holds no key pair");
        options.curvePublicKey = keys[0];
        options.curveSecretKey = keys[1];
      } else if (arg == "--allow") {
        options.allowedClientKeys = linesOf(argv[++i]);
      } else if (arg == "--directory-key") {
        options.directoryPublicKey = linesOf(argv[++i]).at(0);
      } else {
        std::cerr << argv[0] << ": unknown argument " << arg << std::endl;
        return usage(argv[0]);
      }
    }
  } catch (const std::exception& e) {
    std::cerr << argv[0] << ": " << e.what() << std::endl;
    return 2;
  }
  // Every thread started from here on leaves SIGINT and SIGTERM to sigwait below.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  try {
    auto broker = ZR::ZRBroker::createBroker(argv[1], options);
    if (!callWords.empty()) return call(*broker, callWords);
    if (!gone.empty()) return waitGone(*broker, gone);
    std::vector<boost::shared_ptr<Worker>> workers;
    for (const auto& m : modules) workers.push_back(ZR::ZRModule::createModule<Worker>(broker, m));
    std::cout << "ready " << broker->endpoint() << std::endl;
    std::thread([] {
      char buffer[256];
      while (read(STDIN_FILENO, buffer, sizeof buffer) > 0) {
      }
      kill(getpid(), SIGTERM);
    }).detach();
    int signal = 0;
    sigwait(&signals, &signal);
    stopping.set_value();
    workers.clear();
    broker->shutdown();
  } catch (const std::exception& e) {
    std::cerr << argv[0] << ": " << e.what() << std::endl;
    return 1;
  }
  return 0;
}
