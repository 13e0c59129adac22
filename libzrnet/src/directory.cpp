#include <zrnet/zrdirectory.h>

#include <algorithm>
#include <random>
#include <sstream>

#include <vo/log.h>
#include <zrerror/zrerrortexts.h>

namespace ZR {

namespace {

using Clock = std::chrono::steady_clock;

#define ZRDIR_LOG(level) vo::log::LogStream(level, __FILE__, __func__, "zrnet", __LINE__)

std::string randomId() {
  std::random_device device;
  std::mt19937_64 generator((static_cast<std::uint64_t>(device()) << 32) ^ device() ^
                            Clock::now().time_since_epoch().count());
  std::ostringstream out;
  out << std::hex << generator();
  return out.str();
}

ZRValue entryValue(bool added, const ZRDirectoryEntry& e) {
  ZRValue v;
  v.arrayPush(added);
  v.arrayPush(e.name);
  v.arrayPush(e.host);
  v.arrayPush(e.endpoint);
  v.arrayPush(e.info.kind);
  v.arrayPush(ZRValue(e.info.methods));
  v.arrayPush(ZRValue(e.info.events));
  v.arrayPush(e.key);
  return v;
}

bool isStringList(const ZRValue& v) {
  if (!v.isArray()) return false;
  for (const ZRValue& e : v.arrayElements())
    if (!e.isString()) return false;
  return true;
}

// The arguments of a directory call, checked: strings, then ints.
void expectArgs(const ZRIncomingCall& c, std::size_t strings, std::size_t ints) {
  bool ok = c.args.size() == strings + ints;
  for (std::size_t i = 0; ok && i < c.args.size(); ++i)
    ok = i < strings ? c.args[i].isString() : c.args[i].isInt();
  if (!ok)
    throw ZRError(ZRDirectoryServer::kModuleName, c.method,
                  "expects " + std::to_string(strings) + " strings and " + std::to_string(ints) +
                      " integers");
}

}  // namespace

bool readDirectoryChange(const ZRValue& c, ZRDirectoryEntry& e, bool& added) {
  if (!c.isArray() || c.getSize() < 4 || !c[0].isBool() || !c[1].isString() || !c[2].isString() ||
      !c[3].isString())
    return false;
  added = c[0].toBool();
  e = ZRDirectoryEntry{c[1], c[2], c[3], {}, {}};
  // What the module is comes from hosts that say so; older clients list only where it is.
  if (c.getSize() >= 7 && c[4].isString() && isStringList(c[5]) && isStringList(c[6]))
    e.info = {c[4], c[5].toStringVector(), c[6].toStringVector()};
  if (c.getSize() >= 8 && c[7].isString()) e.key = c[7].toStringRef();
  return true;
}

const char* const ZRDirectoryServer::kModuleName = "ZRDirectory";
const char* const ZRDirectoryServer::kHeldBy = "already published by host ";

ZRDirectoryServer::ZRDirectoryServer(std::chrono::milliseconds heartbeat)
    : heartbeat_(heartbeat), epoch_(randomId()) {}

void ZRDirectoryServer::record(bool added, const std::string& name, const Holder& h) {
  changes_.push_back(Change{++seq_, added, h.entry(name)});
  if (changes_.size() > 10000) changes_.pop_front();  // older clients get a snapshot
}

void ZRDirectoryServer::expireLeases() {
  const auto now = Clock::now();
  for (auto lease = leases_.begin(); lease != leases_.end();) {
    if (now - lease->second <= 3 * heartbeat_) {
      ++lease;
      continue;
    }
    for (auto it = names_.begin(); it != names_.end();) {
      if (it->second.hostId != lease->first) {
        ++it;
        continue;
      }
      ZRDIR_LOG(vo::LogLevel_Info)
          << "\"" << it->first << "\" leaves with host " << it->second.host << " (lease expired)";
      record(false, it->first, it->second);
      it = names_.erase(it);
    }
    lease = leases_.erase(lease);
  }
}

ZRValue ZRDirectoryServer::handle(const ZRIncomingCall& c) {
  std::lock_guard<std::mutex> lock(mutex_);
  expireLeases();
  if (c.method == "publish" || c.method == "unpublish") return publish(c);
  if (c.method == "sync") {
    // hostId, epoch, then the last sequence number the client has
    expectArgs(c, 2, 1);
    leases_[c.args[0].toStringRef()] = Clock::now();
    const int from = c.args[2].toInt();
    const bool snapshot = c.args[1].toStringRef() != epoch_ || from > seq_ ||
                          (from < seq_ && (changes_.empty() || changes_.front().seq > from + 1));
    ZRValue list;
    list.arraySetSize(0);
    if (snapshot) {
      for (const auto& [name, h] : names_) list.arrayPush(entryValue(true, h.entry(name)));
    } else {
      for (const Change& ch : changes_)
        if (ch.seq > from) list.arrayPush(entryValue(ch.added, ch.entry));
    }
    ZRValue reply;
    reply.arrayPush(epoch_);
    reply.arrayPush(seq_);
    reply.arrayPush(snapshot);
    reply.arrayPush(list);
    return reply;
  }
  throw ZRError(kModuleName, c.method, "unknown method");
}

// Under the lock: publish or unpublish, with the name's holder and what it says of the module.
ZRValue ZRDirectoryServer::publish(const ZRIncomingCall& c) {
  // hostId, host, endpoint, name; then, optionally, kind and the lists of methods and events
  const bool withInfo = c.method == "publish" && c.args.size() == 7;
  if (withInfo) {
    if (!c.args[4].isString() || !isStringList(c.args[5]) || !isStringList(c.args[6]))
      throw ZRError(kModuleName, c.method,
                    "expects 5 strings, then the module's methods and events as lists of strings");
  } else {
    expectArgs(c, 4, 0);
  }
  // Who asks: the connection's CURVE key when it has one (a host cannot claim another's), else
  // the host id it registered with (known only to that host).
  Holder h{c.args[0].toStringRef(),
           c.args[1].toStringRef(),
           c.args[2].toStringRef(),
           {},
           c.peerKey.empty() ? "host " + c.args[0].toStringRef() : "key " + c.peerKey};
  if (withInfo)
    h.info = {c.args[4].toStringRef(), c.args[5].toStringVector(), c.args[6].toStringVector()};
  const std::string& name = c.args[3].toStringRef();
  leases_[h.hostId] = Clock::now();
  auto it = names_.find(name);
  if (it != names_.end() && it->second.identity != h.identity) {
    const Holder& holder = it->second;
    ZRDIR_LOG(vo::LogLevel_Warning)
        << "refused to let host " << h.host << " (" << h.endpoint
        << (c.peerKey.empty() ? "" : ", key ") << c.peerKey << ") " << c.method << " \"" << name
        << "\": it belongs to host " << holder.host << " (" << holder.endpoint << ")";
    throw ZRError(name, c.method, kHeldBy + holder.host + " (" + holder.endpoint + ")");
  }
  if (c.method == "unpublish") {
    if (it == names_.end()) return ZRValue(false);
    record(false, name, it->second);
    names_.erase(it);
    return ZRValue(true);
  }
  if (it != names_.end() && it->second.hostId != h.hostId) {
    // The same identity under a new host id: the holder restarted, and has its name back now.
    record(false, name, it->second);
    names_.erase(it);
    it = names_.end();
  }
  if (it != names_.end()) {
    // A publish that says nothing of the module (an older client's) leaves what was said.
    if (!withInfo || it->second.info == h.info) return ZRValue(true);
    it->second.info = h.info;  // the holder tells more about its module: everyone learns it
    record(true, name, h);
    return ZRValue(true);
  }
  names_[name] = h;
  record(true, name, h);
  return ZRValue(true);
}

// ---- client

ZRDirectoryClient::ZRDirectoryClient(ZRTransport& transport, std::string directoryEndpoint,
                                     std::string hostName, std::chrono::milliseconds heartbeat)
    : transport_(transport),
      directory_(std::move(directoryEndpoint)),
      host_(std::move(hostName)),
      hostId_(host_ + "-" + randomId()),
      heartbeat_(heartbeat) {
  thread_ = std::thread([this] { run(); });
}

ZRDirectoryClient::~ZRDirectoryClient() {
  stop();
}

void ZRDirectoryClient::stop() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  if (thread_.joinable() && thread_.get_id() != std::this_thread::get_id()) thread_.join();
}

