// zr watch EVENT...: subscribes to events through the running "ZRMemory" and prints them as
// they come, until SIGINT or SIGTERM.

#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <map>
#include <mutex>
#include <set>

#include <vo/log.h>
#include <zrcommon/zrmodule.h>
#include <zrcommon/zrservicenames.h>
#include <zrextractors/zrrecord.h>
#include <zrproxies/zrmemoryproxy.h>
#include <nlohmann/json.hpp>

#include "command.h"
#include "eventclient.h"
#include "output.h"
#include "remote.h"

namespace zr {
namespace {

std::string defaultName() {
  char host[256] = "host";
  gethostname(host, sizeof host - 1);
  return std::string("zr-watch-") + host + "-" + std::to_string(getpid());
}

class WatchCommand : public Command {
 public:
  CLI::App* define(CLI::App& app) override {
    CLI::App* cmd = app.add_subcommand(
        "watch", "Print events of the running ZRMemory as they come, until Ctrl-C.");
    cmd->add_option("EVENT", events_, "Event names, e.g. SoundLevel/Levels.")->required();
    cmd->add_option("--name", name_, "Client module name (default: zr-watch-<host>-<pid>).");
    cmd->add_option("-f,--format", format_, "Output format.")
        ->check(CLI::IsMember({"table", "csv", "jsonl"}));
    cmd->add_option("--listen", listen_,
                    "Where events reach this program (default: loopback, any port).");
    cmd->add_option("--advertise", advertise_, "What the memory's host connects to (NAT).");
    directory_.define(cmd);
    return cmd;
  }

  int run() override;

 private:
  std::vector<std::string> events_;
  std::string name_ = defaultName(), format_ = "jsonl", listen_ = "tcp://127.0.0.1:0", advertise_;
  DirectoryOptions directory_;
};

int WatchCommand::run() {
  vo::log::setLogLevel(vo::LogLevel_Error);
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  auto broker = joinNetwork(directory_, name_, listen_, advertise_, {ZR::kMemoryServiceName});
  ZR::ZRMemoryProxy memory(broker);
  // Who produces what: the stock extractors' events print as zr run prints them.
  std::map<std::string, std::string> producerOf;
  std::set<std::string> producers{ZR::kMemoryServiceName};
  for (const std::string& ev : events_) {
    const std::string prefix = ev.substr(0, ev.find('/'));
    for (const std::string& declared : memory.getExtractorEvent(prefix))
      if (declared == ev) {
        producerOf[ev] = prefix;
        producers.insert(prefix);
      }
  }
  std::unique_ptr<ResultWriter> writer = ResultWriter::create(format_, stdout);
  std::mutex outMutex;
  auto print = [&](const std::string& event, const ZR::ZRValue& value) {
    std::lock_guard<std::mutex> lock(outMutex);
    auto it = producerOf.find(event);
    if (format_ == "jsonl" && (it == producerOf.end() || !ZR::isRecord(value))) {
      const double now =
          std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch())
              .count();
      std::printf("{\"event\":%s,\"time\":%.3f,\"value\":%s}\n",
                  nlohmann::json(event).dump().c_str(), now, toJson(value).c_str());
    } else {
      const std::string extractor = it == producerOf.end() ? "" : it->second;
      writer->write(
          {extractor, extractor.empty() ? event : event.substr(extractor.size() + 1), value});
    }
    std::fflush(stdout);
  };
  auto client = ZR::ZRModule::createModule<EventClient>(
      broker, name_, "WatchClient", "zr watch: prints the events it receives.", print);
  // A producer (or the memory service) that leaves is said at once: its host died or stopped.
  const unsigned long listener =
      broker->session()->connectServiceRemoved([&producers](const std::string& name) {
        if (producers.count(name))
          std::fprintf(stderr, "zr: %s left: its host stopped or is lost\n", name.c_str());
      });
  writer->begin();
  std::vector<std::string> subscribed;
  int status = 0;
  try {
    for (const std::string& ev : events_) {
      subscribeNewModule(memory, ev, name_, "onEvent");
      subscribed.push_back(ev);
    }
    std::fprintf(stderr, "zr: watching %zu event(s) as %s; stop with Ctrl-C\n", events_.size(),
                 name_.c_str());
    std::fflush(stderr);
    const int signal = sigwaitinfo(&signals, nullptr);
    (void)signal;
  } catch (const ZR::ZRError& e) {
    std::fprintf(stderr, "%s::%s: %s\n", e.getModuleName().c_str(), e.getMethodName().c_str(),
                 e.getDescription().c_str());
    status = kExitError;
  }
  broker->session()->disconnectServiceRemoved(listener);
  for (const std::string& ev : subscribed) {
    try {
      memory.unsubscribeToEvent(ev, name_);
    } catch (const ZR::ZRError&) {
      // The memory service is gone with its host: nothing to undo there.
    }
  }
  client.reset();
  broker->shutdown();
  writer->end();
  std::fflush(stdout);
  return status;
}

}  // namespace

std::unique_ptr<Command> makeWatchCommand() {
  return std::make_unique<WatchCommand>();
}

}  // namespace zr
