#include "remote.h"

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <thread>

#include <zrerror/zrerrortexts.h>
#include <zrmcap/zrbase64.h>
#include <nlohmann/json.hpp>

namespace zr {

namespace {

bool isZ85Key(const std::string& s) {
  static const std::regex key("[0-9a-zA-Z.\\-:+=^!/*?&<>()\\[\\]{}@%$#]{40}");
  return std::regex_match(s, key);
}

std::vector<std::string> keyLines(const std::string& path) {
  std::ifstream in(path);
  if (!in) throw std::runtime_error("cannot read key file " + path);
  std::vector<std::string> keys;
  for (std::string line; std::getline(in, line);) {
    line.erase(line.find_last_not_of(" \t\r") + 1);
    line.erase(0, line.find_first_not_of(" \t"));
    if (line.empty() || line[0] == '#') continue;
    if (!isZ85Key(line))
      throw std::runtime_error(path + " holds a line that is no Z85 key (40 characters): " + line);
    keys.push_back(line);
  }
  return keys;
}

// Whether anything accepts a connection at a tcp:// or ipc:// address: a directory that did not
// answer, although its port is open, refused this client's keys (or lacks them) rather than
// not running at all.
bool somethingListens(const std::string& address) {
  int fd = -1;
  if (address.rfind("ipc://", 0) == 0) {
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    const std::string path = address.substr(6);
    if (path.size() >= sizeof a.sun_path) return false;
    path.copy(a.sun_path, path.size());
    fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool ok = fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
    if (fd >= 0) close(fd);
    return ok;
  }
  const std::size_t colon = address.rfind(':');
  if (address.rfind("tcp://", 0) != 0 || colon == std::string::npos || colon < 6) return false;
  std::string host = address.substr(6, colon - 6);
  if (host.size() > 1 && host.front() == '[') host = host.substr(1, host.size() - 2);
  addrinfo hints{}, *found = nullptr;
  hints.ai_socktype = SOCK_STREAM;
  if (getaddrinfo(host == "*" ? "127.0.0.1" : host.c_str(), address.substr(colon + 1).c_str(),
                  &hints, &found) != 0)
    return false;
  bool ok = false;
  for (addrinfo* a = found; a && !ok; a = a->ai_next) {
    fd = socket(a->ai_family, a->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, a->ai_protocol);
    if (fd < 0) continue;
    if (connect(fd, a->ai_addr, a->ai_addrlen) == 0) {
      ok = true;
    } else if (errno == EINPROGRESS) {
      pollfd p{fd, POLLOUT, 0};
      int error = 0;
      socklen_t size = sizeof error;
      ok = poll(&p, 1, 1000) == 1 && getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) == 0 &&
           error == 0;
    }
    close(fd);
  }
  freeaddrinfo(found);
  return ok;
}

ZR::ZRValue fromJson(const nlohmann::json& j) {
  switch (j.type()) {
    case nlohmann::json::value_t::boolean:
      return ZR::ZRValue(j.get<bool>());
    case nlohmann::json::value_t::number_integer:
    case nlohmann::json::value_t::number_unsigned: {
      const long long v = j.get<long long>();
      if (v < INT32_MIN || v > INT32_MAX) return ZR::ZRValue(static_cast<float>(v));
      return ZR::ZRValue(static_cast<int>(v));
    }
    case nlohmann::json::value_t::number_float:
      return ZR::ZRValue(j.get<float>());
    case nlohmann::json::value_t::string:
      return ZR::ZRValue(j.get<std::string>());
    case nlohmann::json::value_t::array: {
      ZR::ZRValue a;
      a.arraySetSize(0);
      for (const auto& e : j) a.arrayPush(fromJson(e));
      return a;
    }
    default:
      return ZR::ZRValue();
  }
}

char typeCode(const std::string& type) {
  if (type == "bool") return 'b';
  if (type == "int") return 'i';
  if (type == "float") return 'f';
  if (type == "string") return 's';
  if (type == "list of strings") return 'l';
  return 'm';
}

// 2: the argument fits as it is; 1: after an int/float conversion; 0: not at all.
int fit(char code, const ZR::ZRValue& v) {
  if (code == 'm') return 2;
  if ((code == 'b' && v.isBool()) || (code == 'i' && v.isInt()) || (code == 'f' && v.isFloat()) ||
      (code == 's' && v.isString()))
    return 2;
  if (code == 'l' && v.isArray()) {
    for (const ZR::ZRValue& e : v.arrayElements())
      if (!e.isString()) return 0;
    return 2;
  }
  if (code == 'f' && v.isInt()) return 1;
  if (code == 'i' && v.isFloat()) {
    const float f = v.toFloat();
    return std::isfinite(f) && std::trunc(f) == f && std::fabs(f) < 2147483648.0f ? 1 : 0;
  }
  return 0;
}

}  // namespace

