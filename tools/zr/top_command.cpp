// zr top: who is subscribed to what, what each asked for against what it got, and where
// buffers are dropped, across every host of a running directory.

#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <map>

#include <zrcommon/zrservicenames.h>
#include <nlohmann/json.hpp>

#include "command.h"
#include "remote.h"

namespace zr {
namespace {

using Clock = std::chrono::steady_clock;
using Json = nlohmann::ordered_json;

std::vector<std::string> strings(const ZR::ZRValue& v) {
  std::vector<std::string> out;
  if (v.isArray())
    for (const ZR::ZRValue& e : v.arrayElements()) out.push_back(e.toStringRef());
  return out;
}

double rounded(double v) {
  return static_cast<double>(static_cast<long long>(v * 1000.0 + (v < 0 ? -0.5 : 0.5))) / 1000.0;
}

class TopCommand : public Command {
 public:
  CLI::App* define(CLI::App& app) override {
    CLI::App* cmd =
        app.add_subcommand("top", "A live view of extractors, devices and hosts of a directory.");
    cmd->add_flag("--once", once_, "Print one snapshot and exit.");
    cmd->add_option("-f,--format", format_, "Output format.")
        ->check(CLI::IsMember({"table", "jsonl"}));
    cmd->add_option("--interval", intervalMs_, "Refresh period in ms (default 1000).")
        ->check(CLI::Range(100, 3600000));
    directory_.define(cmd);
    return cmd;
  }

  int run() override;

 private:
  std::vector<Json> snapshot(DirectoryView& view);
  void print(const std::vector<Json>& rows, bool inPlace);

  bool once_ = false;
  std::string format_ = "table";
  int intervalMs_ = 1000;
  DirectoryOptions directory_;
  std::map<std::string, Clock::time_point> lastSeen_;  // by endpoint
  // Events an extractor raised, summed over its events, when last read.
  std::map<std::string, std::pair<long, Clock::time_point>> raised_;

