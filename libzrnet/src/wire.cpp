// The wire codec's decoding: frames to a message, every way a peer can get it wrong a clear
// DecodeError; binary blocks read in place. Encoding is in wireencode.cpp.

#include "wire.h"

#include "bodyreader.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>

#include <msgpack.hpp>

namespace ZR {
namespace net {

namespace {

// msgpack allocates arrays and maps before reading their elements: an envelope (a handful of
// keys) is kept small so that what it declares stays small. Bodies have a reader of their own.
constexpr std::size_t kMaxEnvelope = 64 * 1024;
constexpr std::size_t kMaxEnvelopeEntries = 64;

struct Reader {
  std::uint64_t callId = 0;
  std::string module, method;
  [[noreturn]] void fail(const std::string& what) const {
    throw DecodeError(what, callId, module, method);
  }
};

msgpack::object_handle unpackFrame(const zmq::message_t& frame, const char* what, const Reader& r) {
  const std::size_t n = frame.size();
  if (n > kMaxEnvelope)
    r.fail(std::string("the ") + what + " holds " + std::to_string(n) + " bytes, more than " +
           std::to_string(kMaxEnvelope));
  msgpack::unpack_limit limit(kMaxEnvelopeEntries, kMaxEnvelopeEntries, n, n, n, kMaxDepth);
  std::size_t offset = 0;
  msgpack::object_handle handle;
  try {
    handle =
        msgpack::unpack(static_cast<const char*>(frame.data()), n, offset, nullptr, nullptr, limit);
  } catch (const std::exception& e) {
    r.fail(std::string("malformed ") + what + " (" + e.what() + ")");
  }
  if (offset != n) r.fail(std::string("trailing bytes after the ") + what);
  return handle;
}

struct Envelope {
  const msgpack::object_map* map = nullptr;
  const msgpack::object* find(const char* key) const {
    for (std::uint32_t i = 0; i < map->size; ++i) {
      const msgpack::object& k = map->ptr[i].key;
      if (k.type == msgpack::type::STR && k.via.str.size == std::strlen(key) &&
          std::memcmp(k.via.str.ptr, key, k.via.str.size) == 0)
        return &map->ptr[i].val;
    }
    return nullptr;
  }
  std::uint64_t uintField(const char* key, const Reader& r, std::uint64_t max,
                          bool optional = false) const {
    const msgpack::object* o = find(key);
    if (!o) {
      if (optional) return 0;
      r.fail(std::string("envelope lacks \"") + key + "\"");
    }
    if (o->type != msgpack::type::POSITIVE_INTEGER || o->via.u64 > max)
      r.fail(std::string("envelope field \"") + key + "\" is not an unsigned integer in range");
    return o->via.u64;
  }
  bool boolField(const char* key, const Reader& r) const {
    const msgpack::object* o = find(key);
    if (!o) return false;
    if (o->type != msgpack::type::BOOLEAN)
      r.fail(std::string("envelope field \"") + key + "\" is not a boolean");
    return o->via.boolean;
  }
  std::string strField(const char* key, const Reader& r) const {
    const msgpack::object* o = find(key);
    if (!o) r.fail(std::string("envelope lacks \"") + key + "\"");
    if (o->type != msgpack::type::STR)
      r.fail(std::string("envelope field \"") + key + "\" is not a string");
    return std::string(o->via.str.ptr, o->via.str.size);
  }
};

struct BinaryFrames {
  struct Block {
    std::shared_ptr<const void> owner;  // null until referenced
    const void* data = nullptr;
    std::size_t size = 0;
  };
  Frames* frames;
  std::size_t first;  // index in *frames of binary block 0
  std::vector<Block> owners;
  std::size_t count() const { return frames->size() - first; }