KeyPair readKeyPair(const std::string& path) {
  // A secret anyone else on the machine can read is no secret: refused, as ssh refuses it.
  struct stat st {};
  if (::stat(path.c_str(), &st) == 0 && (st.st_mode & 077) != 0) {
    char mode[8];
    std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(st.st_mode & 07777));
    throw std::runtime_error("the secret key file " + path + " is readable by others (mode " +
                             mode + "); make it private with: chmod 600 " + path);
  }
  const std::vector<std::string> keys = keyLines(path);
  if (keys.size() != 2)
    throw std::runtime_error(path +
                             " is no key pair: it holds the public then the secret key, as zr "
                             "keygen writes NAME.key");
  return {keys[0], keys[1]};
}

std::vector<std::string> readPublicKeys(const std::string& path) {
  return keyLines(path);
}

void DirectoryOptions::define(CLI::App* cmd) {
  directoryOption = cmd->add_option(
      "--directory", directory,
      std::string("Directory address (default: ZR_DIRECTORY, else ") + kDefaultDirectory + ").");
  cmd->add_option("--curve-keys", curveKeys, "This program's key pair (NAME.key of zr keygen).");
  cmd->add_option("--server-key", serverKey,
                  "Public key of the directory and hosts (NAME.pub), when they require CURVE.");
  defineHeartbeat(cmd, heartbeatMs);
}

void defineHeartbeat(CLI::App* cmd, int& ms) {
  cmd->add_option("--heartbeat", ms,
                  "Heartbeat interval in ms (default 250); a peer silent for three is dead.")
      ->check(CLI::Range(10, 60000))
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);  // the last one given counts
}

bool DirectoryOptions::explicitlyGiven() const {
  const char* env = std::getenv("ZR_DIRECTORY");
  return (directoryOption && directoryOption->count() > 0) || (env && *env);
}

std::string DirectoryOptions::address() const {
  const char* env = std::getenv("ZR_DIRECTORY");
  if (directoryOption && directoryOption->count() > 0)
    return checkedAddress(directory, "--directory");
  return env && *env ? checkedAddress(env, "ZR_DIRECTORY") : kDefaultDirectory;
}

std::string checkedAddress(const std::string& address, const std::string& source) {
  // tcp://HOST:PORT (a name, an IPv4 address, an interface, * or [IPv6]), ipc://PATH, inproc://NAME
  static const std::regex valid(
      "tcp://([A-Za-z0-9_.-]+|\\*|\\[[0-9A-Fa-f:.]+\\]):([0-9]{1,5}|\\*)|(ipc|inproc)://.+");
  std::smatch m;
  if (std::regex_match(address, m, valid) &&
      (!m[2].matched || m[2] == "*" || std::stoi(m[2]) <= 65535))
    return address;
  throw CLI::ValidationError(source, "the address \"" + address +
                                         "\" is malformed: give tcp://HOST:PORT (for example " +
                                         kDefaultDirectory + ") or ipc://PATH");
}