ZRValue ZRDirectoryClient::callDirectory(const std::string& method, std::vector<ZRValue> args,
                                         std::chrono::milliseconds deadline) {
  ZRCallOptions o;
  o.deadline = deadline.count() > 0 ? deadline : 4 * heartbeat_;
  o.caller = host_;
  return transport_.call(directory_, ZRDirectoryServer::kModuleName, method, std::move(args), o);
}

// A sync that misses its turn is retried at the next heartbeat; a registration has no next turn,
// so a loaded directory gets longer to answer it.
std::chrono::milliseconds ZRDirectoryClient::registrationTime() const {
  return std::max<std::chrono::milliseconds>(4 * heartbeat_, std::chrono::seconds(5));
}

std::vector<ZRValue> ZRDirectoryClient::publishArgs(const std::string& name,
                                                    const ZRModuleInfo& info) const {
  return {hostId_,
          host_,
          transport_.endpoint(),
          name,
          info.kind,
          ZRValue(info.methods),
          ZRValue(info.events)};
}

void ZRDirectoryClient::publish(const std::string& name, const ZRModuleInfo& info) {
  // A connection that dies before its first answer ("module destroyed") is only a directory
  // slow to take a new host (a loaded machine, a directory starting): asked again until the
  // time is up. A refusal ends it at once.
  const auto until = Clock::now() + registrationTime();
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - Clock::now());
    try {
      callDirectory("publish", publishArgs(name, info),
                    std::max(left, std::chrono::milliseconds(1)));
      break;
    } catch (const ZRError& e) {
      // Held by the host that listened at our own address before us: that process is gone, and
      // its lease runs out within 3 heartbeats (under CURVE, our key gets the name at once).
      const std::string& d = e.getDescription();
      const std::string atOurs = "(" + transport_.endpoint() + ")";
      const bool ours = d.rfind(ZRDirectoryServer::kHeldBy, 0) == 0 && d.size() > atOurs.size() &&
                        d.compare(d.size() - atOurs.size(), atOurs.size(), atOurs) == 0;
      if ((d != kModuleDestroyed && !ours) || Clock::now() >= until) throw;
      if (ours) std::this_thread::sleep_for(heartbeat_ / 2);
    }
  }
  std::lock_guard<std::mutex> lock(mutex_);
  published_[name] = info;
}

