// zr top: who is subscribed to what, what each asked for against what it got, and where
// buffers are dropped, across every host of a running directory.

#include <signal.h>
#include <unistd.h>

#include <algorithm>
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

bool hasMethod(const ZR::ZRModuleInfo& info, const std::string& method) {
  return std::find(info.methods.begin(), info.methods.end(), method) != info.methods.end();
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

  // A subscriber's delivery latency p50 and p99 in ms; null for one on another host (its
  // deliveries start there) or before its first.
  static std::pair<Json, Json> latency(DirectoryView& view, const std::string& device,
                                       const std::string& subscriber) {
    try {
      const ZR::ZRValue l = view.call(device, "getLatency", {subscriber});
      if (l.isArray() && l.getSize() >= 4 && l[3].toInt() > 0)
        return {rounded(l[0].toFloat()), rounded(l[1].toFloat())};
    } catch (const ZR::ZRError&) {
    }
    return {nullptr, nullptr};
  }

  // How late its results are, p50 and p99 in ms: those of its slowest event (by p99); null
  // unless it runs in the memory service's process, where the raise can be timed.
  static std::pair<Json, Json> eventLatency(DirectoryView& view, const std::string& extractor) {
    std::pair<Json, Json> worst{nullptr, nullptr};
    try {
      for (const std::string& ev :
           strings(view.call(ZR::kMemoryServiceName, "getExtractorEvent", {extractor}))) {
        const ZR::ZRValue l = view.call(ZR::kMemoryServiceName, "getEventLatency", {ev});
        if (l.isArray() && l.getSize() >= 4 &&
            (worst.second.is_null() || l[1].toFloat() > worst.second.get<double>()))
          worst = {rounded(l[0].toFloat()), rounded(l[1].toFloat())};
      }
    } catch (const ZR::ZRError&) {
      // A memory service without the figure, or none: nothing to show.
    }
    return worst;
  }

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
        const std::pair<Json, Json> late = eventLatency(view, e.name);
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
             {"latency_p50_ms", late.first},
             {"latency_p99_ms", late.second},
             {"subscribers", subscribers}});
      } else if (e.name == ZR::kAudioDeviceServiceName) {
        Json subscribers = Json::array();
        std::vector<Json> subscriberRows;
        for (const std::string& s : strings(view.call(e.name, "getSubscribers"))) {
          const int delivered = view.call(e.name, "getDeliveredBufferCount", {s}).toInt();
          const int dropped = view.call(e.name, "getDroppedBufferCount", {s}).toInt();
          const auto [p50, p99] = latency(view, e.name, s);
          Json sub = {{"name", s},
                      {"delivered", delivered},
                      {"dropped", dropped},
                      {"dropRate", delivered + dropped > 0 ? rounded(static_cast<double>(dropped) /
                                                                     (delivered + dropped))
                                                           : 0.0},
                      {"latency_p50_ms", p50},
                      {"latency_p99_ms", p99}};
          subscribers.push_back(sub);
          // Also a row of its own, for scripts that read one kind of row at a time.
          Json row = {{"type", "subscriber"}, {"module", s}, {"device", e.name}, {"host", e.host}};
          for (const char* k : {"delivered", "dropped", "latency_p50_ms", "latency_p99_ms"})
            row[k] = sub[k];
          subscriberRows.push_back(std::move(row));
        }
        const ZR::ZRValue drift = view.call(e.name, "getDrift");
        const bool knowsDrift = drift.isArray() && drift.getSize() >= 2;
        modules.push_back(
            {{"type", "device"},
             {"module", e.name},
             {"host", e.host},
             {"source", view.call(e.name, "getSourceDescription").toStringRef()},
             {"rate", view.call(e.name, "getSampleRate").toInt()},
             {"channels", view.call(e.name, "getChannelCount").toInt()},
             {"drift_ppm", knowsDrift ? Json(rounded(drift[0].toFloat())) : Json()},
             {"drift_uncertainty_ppm", knowsDrift ? Json(rounded(drift[1].toFloat())) : Json()},
             {"lost_samples", view.call(e.name, "getLostSampleCount").toInt()},
             {"subscribers", subscribers}});
        modules.insert(modules.end(), subscriberRows.begin(), subscriberRows.end());
      } else if (hasMethod(view.info(e), "getViewers")) {
        // A live bridge: its viewers and what each could not keep up with.
        Json viewers = Json::array();
        const ZR::ZRValue list = view.call(e.name, "getViewers");
        for (const ZR::ZRValue& v : list.arrayElements())
          if (v.isArray() && v.getSize() == 5)
            viewers.push_back({{"name", v[0].toStringRef()},
                               {"address", v[1].toStringRef()},
                               {"subscriptions", v[2].toInt()},
                               {"sent", v[3].toInt()},
                               {"dropped", v[4].toInt()}});
        modules.push_back(
            {{"type", "bridge"}, {"module", e.name}, {"host", e.host}, {"viewers", viewers}});
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
  auto figure = [](const Json& v, const char* unit) {
    if (v.is_null()) return std::string("-");
    char text[32];
    std::snprintf(text, sizeof text, "%.2f%s", v.get<double>(), unit);
    return std::string(text);
  };
  std::printf("\n%-16s %-16s %-8s %7s %9s %11s  %s\n", "EXTRACTOR", "HOST", "STATE", "PERIOD",
              "PRECISION", "LATE P99", "SUBSCRIBERS (asked period/precision)");
  for (const Json& r : rows) {
    if (r["type"] != "extractor") continue;
    std::string subs;
    for (const Json& s : r["subscribers"])
      subs += (subs.empty() ? "" : ", ") + s["name"].get<std::string>() + " " +
              std::to_string(s["period"].get<int>()) + "ms/" + s["precision"].dump();
    const bool idle = r["currentPeriod"].is_null();
    std::printf("%-16s %-16s %-8s %7s %9s %11s  %s\n", r["module"].get<std::string>().c_str(),
                r["host"].get<std::string>().c_str(), r["state"].get<std::string>().c_str(),
                idle ? "-" : (std::to_string(r["currentPeriod"].get<int>()) + "ms").c_str(),
                idle ? "-" : r["currentPrecision"].dump().c_str(),
                figure(r["latency_p99_ms"], " ms").c_str(), subs.c_str());
  }
  std::printf("\n%-16s %-16s %-24s %6s %3s %12s %8s\n", "DEVICE", "HOST", "SOURCE", "RATE", "CH",
              "DRIFT", "LOST");
  for (const Json& r : rows) {
    if (r["type"] != "device") continue;
    std::string drift = figure(r["drift_ppm"], "");
    if (!r["drift_ppm"].is_null()) drift += "±" + figure(r["drift_uncertainty_ppm"], "ppm");
    std::printf("%-16s %-16s %-24s %6d %3d %12s %8d\n", r["module"].get<std::string>().c_str(),
                r["host"].get<std::string>().c_str(), r["source"].get<std::string>().c_str(),
                r["rate"].get<int>(), r["channels"].get<int>(), drift.c_str(),
                r["lost_samples"].get<int>());
  }
  std::printf("\n%-16s %-16s %10s %8s %8s %11s %11s\n", "SUBSCRIBER", "DEVICE", "DELIVERED",
              "DROPPED", "DROP", "LAT P50", "LAT P99");
  for (const Json& r : rows) {
    if (r["type"] != "device") continue;
    for (const Json& s : r["subscribers"])
      std::printf("%-16s %-16s %10d %8d %8s %11s %11s\n", s["name"].get<std::string>().c_str(),
                  r["module"].get<std::string>().c_str(), s["delivered"].get<int>(),
                  s["dropped"].get<int>(), s["dropRate"].dump().c_str(),
                  figure(s["latency_p50_ms"], " ms").c_str(),
                  figure(s["latency_p99_ms"], " ms").c_str());
  }
  std::printf("\n%-16s %-32s %-22s %5s %10s %8s\n", "BRIDGE", "VIEWER", "ADDRESS", "SUBS", "SENT",
              "DROPPED");
  for (const Json& r : rows) {
    if (r["type"] != "bridge") continue;
    for (const Json& v : r["viewers"])
      std::printf("%-16s %-32s %-22s %5d %10d %8d\n", r["module"].get<std::string>().c_str(),
                  v["name"].get<std::string>().c_str(), v["address"].get<std::string>().c_str(),
                  v["subscriptions"].get<int>(), v["sent"].get<int>(), v["dropped"].get<int>());
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