void DirectoryOptions::apply(ZR::ZRBrokerOptions& o) const {
  o.directory = address();
  if (heartbeatMs > 0) o.heartbeat = std::chrono::milliseconds(heartbeatMs);
  if (!curveKeys.empty()) {
    const KeyPair k = readKeyPair(curveKeys);
    o.curvePublicKey = k.publicKey;
    o.curveSecretKey = k.secretKey;
  }
  if (!serverKey.empty()) {
    const std::vector<std::string> keys = readPublicKeys(serverKey);
    if (keys.size() != 1) throw std::runtime_error(serverKey + " must hold one public key");
    o.directoryPublicKey = keys[0];
  }
  if (o.directoryPublicKey.empty() != o.curveSecretKey.empty())
    throw CLI::ValidationError("--curve-keys", "--curve-keys and --server-key go together");
}

namespace {
ZR::ZRBrokerOptions applied(const DirectoryOptions& options) {
  ZR::ZRBrokerOptions o;
  options.apply(o);
  return o;
}
}  // namespace

DirectoryView::DirectoryView(const DirectoryOptions& options) : DirectoryView(applied(options)) {}

DirectoryView::DirectoryView(const ZR::ZRBrokerOptions& o) : address_(o.directory) {
  ZR::ZRTransportOptions t;
  t.hostName = "zr-" + std::to_string(getpid());
  t.listen.clear();  // calls out only
  // A module of a host killed a moment ago, still listed: the tool says so within 3 heartbeats.
  t.heartbeat = o.heartbeat;
  t.connectTime = std::chrono::milliseconds(0);
  t.curvePublicKey = o.curvePublicKey;
  t.curveSecretKey = o.curveSecretKey;
  serverKey_ = o.directoryPublicKey;
  withKeys_ = !serverKey_.empty() || !o.curveSecretKey.empty();
  // Nothing comes in: there is no listener, and no peer-lost listener.
  ZR::ZRTransportExecutors nothing;
  nothing.post = [](std::function<void()>) {};
  nothing.makeSerial = [] {
    return ZR::ZRTransportExecutors::Executor([](std::function<void()>) {});
  };
  transport_ = std::make_unique<ZR::ZRTransport>(
      t, ZR::ZRTransport::SyncHandler([](const ZR::ZRIncomingCall&) { return ZR::ZRValue(); }),
      nothing);
  if (!serverKey_.empty()) transport_->setServerKey(address_, serverKey_);
  refresh();
}

DirectoryView::~DirectoryView() = default;

void DirectoryView::refresh() {
  ZR::ZRCallOptions o;
  o.deadline = std::chrono::milliseconds(kDirectoryWaitMs);
  o.caller = "zr";
  ZR::ZRValue reply;
  try {
    // A sync from sequence 0 of no known epoch: the directory answers with everything it has.
    reply = transport_->call(
        address_, ZR::ZRDirectoryServer::kModuleName, "sync",
        {ZR::ZRValue("zr-" + std::to_string(getpid())), ZR::ZRValue(""), ZR::ZRValue(0)}, o);
  } catch (const ZR::ZRError& e) {
    if (!isTransportFailure(e)) throw;
    if (!somethingListens(address_))
      throw NoDirectory("no directory answers at " + address_ +
                        " (start one with zr host, or give --directory or ZR_DIRECTORY)");
    if (withKeys_)
      throw NoDirectory("the directory at " + address_ +
                        " refused this client or did not complete the secure handshake: check "
                        "that --server-key is the public key of its hosts and that the public "
                        "key of this client's --curve-keys pair is on their --allow list");
    throw NoDirectory("something listens at " + address_ +
                      " but does not answer as a directory: if its hosts use keys, give "
                      "--curve-keys (a pair whose public key is on their --allow list) and "
                      "--server-key");
  }
  entries_.clear();
  if (reply.isArray() && reply.getSize() == 4 && reply[3].isArray())
    for (const ZR::ZRValue& c : reply[3].arrayElements()) {
      ZR::ZRDirectoryEntry e;
      bool added = false;
      if (ZR::readDirectoryChange(c, e, added) && added) entries_.push_back(std::move(e));
    }
  std::sort(entries_.begin(), entries_.end(),
            [](const auto& a, const auto& b) { return a.name < b.name; });
  if (!serverKey_.empty())
    for (const auto& e : entries_) transport_->setServerKey(e.endpoint, serverKey_);
}