void ZRDirectoryClient::unpublish(const std::string& name) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    published_.erase(name);
  }
  callDirectory("unpublish", {hostId_, host_, transport_.endpoint(), name}, registrationTime());
}

std::optional<ZRDirectoryEntry> ZRDirectoryClient::find(const std::string& name) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = entries_.find(name);
  if (it == entries_.end()) return std::nullopt;
  return it->second;
}

std::vector<ZRDirectoryEntry> ZRDirectoryClient::entries() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<ZRDirectoryEntry> out;
  for (const auto& [name, e] : entries_) out.push_back(e);
  return out;
}

void ZRDirectoryClient::setListener(Listener listener) {
  std::lock_guard<std::mutex> lock(listenerMutex_);
  listener_ = std::move(listener);
}

void ZRDirectoryClient::forget(const std::string& endpoint) {
  std::lock_guard<std::mutex> lock(mutex_);
  for (auto it = entries_.begin(); it != entries_.end();)
    it = it->second.endpoint == endpoint ? entries_.erase(it) : std::next(it);
}

void ZRDirectoryClient::syncSoon() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    soon_ = true;
  }
  wake_.notify_all();
}

void ZRDirectoryClient::run() {
  std::unique_lock<std::mutex> lock(mutex_);
  while (!stopping_) {
    lock.unlock();
    sync();
    lock.lock();
    wake_.wait_for(lock, heartbeat_, [this] { return stopping_ || soon_; });
    soon_ = false;
  }
}

void ZRDirectoryClient::apply(const ZRDirectoryEntry& entry, bool added) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = entries_.find(entry.name);
    if (added) {
      if (it != entries_.end() && it->second.host == entry.host &&
          it->second.endpoint == entry.endpoint && it->second.info == entry.info &&
          it->second.key == entry.key)
        return;  // a snapshot repeating what we know
      entries_[entry.name] = entry;
    } else {
      if (it == entries_.end()) return;
      entries_.erase(it);
    }
  }
  std::lock_guard<std::mutex> lock(listenerMutex_);
  if (listener_) listener_(entry, added);
}

void ZRDirectoryClient::sync() {
  std::string epoch;
  int seq;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    epoch = epoch_;
    seq = seq_;
  }
  ZRValue reply;
  try {
    reply = callDirectory("sync", {hostId_, epoch, seq});
    if (!reply.isArray() || reply.getSize() != 4 || !reply[0].isString() || !reply[1].isInt() ||
        !reply[2].isBool() || !reply[3].isArray())
      throw ZRError(ZRDirectoryServer::kModuleName, "sync", "malformed answer");
  } catch (const ZRError& e) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (reachable_)
      ZRDIR_LOG(vo::LogLevel_Warning) << "directory " << directory_ << " unreachable: " << e.what();
    reachable_ = false;
    return;
  }
  const std::string newEpoch = reply[0];
  const bool restarted = !epoch.empty() && newEpoch != epoch;
  std::map<std::string, ZRModuleInfo> mine;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!reachable_ || restarted)
      ZRDIR_LOG(vo::LogLevel_Info) << "directory " << directory_ << " reached";
    reachable_ = true;
    epoch_ = newEpoch;
    seq_ = reply[1];
    mine = published_;
  }
  std::vector<std::pair<ZRDirectoryEntry, bool>> changes;
  for (const ZRValue& c : reply[3].arrayElements()) {
    ZRDirectoryEntry e;
    bool added = false;
    if (readDirectoryChange(c, e, added)) changes.push_back({std::move(e), added});
  }
  if (reply[2].toBool()) {  // a snapshot: whatever it lacks is gone
    std::set<std::string> present;
    for (const auto& [e, added] : changes) present.insert(e.name);
    for (const ZRDirectoryEntry& e : entries())
      if (!present.count(e.name)) apply(e, false);
  }
  for (const auto& [e, added] : changes) apply(e, added);
  // Names of ours the directory no longer has: it restarted, or our lease ran out while this host
  // was only slow (a loaded machine). Published again; the next sync brings them back.
  for (const auto& [name, info] : mine) {
    if (find(name)) continue;
    if (!restarted)
      ZRDIR_LOG(vo::LogLevel_Info)
          << "\"" << name << "\" dropped by the directory, published again";
    try {
      callDirectory("publish", publishArgs(name, info), registrationTime());
    } catch (const ZRError& e) {
      ZRDIR_LOG(vo::LogLevel_Error) << "cannot publish \"" << name << "\" again: " << e.what();
    }
  }
}

}  // namespace ZR
