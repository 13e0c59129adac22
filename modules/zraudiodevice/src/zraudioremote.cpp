#include "zraudioremote.h"

#include <algorithm>

#include <zrcommon/zrbroker.h>

namespace ZR {

namespace {

const char kEntryMark = '\x01';
// Messages a host may leave unanswered: enough to keep the wire busy for a file, few for a live
// source, whose subscribers want the newest sound.
const int kFileWindow = 8;
const int kLiveWindow = 3;

}  // namespace

struct ZRAudioRemoteSubscribers::Host {
  std::string entry;
  std::shared_ptr<detail::ZRStreamSender> sender;
  std::mutex mutex;
  std::vector<std::string> members;                                 // under `mutex`
  std::vector<std::shared_ptr<detail::ZRLatencyWindow>> latencies;  // the members', likewise

  std::vector<std::string> snapshot() {
    std::lock_guard<std::mutex> lock(mutex);
    return members;
  }
  // A message starts on that host for all its subscribers at once.
  void delayed(std::int64_t ns) {
    std::lock_guard<std::mutex> lock(mutex);
    for (const auto& l : latencies) l->add(ns);
  }
};

ZRAudioRemoteSubscribers::ZRAudioRemoteSubscribers(std::string deviceName, bool live)
    : deviceName_(std::move(deviceName)), live_(live) {}

ZRAudioRemoteSubscribers::~ZRAudioRemoteSubscribers() {
  close();
}

void ZRAudioRemoteSubscribers::close() {
  std::vector<std::shared_ptr<Host>> hosts;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto& [key, host] : hosts_) hosts.push_back(host);
  }
  for (auto& host : hosts) host->sender->close();
}

bool ZRAudioRemoteSubscribers::isEntry(const std::string& lineName) {
  return !lineName.empty() && lineName[0] == kEntryMark;
}

bool ZRAudioRemoteSubscribers::add(const std::shared_ptr<ZRAudioLine>& line, ZRBroker& broker,
                                   const std::string& module, const std::string& endpoint,
                                   std::shared_ptr<detail::ZRLatencyWindow> latency) {
  std::lock_guard<std::mutex> lock(mutex_);
  // A file waits for its slowest subscriber anyway: one stream per host costs none of them
  // anything. A live source gives each subscriber a stream of its own, so that a slow one
  // drops its own buffers only, and its drops are counted under its name.
  const std::string key = live_ ? module : endpoint;
  auto it = hosts_.find(key);
  if (it != hosts_.end() && it->second->sender->isLost()) {
    // That host died and came back: its dead subscribers wait for their reaping elsewhere.
    it->second->sender->close();
    hosts_.erase(it);
    it = hosts_.end();
  }
  if (it == hosts_.end()) {
    auto host = std::make_shared<Host>();
    host->entry = live_ ? module : std::string(1, kEntryMark) + endpoint;
    host->sender = detail::openStream(broker, endpoint, deviceName_);
    if (!host->sender)
      throw ZRError(deviceName_, "subscribe",
                    "\"" + module + "\" lives on another host, but this broker is in no network");
    std::weak_ptr<Host> weakHost = host;
    host->sender->setDelayListener([weakHost](std::int64_t ns) {
      if (std::shared_ptr<Host> h = weakHost.lock()) h->delayed(ns);
    });
    line->addRemote(
        host->entry,
        // One message carries the buffers that waited, each a call of "processRemote" on every
        // subscriber of that host.
        [weakHost](std::vector<detail::ZRDelivery>& batch, bool lossless, ZRAudioLine::Done done) {
          std::shared_ptr<Host> h = weakHost.lock();
          std::vector<std::string> members = h ? h->snapshot() : std::vector<std::string>();
          if (members.empty()) return done(nullptr);
          h->sender->sendCalls(members, batch, lossless, std::move(done));
        },
        live_ ? kLiveWindow : kFileWindow,
        // The stream leaves the line with its host; its subscribers stay listed until they are
        // unsubscribed (the broker reaps them), which stops the source with the last one.
        [weakHost] {
          std::shared_ptr<Host> h = weakHost.lock();
          return !h || h->sender->isLost();
        },
        host->sender->ioExecutor());
    it = hosts_.emplace(key, std::move(host)).first;
  }
  Host& host = *it->second;
  lastEntry_[module] = host.entry;
  std::lock_guard<std::mutex> members(host.mutex);
  if (std::find(host.members.begin(), host.members.end(), module) != host.members.end())
    return false;
  host.members.push_back(module);
  host.latencies.push_back(std::move(latency));
  return true;
}

bool ZRAudioRemoteSubscribers::remove(ZRAudioLine& line, const std::string& module) {
  std::shared_ptr<Host> emptied;
  bool found = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto it = hosts_.begin(); it != hosts_.end(); ++it) {
      Host& host = *it->second;
      std::lock_guard<std::mutex> members(host.mutex);
      auto m = std::find(host.members.begin(), host.members.end(), module);
      if (m == host.members.end()) continue;
      host.latencies.erase(host.latencies.begin() + (m - host.members.begin()));
      host.members.erase(m);
      found = true;
      if (host.members.empty()) {
        emptied = it->second;
        hosts_.erase(it);
      }
      break;
    }
    if (!found) return false;
  }
  if (emptied) {
    line.remove(emptied->entry);
    emptied->sender->close();  // what waits for an answer from that host is over
  }
  return true;
}

bool ZRAudioRemoteSubscribers::has(const std::string& module) const {
  std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& [key, host] : hosts_) {
    std::lock_guard<std::mutex> members(host->mutex);
    if (std::find(host->members.begin(), host->members.end(), module) != host->members.end())
      return true;
  }
  return false;
}

std::vector<std::string> ZRAudioRemoteSubscribers::modules() const {
  std::vector<std::string> all;
  std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& [key, host] : hosts_) {
    std::lock_guard<std::mutex> members(host->mutex);
    all.insert(all.end(), host->members.begin(), host->members.end());
  }
  return all;
}

std::string ZRAudioRemoteSubscribers::entryOf(const std::string& module) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = lastEntry_.find(module);
  return it == lastEntry_.end() ? std::string() : it->second;
}

}  // namespace ZR
