// zr host: a broker in a network of hosts, with the memory service, an audio device and
// extractors, serving until SIGINT or SIGTERM.

#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <future>
#include <map>
#include <set>
#include <thread>

#include <vo/log.h>
#include <zrcommon/zrservicenames.h>
#include <zrerror/zrdefaults.h>
#include <zrextractors/zrextractorregistry.h>
#include <zrmemory/zrmemory.h>
#include <zrsoundextractor/zrsoundextractor.h>

#include "arrayoption.h"
#include "bridge/bridge.h"
#include "command.h"
#include "input.h"
#include "remote.h"

namespace zr {
namespace {

bool isLoopback(const std::string& address) {
  for (const char* local :
       {"ipc://", "inproc://", "tcp://127.", "tcp://localhost:", "tcp://[::1]:", "tcp://lo:"})
    if (address.rfind(local, 0) == 0) return true;
  return false;
}

std::string defaultHostName() {
  char name[256] = "host";
  gethostname(name, sizeof name - 1);
  return std::string(name) + "-" + std::to_string(getpid());
}

void say(const std::string& line) {
  std::fprintf(stderr, "zr: %s\n", line.c_str());
  std::fflush(stderr);
}

/// Hosts seen through the session, by endpoint, so that peers joining and leaving can be told.
std::map<std::string, std::string> peersOf(const vo::Session& session) {
  std::map<std::string, std::string> peers;
  for (const std::string& name : session.services())
    if (auto where = session.remoteService(name)) peers[where->address] = where->host;
  return peers;
}

class HostCommand : public Command {
 public:
  CLI::App* define(CLI::App& app) override {
    CLI::App* cmd = app.add_subcommand(
        "host", "Host modules for other processes and machines until SIGINT or SIGTERM.");
    cmd->add_option("--name", name_, "This host's name (default: machine name and process id).");
    cmd->add_flag("--serve-directory", serve_,
                  "Serve the directory (also done when none answers at start).");
    cmd->add_option("--listen", listen_,
                    "Where this host takes calls (default: loopback, any port).");
    cmd->add_option("--advertise", advertise_, "What other hosts connect to (NAT, containers).");
    cmd->add_flag("--memory", memory_, "Host the memory service \"ZRMemory\".");
    device_ =
        cmd->add_option("--device", input_,
                        "Host \"ZRAudioDevice\" on INPUT: a sound file, -, mic or mic:DEVICE, "
                        "tone:HZ, noise or silence.");
    deviceFlags_.define(cmd);
    cmd->add_option("-e,--extractor", extractors_, "Extractor to host (repeatable).");
    cmd->add_option("--load", libraries_,
                    "Load extractor types from a plugin library (repeatable).");
    defineArrayOption(cmd, array_);
    CLI::Option* keys = cmd->add_option("--curve-keys", curveKeys_,
                                        "This host's key pair (NAME.key of zr keygen): calls to it "
                                        "then need CURVE.");
    CLI::Option* allow = cmd->add_option(
        "--allow", allow_, "Public keys of the clients admitted, one Z85 key a line.");
    CLI::Option* insecure = cmd->add_flag("--insecure", insecure_,
                                          "Listen beyond loopback without keys (anyone may call).");
    allow->needs(keys);
    keys->needs(allow);
    insecure->excludes(keys);
    cmd->add_option("--server-key", serverKey_,
                    "Public key of the directory and the other hosts, when they require CURVE.");
    cmd->add_option(
        "--directory", directory_,
        std::string("Directory address (default: ZR_DIRECTORY, else ") + kDefaultDirectory + ").");
    defineHeartbeat(cmd, heartbeat_);
    cmd->add_option("--bridge", bridgePort_,
                    "Serve this system live on PORT: viewers (WebSocket) and a page (0: any free "
                    "port).")
        ->check(CLI::Range(0, 65535));
    cmd->add_option("--bridge-address", bridge_.address,
                    "Address the bridge listens on; beyond loopback a token is required.")
        ->capture_default_str();
    cmd->add_option("--bridge-token", bridge_.token,
                    "Token the bridge's page and viewers present (?token=); generated beyond "
                    "loopback when not given.");
    cmd->add_option("--log-level", logLevel_,
                    "silent, fatal, error, warning (default), info, verbose or debug.");
    directoryOption_ = cmd->get_option("--directory");
    return cmd;
  }

  int run() override;

 private:
  boost::shared_ptr<ZR::ZRBroker> start(ZR::ZRBrokerOptions o);
  void createModules(const boost::shared_ptr<ZR::ZRBroker>& broker);
  /// createModules on a thread of its own; the signal among `signals` that came meanwhile (the
  /// modules then given up), or -1.
  int createModulesUnlessStopped(const boost::shared_ptr<ZR::ZRBroker>& broker,
                                 const sigset_t& signals);
  void stopSoundExtractors();

