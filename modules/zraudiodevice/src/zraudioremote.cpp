#include "zraudioremote.h"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <functional>
#include <thread>

#include <zrcommon/zrbroker.h>

#include "zraudiodevicecore.h"

namespace ZR {

namespace {

const char kEntryMark = '\x01';
// Buffers a host may hold unanswered: enough to keep the wire busy for a file, few for a live
// source, whose subscribers want the newest sound.
const int kFileWindow = 8;
const int kLiveWindow = 3;
// Buffers one message may carry when more wait behind them (a file racing ahead): the cost of a
// message, not of a buffer, is what limits a stream between processes.
const std::size_t kMostPerMessage = 8;

// One thread running posted work in order. A send waiting for credits blocks this thread, never
// one of the broker's pool, which the receiving host may need to call back (e.g. the memory
// service) before it grants them.
class SerialThread {
 public:
  SerialThread() : state_(std::make_shared<State>()) {
    std::shared_ptr<State> s = state_;
    thread_ = std::thread([s] { s->run(); });
  }
  ~SerialThread() {
    {
      std::lock_guard<std::mutex> lock(state_->mutex);
      state_->stop = true;
    }
    state_->changed.notify_all();
    // The last task may drop the last reference; the thread then ends on its own.
    if (thread_.get_id() == std::this_thread::get_id())
      thread_.detach();
    else
      thread_.join();
  }
  void post(std::function<void()> work) {
    {
      std::lock_guard<std::mutex> lock(state_->mutex);
      if (state_->stop) throw ZRError("ZRAudioDevice", "post", "the stream to this host is closed");
      state_->work.push_back(std::move(work));
    }
    state_->changed.notify_one();
  }

 private:
  struct State {
    std::mutex mutex;
    std::condition_variable changed;
    std::deque<std::function<void()>> work;
    bool stop = false;
    void run() {
      std::unique_lock<std::mutex> lock(mutex);
      for (;;) {
        changed.wait(lock, [&] { return stop || !work.empty(); });
        if (stop) return;
        std::function<void()> next = std::move(work.front());
        work.pop_front();
        lock.unlock();
        next();
        next = nullptr;
        lock.lock();
      }
    }
  };
  std::shared_ptr<State> state_;
  std::thread thread_;
};

}  // namespace

struct ZRAudioRemoteSubscribers::Host {
  std::string entry;
  std::shared_ptr<detail::ZRStreamSender> sender;
  std::shared_ptr<SerialThread> thread = std::make_shared<SerialThread>();
  std::mutex mutex;
  std::vector<std::string> members;  // under `mutex`
  std::vector<ZRValue> pending;      // calls not sent yet; only the line's task touches them

  std::vector<std::string> snapshot() {
    std::lock_guard<std::mutex> lock(mutex);
    return members;
  }
};

ZRAudioRemoteSubscribers::ZRAudioRemoteSubscribers(std::string deviceName, bool live)
    : deviceName_(std::move(deviceName)), live_(live) {}

ZRAudioRemoteSubscribers::~ZRAudioRemoteSubscribers() {
  close();
}

void ZRAudioRemoteSubscribers::close() {
  std::lock_guard<std::mutex> lock(mutex_);
  for (auto& [endpoint, host] : hosts_) host->sender->close();
}

bool ZRAudioRemoteSubscribers::isEntry(const std::string& lineName) {
  return !lineName.empty() && lineName[0] == kEntryMark;
}

bool ZRAudioRemoteSubscribers::add(const std::shared_ptr<ZRAudioLine>& line, ZRBroker& broker,
                                   const std::string& module, const std::string& endpoint) {
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
    host->sender =
        detail::openStream(broker, endpoint, deviceName_, live_ ? kLiveWindow : kFileWindow);
    if (!host->sender)
      throw ZRError(deviceName_, "subscribe",
                    "\"" + module + "\" lives on another host, but this broker is in no network");
    std::weak_ptr<SerialThread> thread = host->thread;
    std::weak_ptr<Host> weakHost = host;
    std::weak_ptr<ZRAudioLine> weakLine = line;
    line->add(
        host->entry,
        [thread](std::function<void()> work) {
          auto t = thread.lock();
          if (!t) throw ZRError("ZRAudioDevice", "post", "the stream to this host is closed");
          t->post(std::move(work));
        },
        [weakHost, weakLine](ZRAudioItem& item) {
          std::shared_ptr<Host> h = weakHost.lock();
          if (!h) return;
          ZRValue call;
          call.arraySetSize(4);
          call[0] = item.channels;
          call[1] = item.samplesPerChannel;
          call[2] = item.timestamp;
          call[3] = item.buffer;
          h->pending.push_back(std::move(call));
          // A buffer with none waiting behind it goes at once (a live source's latency).
          std::shared_ptr<ZRAudioLine> l = weakLine.lock();
          if (h->pending.size() < kMostPerMessage && l && l->queued(h->entry) > 0) return;
          std::vector<ZRValue> calls;
          calls.swap(h->pending);
          std::vector<std::string> members = h->snapshot();
          if (!members.empty()) h->sender->send(members, "processRemote", std::move(calls));
        },
        // The stream leaves the line with its host; its subscribers stay listed until they are
        // unsubscribed (the broker reaps them), which stops the source with the last one.
        [weakHost] {
          std::shared_ptr<Host> h = weakHost.lock();
          return !h || h->sender->isLost();
        });
    it = hosts_.emplace(key, std::move(host)).first;
  }
  Host& host = *it->second;
  lastEntry_[module] = host.entry;
  std::lock_guard<std::mutex> members(host.mutex);
  if (std::find(host.members.begin(), host.members.end(), module) != host.members.end())
    return false;
  host.members.push_back(module);
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
    emptied->sender->close();  // a send waiting for credits gives up
    line.remove(emptied->entry, true);
  }
  return true;
}

bool ZRAudioRemoteSubscribers::has(const std::string& module) const {
  std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& [endpoint, host] : hosts_) {
    std::lock_guard<std::mutex> members(host->mutex);
    if (std::find(host->members.begin(), host->members.end(), module) != host->members.end())
      return true;
  }
  return false;
}

std::vector<std::string> ZRAudioRemoteSubscribers::modules() const {
  std::vector<std::string> all;
  std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& [endpoint, host] : hosts_) {
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

void ZRAudioRemoteSubscribers::waitUntilDrained(const std::atomic<bool>* stop) {
  std::vector<std::shared_ptr<Host>> hosts;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& [endpoint, host] : hosts_) hosts.push_back(host);
  }
  for (const auto& host : hosts) host->sender->waitUntilDrained(stop);
}

void ZRAudioRemoteSubscribers::wake() {
  std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& [endpoint, host] : hosts_) host->sender->wake();
}

}  // namespace ZR