ZR::ZRModuleInfo DirectoryView::info(const ZR::ZRDirectoryEntry& e) {
  if (!e.info.kind.empty()) return e.info;
  ZR::ZRModuleInfo asked;
  for (const ZR::ZRValue& m : call(e.name, "getMethodList").arrayElements())
    if (m.isString()) asked.methods.push_back(m.toStringRef());
  asked.kind = ZR::moduleKind(e.name, asked.methods);
  return asked;
}

std::optional<ZR::ZRDirectoryEntry> DirectoryView::find(const std::string& name) const {
  for (const auto& e : entries_)
    if (e.name == name) return e;
  return std::nullopt;
}

ZR::ZRValue DirectoryView::call(const std::string& module, const std::string& method,
                                std::vector<ZR::ZRValue> args, std::chrono::milliseconds deadline) {
  const auto where = find(module);
  if (!where)
    throw ZR::ZRError(module, method,
                      "no module called \"" + module + "\" is published at " + address_);
  ZR::ZRCallOptions o;
  o.caller = "zr";
  o.deadline = deadline;
  return transport_->call(where->endpoint, module, method, std::move(args), o);
}

void requireDirectory(const DirectoryOptions& options) {
  DirectoryView view(options);
}

void requireDirectory(const ZR::ZRBrokerOptions& o) {
  DirectoryView view(o);
}

void ListenOptions::define(CLI::App* cmd) {
  cmd->add_option("--listen", listen,
                  "Where events reach this program (default: loopback, any port).");
  cmd->add_option("--advertise", advertise, "What the memory's host connects to (NAT).");
}

CLI::Option* ListenOptions::given(CLI::App* cmd) const {
  for (const char* name : {"--listen", "--advertise"})
    if (cmd->get_option(name)->count() > 0) return cmd->get_option(name);
  return nullptr;
}

boost::shared_ptr<ZR::ZRBroker> joinNetwork(const DirectoryOptions& options,
                                            const std::string& name, const ListenOptions& listen,
                                            const std::vector<std::string>& needed) {
  requireDirectory(options);
  ZR::ZRBrokerOptions o;
  options.apply(o);
  o.listen = listen.listen;
  o.advertise = listen.advertise;
  if (!o.curveSecretKey.empty()) o.allowedClientKeys = {o.directoryPublicKey, o.curvePublicKey};
  auto broker = ZR::ZRBroker::createBroker(name, o);
  for (const std::string& n : needed) {
    if (broker->session()->waitForService(n).async().wait(kDirectoryWaitMs) ==
        vo::FutureState::FinishedWithValue)
      continue;
    broker->shutdown();
    throw ZR::ZRError(n, "getProxy",
                      "no module called \"" + n + "\" is published at " + options.address());
  }
  return broker;
}

