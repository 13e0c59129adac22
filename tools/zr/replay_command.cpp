// zr replay FILE: raises the events of a recording into a running memory service at their
// recorded pace (or faster), so that the modules that use them can be tried without the
// hardware or the extractors that made them.

#include <signal.h>
#include <unistd.h>

#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <set>

#include <vo/log.h>
#include <zrcommon/zrservicenames.h>
#include <zrmcap/zrmcap.h>
#include <zrmcap/zrsoundmessage.h>
#include <zrproxies/zrmemoryproxy.h>

#include "command.h"
#include "recording.h"
#include "remote.h"

namespace zr {
namespace {

struct Recorded {
  std::uint64_t logTime;
  std::string topic;
  ZR::ZRValue value;
};

class ReplayCommand : public Command {
 public:
  CLI::App* define(CLI::App& app) override {
    CLI::App* cmd = app.add_subcommand(
        "replay", "Raise the recorded events of a recording into a running ZRMemory.");
    cmd->add_option("FILE", path_, "A recording (.mcap) made by zr run --record or zr record.")
        ->required();
    cmd->add_option("--speed", speed_,
                    "How many times faster than recorded (default 1; 0: as fast as possible).")
        ->check(CLI::Range(0.0, 1e6));
    cmd->add_option("--event", events_, "Replay only this event (repeatable).");
    cmd->add_option("--name", name_, "Client module name (default: zr-replay-<host>-<pid>).");
    directory_.define(cmd);
    listen_.define(cmd);
    return cmd;
  }

  int run() override;

 private:
  std::vector<Recorded> read(std::set<std::string>& skipped);

  std::string path_, name_ = clientName("replay");
  double speed_ = 1.0;
  std::vector<std::string> events_;
  DirectoryOptions directory_;
  ListenOptions listen_;
};

// The recorded events to replay, in the order of their log times. Those of a producer that runs
// now are its own to raise: they are left out, their topics in `skipped`.
std::vector<Recorded> ReplayCommand::read(std::set<std::string>& skipped) {
  ZR::ZRMcapReader reader(path_);
  if (!reader.summary().complete)
    std::fprintf(stderr, "zr: %s: %s\n", path_.c_str(), reader.summary().damage.c_str());
  DirectoryView view(directory_);
  std::map<std::uint16_t, std::pair<std::string, bool>> channels;  // topic, holds records
  for (const auto& [id, c] : reader.summary().channels) {
    auto kind = c.metadata.find(ZR::kKindKey);
    if (kind == c.metadata.end() || kind->second != "event") continue;
    if (!events_.empty() && std::find(events_.begin(), events_.end(), c.topic) == events_.end())
      continue;
    auto producer = c.metadata.find(ZR::kModuleKey);
    if (producer != c.metadata.end() && !producer->second.empty() && view.find(producer->second)) {
      skipped.insert(c.topic);
      continue;
    }
    auto value = c.metadata.find("zr.value");
    channels[id] = {c.topic, value == c.metadata.end() || value->second == "record"};
  }
  for (const std::string& e : events_) {
    bool known = skipped.count(e) > 0;
    for (const auto& [id, c] : channels) known = known || c.first == e;
    if (!known) throw std::runtime_error("no event " + e + " in " + path_);
  }
  std::vector<std::uint16_t> ids;
  for (const auto& [id, c] : channels) ids.push_back(id);
  std::vector<Recorded> out;
  if (ids.empty()) return out;
  reader.forEachMessage(
      [&](const ZR::ZRMcapMessage& m) {
        const auto& [topic, record] = channels.at(m.channelId);
        out.push_back(
            {m.logTime, topic,
             eventValue(std::string(reinterpret_cast<const char*>(m.data), m.size), record)});
        return true;
      },
      ids);
  std::stable_sort(out.begin(), out.end(),
                   [](const Recorded& a, const Recorded& b) { return a.logTime < b.logTime; });
  return out;
}

int ReplayCommand::run() {
  vo::log::setLogLevel(vo::LogLevel_Error);
  const sigset_t signals = blockStopSignals();

  auto broker = joinNetwork(directory_, name_, listen_, {ZR::kMemoryServiceName});
  std::set<std::string> skipped;
  std::vector<Recorded> recorded;
  try {
    recorded = read(skipped);
  } catch (...) {
    broker->shutdown();
    throw;
  }
  for (const std::string& topic : skipped)
    std::fprintf(stderr, "zr: %s is left out: its producer runs now, and only it raises it\n",
                 topic.c_str());
  ZR::ZRMemoryProxy memory(broker);
  std::set<std::string> topics;
  for (const Recorded& r : recorded)
    if (topics.insert(r.topic).second) memory.declareEvent(r.topic, "");
  std::fprintf(stderr, "zr: replaying %zu events of %zu kinds from %s; stop with Ctrl-C\n",
               recorded.size(), topics.size(), path_.c_str());
  std::fflush(stderr);
  const auto start = std::chrono::steady_clock::now();
  std::size_t raised = 0;
  int status = 0;
  try {
    for (const Recorded& r : recorded) {
      if (speed_ > 0) {
        const double due =
            static_cast<double>(r.logTime - recorded.front().logTime) * 1e-9 / speed_;
        const double left =
            due - std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        if (left > 0) {
          const timespec wait{static_cast<time_t>(left),
                              static_cast<long>((left - std::floor(left)) * 1e9)};
          if (sigtimedwait(&signals, nullptr, &wait) >= 0) break;
        }
      } else {
        const timespec none{0, 0};
        if (sigtimedwait(&signals, nullptr, &none) >= 0) break;
      }
      memory.raiseEvent(r.topic, r.value);
      ++raised;
    }
  } catch (const ZR::ZRError& e) {
    std::fprintf(stderr, "zr: error: %s\n", e.what());
    status = kExitError;
  }
  std::fprintf(stderr, "zr: replayed %zu of %zu events\n", raised, recorded.size());
  broker->shutdown();
  return status;
}

}  // namespace

std::unique_ptr<Command> makeReplayCommand() {
  return std::make_unique<ReplayCommand>();
}

}  // namespace zr