  std::string name_ = defaultHostName(), listen_ = ZR::kDefaultListen, advertise_, input_;
  std::string curveKeys_, allow_, serverKey_, directory_, logLevel_ = "warning", array_;
  std::string directoryAt_;  // where the directory answers, once the broker is up
  bool serve_ = false, memory_ = false, insecure_ = false;
  int heartbeat_ = 0, bridgePort_ = -1;
  bridge::BridgeOptions bridge_;
  DeviceFlags deviceFlags_;
  std::vector<std::string> extractors_, libraries_;
  std::vector<boost::shared_ptr<ZR::ZRModuleCore>> made_;  // the extractors, until shutdown
  CLI::Option* device_ = nullptr;
  CLI::Option* directoryOption_ = nullptr;
};

boost::shared_ptr<ZR::ZRBroker> HostCommand::start(ZR::ZRBrokerOptions o) {
  if (!o.serveDirectory) {
    try {
      requireDirectory(o);
    } catch (const NoDirectory&) {
      o.serveDirectory = true;
    }
  }
  if (o.serveDirectory) {
    try {
      auto broker = ZR::ZRBroker::createBroker(name_, o);
      say("host " + name_ + " serves the directory at " + broker->endpoint());
      directoryAt_ = broker->endpoint();
      return broker;
    } catch (const ZR::ZRError& e) {
      // Of two hosts racing for the address, the one that bound it serves; this one joins,
      // unless serving was asked for.
      if (serve_) throw;
    }
  }
  o.serveDirectory = false;
  directoryAt_ = o.directory;
  auto broker = ZR::ZRBroker::createBroker(name_, o);
  say("host " + name_ + " joined the directory at " + o.directory + ", takes calls at " +
      broker->endpoint());
  return broker;
}

void HostCommand::createModules(const boost::shared_ptr<ZR::ZRBroker>& broker) {
  auto published = [](const std::string& name, const std::string& what) {
    say("published " + name + " (" + what + ")");
  };
  if (memory_) {
    ZR::ZRModule::createModule<ZR::ZRMemory>(broker, ZR::kMemoryServiceName);
    published(ZR::kMemoryServiceName, "service");
  }
  if (device_->count() > 0) {
    ZR::ZRAudioDeviceOptions d = resolveInput(input_, true);
    deviceFlags_.apply(d);
    const std::string notice = rawInputNotice(d);
    if (!notice.empty()) std::fprintf(stderr, "%s\n", notice.c_str());
    auto device =
        ZR::ZRModule::createModule<ZR::ZRAudioDevice>(broker, ZR::kAudioDeviceServiceName, d);
    published(ZR::kAudioDeviceServiceName, "service, " + device->getSourceDescription());
  }
  ZR::ZRExtractorRegistry registry = ZR::ZRExtractorRegistry::withStockExtractors();
  for (const std::string& lib : libraries_) registry.loadPlugin(lib);
  for (const std::string& e : extractors_) registry.require(e);
  ZR::ZRExtractorRegistry::Options options;
  if (!array_.empty()) options["array"] = checkedArray(array_, registry, extractors_);
  if (!extractors_.empty() &&
      broker->session()->waitForService(ZR::kMemoryServiceName).async().wait(kDirectoryWaitMs) !=
          vo::FutureState::FinishedWithValue)
    say("waiting for " + std::string(ZR::kMemoryServiceName) + " (a host with --memory)");
  for (const std::string& e : extractors_) {
    made_.push_back(registry.create(e, broker, e, registry.optionsFor(e, options)));
    published(e, "extractor");
  }
}

int HostCommand::createModulesUnlessStopped(const boost::shared_ptr<ZR::ZRBroker>& broker,
                                            const sigset_t& signals) {
  // An extractor waits for the memory service as it is made, deaf to signals: it is made on a
  // thread of its own, and a signal meanwhile closes the session, which ends that wait.
  std::promise<void> made;
  std::future<void> done = made.get_future();
  std::thread maker([&] {
    try {
      createModules(broker);
      made.set_value();
    } catch (...) {
      made.set_exception(std::current_exception());
    }
  });
  const timespec now{0, 0};
  int signal = -1;
  while (done.wait_for(std::chrono::milliseconds(10)) != std::future_status::ready)
    if ((signal = sigtimedwait(&signals, nullptr, &now)) >= 0) {
      broker->session()->close();
      break;
    }
  maker.join();
  try {
    done.get();
  } catch (...) {
    if (signal < 0) throw;  // given up anyway otherwise
  }
  return signal;
}

void HostCommand::stopSoundExtractors() {
  // A sound extractor whose device left first would end the process as it is destroyed (its
  // unsubscribe from the device fails there, unguarded). Its subscribers leave it here instead,
  // through its own locked path: the last one stops it, and a failure is only said.
  for (const auto& module : made_) {
    auto sound = boost::dynamic_pointer_cast<ZR::ZRSoundExtractor>(module);
    if (!sound) continue;
    const ZR::ZRValue subscribers = sound->getSubscribersInfo();
    for (int i = 0; i < subscribers.getSize(); ++i) try {
        sound->unsubscribe(subscribers[i][0].toStringRef());
      } catch (const std::exception& e) {
        say("stopping " + module->getName() + ": " + e.what());
      }
  }
  made_.clear();
}

int HostCommand::run() {
  vo::LogLevel level;
  if (!vo::log::parseLogLevel(logLevel_, level))
    throw CLI::ValidationError("--log-level", "unknown level " + logLevel_);
  vo::log::setLogLevel(level);

  ZR::ZRBrokerOptions o;
  DirectoryOptions where;
  where.directory = directory_;
  where.directoryOption = directoryOption_;
  o.directory = where.address();
  o.serveDirectory = serve_;
  if (heartbeat_ > 0) o.heartbeat = std::chrono::milliseconds(heartbeat_);
  o.listen = listen_;
  o.advertise = advertise_;
  o.insecure = insecure_;
  if (!curveKeys_.empty()) {
    const KeyPair k = readKeyPair(curveKeys_);
    o.curvePublicKey = k.publicKey;
    o.curveSecretKey = k.secretKey;
    o.allowedClientKeys = readPublicKeys(allow_);
    o.allowedClientKeys.push_back(k.publicKey);  // itself, and hosts that share its key pair
  }
  if (!serverKey_.empty()) {
    const auto keys = readPublicKeys(serverKey_);
    if (keys.size() != 1) throw std::runtime_error(serverKey_ + " must hold one public key");
    o.directoryPublicKey = keys[0];
  } else {
    o.directoryPublicKey = o.curvePublicKey;  // one key pair for every host of the network
  }
  const std::string bound = serve_ ? o.directory : o.listen;
  if (!isLoopback(bound) && o.curveSecretKey.empty() && !insecure_)
    throw CLI::ValidationError(
        "refusing to listen on " + bound +
        " beyond loopback without keys: give --curve-keys FILE --allow FILE (see zr keygen), or "
        "--insecure to let anyone on the network call this host");

  // The signals wait for the main loop (every thread the broker starts inherits the mask), so
  // that shutdown runs here, in order, and never inside a handler.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  boost::shared_ptr<ZR::ZRBroker> broker = start(o);
  int signal = -1;
  try {
    signal = createModulesUnlessStopped(broker, signals);
  } catch (...) {
    made_.clear();
    broker->shutdown();
    throw;
  }
  std::unique_ptr<bridge::Bridge> live;
  if (signal < 0 && bridgePort_ >= 0) {
    bridge_.name = name_ + "-bridge";
    bridge_.port = static_cast<unsigned short>(bridgePort_);
    ZR::ZRBrokerOptions at = o;
    at.serveDirectory = false;
    at.directory = directoryAt_;
    try {
      live = std::make_unique<bridge::Bridge>(broker, at, bridge_);
    } catch (...) {
      stopSoundExtractors();
      broker->shutdown();
      throw;
    }
    bridge::announce(*live);
  }
  if (signal < 0) say("serving; stop with Ctrl-C");

  std::map<std::string, std::string> peers;
  const timespec tick{0, 100 * 1000 * 1000};
  while (signal < 0) {
    const std::map<std::string, std::string> now = peersOf(*broker->session());
    for (const auto& [endpoint, host] : now)
      if (!peers.count(endpoint)) say("peer joined: " + host + " (" + endpoint + ")");
    for (const auto& [endpoint, host] : peers)
      if (!now.count(endpoint)) say("peer lost: " + host + " (" + endpoint + ")");
    peers = now;
    signal = sigtimedwait(&signals, nullptr, &tick);
  }
  say(std::string("shutting down (") + (signal == SIGINT ? "SIGINT" : "SIGTERM") + ")");
  live.reset();
  stopSoundExtractors();
  broker->shutdown();
  say("host " + name_ + " stopped");
  return 0;
}

}  // namespace

std::unique_ptr<Command> makeHostCommand() {
  return std::make_unique<HostCommand>();
}

}  // namespace zr