void subscribeNewModule(ZR::ZRMemoryProxy& memory, const std::string& event,
                        const std::string& module, const std::string& callback) {
  const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(kDirectoryWaitMs);
  for (;;) {
    try {
      memory.subscribeToEvent(event, module, callback);
      return;
    } catch (const ZR::ZRError& e) {
      if (e.getDescription().find("\"" + module + "\"") == std::string::npos ||
          std::chrono::steady_clock::now() >= until)
        throw;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

std::vector<MethodInfo> parseMethodHelp(const std::string& help) {
  // "name(int, float) -> void", then "  description", "  param (type): doc", "  returns r: doc".
  static const std::regex head("([^( ]+)\\(([^)]*)\\) -> (.+)");
  static const std::regex param("  ([^ ]+) \\(([^)]+)\\): ?(.*)");
  static const std::regex ret("  returns ([^:]*): ?(.*)");
  std::vector<MethodInfo> out;
  std::istringstream in(help);
  std::smatch m;
  for (std::string line; std::getline(in, line);) {
    if (std::regex_match(line, m, head)) {
      MethodInfo info;
      info.name = m[1];
      info.signature = line;
      info.returnType = m[3];
      out.push_back(info);
    } else if (out.empty() || line.empty()) {
      continue;
    } else if (out.back().parameters.empty() && out.back().returnName.empty() &&
               out.back().description.empty() && !std::regex_match(line, m, param) &&
               !std::regex_match(line, m, ret)) {
      out.back().description = line.substr(line.find_first_not_of(' '));
    } else if (std::regex_match(line, m, ret)) {
      out.back().returnName = m[1];
      out.back().returnDocumentation = m[2];
    } else if (std::regex_match(line, m, param)) {
      out.back().parameters.push_back({m[1], m[2], m[3]});
    }
  }
  // Parameters without documentation appear only in the signature.
  for (MethodInfo& info : out) {
    std::regex_match(info.signature, m, head);
    std::vector<std::string> types;
    std::string list = m[2];
    for (std::size_t at = 0; !list.empty() && at != std::string::npos;) {
      const std::size_t comma = list.find(", ", at);
      types.push_back(list.substr(at, comma == std::string::npos ? comma : comma - at));
      at = comma == std::string::npos ? comma : comma + 2;
    }
    for (std::size_t i = info.parameters.size(); i < types.size(); ++i)
      info.parameters.push_back({"", types[i], ""});
  }
  return out;
}

ZR::ZRValue parseArgument(const std::string& text) {
  const nlohmann::json j = nlohmann::json::parse(text, nullptr, false);
  if (j.is_discarded() || j.is_object()) return ZR::ZRValue(text);
  return fromJson(j);
}

void fitArguments(const std::vector<MethodInfo>& overloads, std::vector<ZR::ZRValue>& args) {
  const MethodInfo* only = nullptr;
  int matches = 0;
  for (const MethodInfo& o : overloads) {
    if (o.parameters.size() != args.size()) continue;
    bool ok = true;
    for (std::size_t i = 0; ok && i < args.size(); ++i)
      ok = fit(typeCode(o.parameters[i].type), args[i]) > 0;
    if (ok) {
      ++matches;
      only = &o;
    }
  }
  if (matches != 1) return;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const char code = typeCode(only->parameters[i].type);
    if (fit(code, args[i]) != 1) continue;
    args[i] = code == 'f' ? ZR::ZRValue(static_cast<float>(args[i].toInt()))
                          : ZR::ZRValue(static_cast<int>(args[i].toFloat()));
  }
}

std::string toJson(const ZR::ZRValue& v) {
  switch (v.getType()) {
    case ZR::ZRValue::TypeBool:
      return v.toBool() ? "true" : "false";
    case ZR::ZRValue::TypeInt:
      return std::to_string(v.toInt());
    case ZR::ZRValue::TypeFloat: {
      const float f = v.toFloat();
      if (!std::isfinite(f)) return "null";
      char buf[32];
      const auto end = std::to_chars(buf, buf + sizeof buf, f).ptr;
      return std::string(buf, end);
    }
    case ZR::ZRValue::TypeString:
      return nlohmann::json(v.toStringRef())
          .dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    case ZR::ZRValue::TypeBinary:
      return "{\"binary\":\"" + ZR::zrBase64Encode(v.GetBinary(), v.getBinarySize()) + "\"}";
    case ZR::ZRValue::TypeArray: {
      std::string out = "[";
      for (const ZR::ZRValue& e : v.arrayElements()) out += (out.size() > 1 ? "," : "") + toJson(e);
      return out + "]";
    }
    default:
      return "null";
  }
}

bool isTransportFailure(const ZR::ZRError& e) {
  return e.getDescription() == ZR::kDeadlineExceeded || e.getDescription() == ZR::kModuleDestroyed;
}

}  // namespace zr