  // The received frame itself when its bytes are aligned for any sample type; otherwise (ZeroMQ
  // packs small messages into one receive buffer at any offset) an aligned copy, so that a
  // module may read int16, float or double samples in place.
  Block take(std::size_t index) {
    auto message = std::make_shared<zmq::message_t>(std::move((*frames)[first + index]));
    Block b;
    b.size = message->size();
    if (reinterpret_cast<std::uintptr_t>(message->data()) % kBinaryAlignment == 0) {
      b.data = message->data();
      b.owner = std::move(message);
      return b;
    }
    auto copy = std::make_shared<std::vector<std::max_align_t>>(
        (b.size + sizeof(std::max_align_t) - 1) / sizeof(std::max_align_t));
    std::memcpy(copy->data(), message->data(), b.size);
    b.data = copy->data();
    b.owner = std::move(copy);
    return b;
  }
};

// Best effort: the id, module and method of a call whose message is otherwise refused.
void identifyCall(const zmq::message_t& envelope, Reader& r) {
  try {
    Reader quiet;
    msgpack::object_handle h = unpackFrame(envelope, "envelope", quiet);
    if (h.get().type != msgpack::type::MAP) return;
    Envelope env{&h.get().via.map};
    const std::uint64_t id = env.uintField("id", quiet, std::numeric_limits<std::uint64_t>::max());
    r.module = env.strField("module", quiet);
    r.method = env.strField("method", quiet);
    r.callId = id;
  } catch (const DecodeError&) {
  }
}

// A fan-out makes every call on every module it names: that product is bounded by the bytes
// that came, so that a tiny message cannot cost seconds.
void checkFanOut(const Message& m, std::size_t bytes, const Reader& r) {
  if (m.args.empty() || !m.args[0].isArray()) return;  // refused by the host, with its reason
  const std::size_t modules = m.args[0].arrayElements().size();
  const std::size_t calls = m.args.size() - 1;
  if (modules > 0 && calls > std::max<std::size_t>(bytes, 64) / modules)
    r.fail("a fan-out of " + std::to_string(calls) + " calls to " + std::to_string(modules) +
           " modules asks more than its " + std::to_string(bytes) + " bytes allow");
}

}  // namespace

const char* msgTypeName(MsgType type) noexcept {
  switch (type) {
    case MsgType::Hello:
      return "hello";
    case MsgType::Call:
      return "call";
    case MsgType::Reply:
      return "reply";
    case MsgType::Error:
      return "error";
    case MsgType::Cancel:
      return "cancel";
    case MsgType::Data:
      return "data";
    case MsgType::Credit:
      return "credit";
    case MsgType::Ping:
      return "ping";
    case MsgType::Bye:
      return "bye";
    case MsgType::StreamError:
      return "stream error";
  }
  return "unknown";
}

DecodeError::DecodeError(const std::string& description, std::uint64_t callId,
                         const std::string& module, const std::string& method)
    : ZRError("zrnet", "decode", description), callId_(callId), module_(module), method_(method) {}

Message decode(Frames& frames, std::size_t maxMessageSize) {
  Reader r;
  if (frames.size() < 3)
    r.fail("truncated message: " + std::to_string(frames.size()) + " frames, at least 3 needed");
  std::size_t total = 0;
  for (const auto& f : frames) total += f.size();
  if (total > maxMessageSize) {
    const auto* head = static_cast<const unsigned char*>(frames[0].data());
    if (frames[0].size() == kHeaderSize && head[3] == static_cast<std::uint8_t>(MsgType::Call))
      identifyCall(frames[1], r);
    r.fail("message of " + std::to_string(total) + " bytes exceeds the maximum of " +
           std::to_string(maxMessageSize));
  }

  const auto* h = static_cast<const unsigned char*>(frames[0].data());
  if (frames[0].size() != kHeaderSize || h[0] != 'Z' || h[1] != 'R')
    r.fail("not a protocol message (bad header)");
  if (h[2] != kProtocolVersion) {
    // A call of another version is answered all the same, when its envelope tells which call.
    if (h[3] == static_cast<std::uint8_t>(MsgType::Call)) identifyCall(frames[1], r);
    r.fail("protocol version mismatch: peer speaks version " + std::to_string(h[2]) +
           ", this host speaks version " + std::to_string(kProtocolVersion));
  }
  Message m;
  m.type = static_cast<MsgType>(h[3]);
  if (h[3] < static_cast<int>(MsgType::Hello) || h[3] > static_cast<int>(MsgType::StreamError))
    r.fail("unknown message type " + std::to_string(h[3]));
  m.flags = h[4];
  if (m.flags != 0) r.fail("unknown flags " + std::to_string(m.flags));

  msgpack::object_handle envHandle = unpackFrame(frames[1], "envelope", r);
  if (envHandle.get().type != msgpack::type::MAP) r.fail("envelope is not a map");
  Envelope env{&envHandle.get().via.map};
  constexpr std::uint64_t u32 = std::numeric_limits<std::uint32_t>::max();
  constexpr std::uint64_t u64 = std::numeric_limits<std::uint64_t>::max();
  switch (m.type) {
    case MsgType::Hello:
      m.host = env.strField("host", r);
      m.endpoint = env.strField("endpoint", r);
      m.heartbeatMs = static_cast<std::uint32_t>(env.uintField("heartbeat", r, u32));
      break;
    case MsgType::Call:
      m.id = env.uintField("id", r, u64);
      if (m.id == 0) r.fail("call id 0 is reserved");
      m.module = env.strField("module", r);
      m.method = env.strField("method", r);
      r.callId = m.id;  // from here on, the caller can be told what went wrong
      r.module = m.module;
      r.method = m.method;
      m.seq = env.uintField("seq", r, u64);
      m.caller = env.strField("caller", r);
      m.deadlineMs = static_cast<std::uint32_t>(env.uintField("deadline", r, u32, true));
      break;
    case MsgType::Reply:
      m.id = env.uintField("id", r, u64);
      r.callId = m.id;  // a bad result still answers its call
      break;
    case MsgType::Cancel:
      m.id = env.uintField("id", r, u64);
      break;
    case MsgType::Error:
      m.id = env.uintField("id", r, u64);
      m.module = env.strField("module", r);
      m.method = env.strField("method", r);
      m.description = env.strField("description", r);
      break;
    case MsgType::Data:
      m.stream = env.strField("stream", r);
      m.seq = env.uintField("seq", r, u64);
      m.module = env.strField("module", r);
      m.method = env.strField("method", r);
      m.caller = env.strField("caller", r);
      m.lossless = env.boolField("lossless", r);
      m.captured = env.uintField("captured", r, u64, true);
      break;
    case MsgType::StreamError:
      m.stream = env.strField("stream", r);
      m.seq = env.uintField("seq", r, u64);
      m.module = env.strField("module", r);
      m.method = env.strField("method", r);
      m.description = env.strField("description", r);
      break;
    case MsgType::Credit:
      m.stream = env.strField("stream", r);
      m.credits = static_cast<std::uint32_t>(env.uintField("credits", r, u32));
      m.delay = env.uintField("delay", r, u64, true);
      break;
    case MsgType::Ping:
    case MsgType::Bye:
      break;
  }

  BinaryFrames bins{&frames, 3, {}};
  bins.owners.resize(bins.count());
  auto binary = [&](const BodyReader::BinaryRef& ref) {
    const std::string name = "binary block " + std::to_string(ref.index);
    if (ref.index >= bins.count())
      r.fail(name + " refers to a missing frame (" + std::to_string(bins.count()) +
             " binary frames)");
    auto& block = bins.owners[ref.index];
    if (!block.owner) block = bins.take(ref.index);
    if (!ref.slice) {
      if (block.size != ref.size)
        r.fail(name + " declares " + std::to_string(ref.size) + " bytes, its frame has " +
               std::to_string(block.size));
      return ZRValue(block.data, block.size, block.owner);
    }
    if (ref.offset % kBinaryAlignment != 0)
      r.fail(name + " starts at byte " + std::to_string(ref.offset) + ", not a multiple of " +
             std::to_string(kBinaryAlignment));
    if (ref.offset > block.size || ref.size > block.size - ref.offset)
      r.fail(name + " declares " + std::to_string(ref.size) + " bytes at byte " +
             std::to_string(ref.offset) + ", its frame has " + std::to_string(block.size));
    return ZRValue(static_cast<const char*>(block.data) + ref.offset, ref.size, block.owner);
  };
  BodyReader body(
      frames[2].data(), frames[2].size(), [&](const std::string& what) { r.fail(what); }, binary);
  if (hasArgs(m.type)) {
    m.args = body.arguments();
    body.expectEnd();
    if (m.type == MsgType::Data && m.module.empty()) checkFanOut(m, total, r);
  } else if (m.type == MsgType::Reply) {
    m.value = body.value();
    body.expectEnd();
  } else if (!body.isNil()) {
    r.fail(std::string("a ") + msgTypeName(m.type) + " message carries no body");
  }
  for (std::size_t i = 0; i < bins.owners.size(); ++i)
    if (!bins.owners[i].owner) r.fail("binary frame " + std::to_string(i) + " is not referenced");
  return m;
}

}  // namespace net
}  // namespace ZR