  // Its events per second since the previous reading; null on the first one, or without a
  // memory service to ask.
  Json eventRate(DirectoryView& view, const std::string& extractor) {
    long count = 0;
    try {
      for (const std::string& ev :
           strings(view.call(ZR::kMemoryServiceName, "getExtractorEvent", {extractor})))
        count += view.call(ZR::kMemoryServiceName, "getRaisedEventCount", {ev}).toInt();
    } catch (const ZR::ZRError&) {
      return nullptr;
    }
    const auto now = Clock::now();
    const auto previous = raised_.find(extractor);
    const bool first = previous == raised_.end();
    const auto before = first ? std::make_pair(0L, now) : previous->second;
    raised_[extractor] = {count, now};
    const double seconds = std::chrono::duration<double>(now - before.second).count();
    if (first || seconds <= 0) return nullptr;
    return rounded(static_cast<double>(count - before.first) / seconds);
  }
};

std::vector<Json> TopCommand::snapshot(DirectoryView& view) {
  view.refresh();
  std::vector<Json> modules;
  std::map<std::string, std::string> hosts;  // endpoint -> host
  for (const ZR::ZRDirectoryEntry& e : view.entries()) {
    hosts[e.endpoint] = e.host;
    try {
      const std::string kind = view.info(e).kind;
      if (kind == "extractor" || kind == "soundextractor") {
        Json subscribers = Json::array();
        const ZR::ZRValue info = view.call(e.name, "getSubscribersInfo");
        for (const ZR::ZRValue& s : info.arrayElements())
          if (s.isArray() && s.getSize() == 3)
            subscribers.push_back({{"name", s[0].toStringRef()},
                                   {"period", s[1].toInt()},
                                   {"precision", rounded(s[2].toFloat())}});
        // Without subscribers an extractor has no current values (its registry says -1).
        const bool idle = subscribers.empty();
        modules.push_back(
            {{"type", "extractor"},
             {"module", e.name},
             {"host", e.host},
             {"state", idle ? "idle" : "running"},
             {"currentPeriod",
              idle ? Json(nullptr) : Json(view.call(e.name, "getCurrentPeriod").toInt())},
             {"currentPrecision",
              idle ? Json(nullptr)
                   : Json(rounded(view.call(e.name, "getCurrentPrecision").toFloat()))},
             {"eventsPerSecond", eventRate(view, e.name)},
             {"subscribers", subscribers}});
      } else if (e.name == ZR::kAudioDeviceServiceName) {
        Json subscribers = Json::array();
        for (const std::string& s : strings(view.call(e.name, "getSubscribers"))) {
          const int delivered = view.call(e.name, "getDeliveredBufferCount", {s}).toInt();
          const int dropped = view.call(e.name, "getDroppedBufferCount", {s}).toInt();
          subscribers.push_back(
              {{"name", s},
               {"delivered", delivered},
               {"dropped", dropped},
               {"dropRate", delivered + dropped > 0
                                ? rounded(static_cast<double>(dropped) / (delivered + dropped))
                                : 0.0}});
        }
        modules.push_back({{"type", "device"},
                           {"module", e.name},
                           {"host", e.host},
                           {"source", view.call(e.name, "getSourceDescription").toStringRef()},
                           {"rate", view.call(e.name, "getSampleRate").toInt()},
                           {"channels", view.call(e.name, "getChannelCount").toInt()},
                           {"subscribers", subscribers}});
      } else {
        view.call(e.name, "ping");  // nothing else to ask: whether its host answers
      }
      lastSeen_[e.endpoint] = Clock::now();
    } catch (const ZR::ZRError&) {
      // Its host stopped answering since the directory listed it: its last-seen time grows.
    }
  }
  std::vector<Json> rows;
  for (const auto& [endpoint, host] : hosts) {
    const auto seen = lastSeen_.find(endpoint);
    const double ago = seen == lastSeen_.end()
                           ? -1.0
                           : std::chrono::duration<double>(Clock::now() - seen->second).count();
    rows.push_back({{"type", "host"},
                    {"host", host},
                    {"endpoint", endpoint},
                    {"peers", static_cast<int>(hosts.size()) - 1},
                    {"lastSeenSeconds", ago < 0 ? Json(nullptr) : Json(rounded(ago))}});
  }
  rows.insert(rows.end(), modules.begin(), modules.end());
  return rows;
}

void TopCommand::print(const std::vector<Json>& rows, bool inPlace) {
  if (inPlace) std::printf("\033[H\033[2J");
  if (format_ == "jsonl") {
    for (const Json& r : rows) std::printf("%s\n", r.dump().c_str());
    std::fflush(stdout);
    return;
  }
  std::printf("%-16s %-28s %5s %10s\n", "HOST", "ENDPOINT", "PEERS", "LAST SEEN");
  for (const Json& r : rows)
    if (r["type"] == "host")
      std::printf(
          "%-16s %-28s %5d %9s\n", r["host"].get<std::string>().c_str(),
          r["endpoint"].get<std::string>().c_str(), r["peers"].get<int>(),
          r["lastSeenSeconds"].is_null()
              ? "lost"
              : (std::to_string(r["lastSeenSeconds"].get<double>()).substr(0, 4) + "s").c_str());
  std::printf("\n%-16s %-16s %-8s %7s %9s  %s\n", "EXTRACTOR", "HOST", "STATE", "PERIOD",
              "PRECISION", "SUBSCRIBERS (asked period/precision)");
  for (const Json& r : rows) {
    if (r["type"] != "extractor") continue;
    std::string subs;
    for (const Json& s : r["subscribers"])
      subs += (subs.empty() ? "" : ", ") + s["name"].get<std::string>() + " " +
              std::to_string(s["period"].get<int>()) + "ms/" + s["precision"].dump();
    const bool idle = r["currentPeriod"].is_null();
    std::printf("%-16s %-16s %-8s %7s %9s  %s\n", r["module"].get<std::string>().c_str(),
                r["host"].get<std::string>().c_str(), r["state"].get<std::string>().c_str(),
                idle ? "-" : (std::to_string(r["currentPeriod"].get<int>()) + "ms").c_str(),
                idle ? "-" : r["currentPrecision"].dump().c_str(), subs.c_str());
  }
  std::printf("\n%-16s %-16s %-24s %6s %3s  %s\n", "DEVICE", "HOST", "SOURCE", "RATE", "CH",
              "SUBSCRIBERS (delivered/dropped, drop rate)");
  for (const Json& r : rows) {
    if (r["type"] != "device") continue;
    std::string subs;
    for (const Json& s : r["subscribers"])
      subs += (subs.empty() ? "" : ", ") + s["name"].get<std::string>() + " " +
              std::to_string(s["delivered"].get<int>()) + "/" +
              std::to_string(s["dropped"].get<int>()) + " " + s["dropRate"].dump();
    std::printf("%-16s %-16s %-24s %6d %3d  %s\n", r["module"].get<std::string>().c_str(),
                r["host"].get<std::string>().c_str(), r["source"].get<std::string>().c_str(),
                r["rate"].get<int>(), r["channels"].get<int>(), subs.c_str());
  }
  std::fflush(stdout);
}

int TopCommand::run() {
  DirectoryView view(directory_);
  if (once_) {
    // Two readings an interval apart, so that the snapshot has event rates.
    snapshot(view);
    const timespec interval{intervalMs_ / 1000, (intervalMs_ % 1000) * 1000000L};
    nanosleep(&interval, nullptr);
    print(snapshot(view), false);
    return 0;
  }
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  const bool inPlace = isatty(STDOUT_FILENO) && format_ == "table";
  const timespec interval{intervalMs_ / 1000, (intervalMs_ % 1000) * 1000000L};
  do {
    try {
      print(snapshot(view), inPlace);
    } catch (const NoDirectory& e) {
      // The directory's host went away: say so and keep looking.
      if (inPlace) std::printf("\033[H\033[2J");
      std::printf("%s\n", e.what());
      std::fflush(stdout);
    }
    if (!inPlace && format_ == "table") std::printf("\n");
  } while (sigtimedwait(&signals, nullptr, &interval) < 0);
  return 0;
}

}  // namespace

std::unique_ptr<Command> makeTopCommand() {
  return std::make_unique<TopCommand>();
}

}  // namespace zr
