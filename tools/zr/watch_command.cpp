// zr watch EVENT...: subscribes to events through the running "ZRMemory" and prints them as
// they come, until SIGINT or SIGTERM, a number of events or a time.

#include <signal.h>
#include <unistd.h>

#include <pthread.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <map>
#include <mutex>
#include <set>

#include <vo/log.h>
#include <zrcommon/zrmodule.h>
#include <zrcommon/zrservicenames.h>
#include <zrerror/zrdefaults.h>
#include <zrextractors/zrrecord.h>
#include <zrproxies/zrmemoryproxy.h>
#include <nlohmann/json.hpp>

#include "command.h"
#include "eventclient.h"
#include "output.h"
#include "remote.h"

namespace zr {
namespace {

class WatchCommand : public Command {
 public:
  CLI::App* define(CLI::App& app) override {
    CLI::App* cmd = app.add_subcommand(
        "watch", "Print events of the running ZRMemory as they come, until Ctrl-C.");
    cmd->add_option("EVENT", events_, "Event names, e.g. SoundLevel/Levels.")->required();
    cmd->add_option("--name", name_, "Client module name (default: zr-watch-<host>-<pid>).");
    cmd->add_option("-f,--format", format_, "Output format.")
        ->check(CLI::IsMember({"table", "csv", "jsonl"}));
    listen_.define(cmd);
    cmd->add_option("-n,--count", count_, "Stop after N events.")->check(CLI::PositiveNumber);
    cmd->add_option("--duration", duration_, "Stop after T seconds.")
        ->check(CLI::Range(0.001, 31536000.0));
    cmd->add_flag("--wait", wait_,
                  "Watch events that no module declares yet, waiting for a producer that will.");
    directory_.define(cmd);
    return cmd;
  }

  int run() override;

 private:
  std::vector<std::string> events_;
  std::string name_ = clientName("watch"), format_ = "jsonl";
  long count_ = 0;  // 0: no limit
  double duration_ = 0.0;
  bool wait_ = false;
  DirectoryOptions directory_;
  ListenOptions listen_;
};

int WatchCommand::run() {
  vo::log::setLogLevel(vo::LogLevel_Error);
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGUSR1);  // from the thread that printed the last event --count wants
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  const pthread_t mainThread = pthread_self();

  auto broker = joinNetwork(directory_, name_, listen_, {ZR::kMemoryServiceName});
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
  // An event nobody declared or raised is most likely a misspelt one: said, unless asked to wait.
  for (const std::string& ev : events_) {
    if (producerOf.count(ev) || wait_ || memory.getRaisedEventCount(ev) > 0) continue;
    std::string known;
    for (const std::string& e : memory.getEventList()) known += (known.empty() ? "" : ", ") + e;
    broker->shutdown();
    throw std::runtime_error("no module declares the event \"" + ev +
                             "\" (known: " + (known.empty() ? "none" : known) +
                             "); check its name, or give --wait to wait for a producer");
  }
  std::unique_ptr<ResultWriter> writer = ResultWriter::create(format_, stdout);
  std::mutex outMutex;
  long printed = 0;
  auto print = [&](const std::string& event, const ZR::ZRValue& value) {
    std::lock_guard<std::mutex> lock(outMutex);
    if (count_ > 0 && printed >= count_) return;  // the count is reached: the rest is not shown
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
    if (++printed == count_) pthread_kill(mainThread, SIGUSR1);
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
    for (const std::string& ev : events_)
      if (!producerOf.count(ev) && memory.getRaisedEventCount(ev) == 0)
        std::fprintf(stderr, "zr: no module declares %s yet; waiting for one that raises it\n",
                     ev.c_str());
    std::fprintf(stderr, "zr: watching %zu event(s) as %s; stop with Ctrl-C\n", events_.size(),
                 name_.c_str());
    std::fflush(stderr);
    waitForStop(signals, duration_);
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
