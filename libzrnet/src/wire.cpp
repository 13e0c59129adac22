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

using Packer = msgpack::packer<msgpack::sbuffer>;
// msgpack allocates arrays and maps before reading their elements: an envelope (a handful of
// keys) is kept small so that what it declares stays small. Bodies have a reader of their own.
constexpr std::size_t kMaxEnvelope = 64 * 1024;
constexpr std::size_t kMaxEnvelopeEntries = 64;

zmq::message_t bufferFrame(msgpack::sbuffer& buffer) {
  return zmq::message_t(buffer.data(), buffer.size());
}

void freeOwner(void* /*data*/, void* hint) {
  delete static_cast<std::shared_ptr<const void>*>(hint);
}

// The frame reads the value's storage in place and keeps it alive until ZeroMQ is done with it.
zmq::message_t binaryFrame(const ZRValue& v) {
  std::shared_ptr<const void> owner = v.getBinaryOwner();
  if (!owner || v.getBinarySize() == 0) return zmq::message_t(v.GetBinary(), v.getBinarySize());
  auto* hint = new std::shared_ptr<const void>(std::move(owner));
  return zmq::message_t(const_cast<void*>(v.GetBinary()), v.getBinarySize(), &freeOwner, hint);
}

void putBE32(char* out, std::uint32_t v) {
  for (int i = 3; i >= 0; --i, v >>= 8) out[i] = static_cast<char>(v & 0xff);
}

// Binary blocks under kPackBelow travel together in one frame when a message has two or more
// that add up to kPackAtLeast: ZeroMQ writes a frame that size without copying it, while it
// copies smaller ones through a buffer of 8 KB and writes that, one system call per 8 KB.
constexpr std::size_t kPackBelow = 64 * 1024;
constexpr std::size_t kPackAtLeast = 32 * 1024;

bool packable(const ZRValue& v) {
  return v.getBinarySize() > 0 && v.getBinarySize() < kPackBelow;
}
std::size_t aligned(std::size_t n) {
  return (n + kBinaryAlignment - 1) / kBinaryAlignment * kBinaryAlignment;
}

// Where the packable blocks go: binary frame 0, each at an aligned offset.
struct Pack {
  std::size_t blocks = 0, bytes = 0, used = 0;
  zmq::message_t* frame = nullptr;
  void count(const ZRValue& v) {
    if (v.isBinary() && packable(v)) {
      ++blocks;
      bytes += aligned(v.getBinarySize());
    } else if (v.isArray()) {
      for (const ZRValue& e : v.arrayElements()) count(e);
    }
  }
};

void packValue(Packer& pk, msgpack::sbuffer& out, const ZRValue& v, Frames& binaries, Pack& pack) {
  switch (v.getType()) {
    case ZRValue::TypeInvalid:
      pk.pack_nil();
      break;
    case ZRValue::TypeBool:
      v.toBool() ? pk.pack_true() : pk.pack_false();
      break;
    case ZRValue::TypeInt:
      pk.pack_int(v.toInt());
      break;
    case ZRValue::TypeFloat: {
      // Always float 32: msgpack-c's pack_float writes a whole-valued float as an integer, and
      // the callee would then pick an int overload.
      const float f = v.toFloat();
      std::uint32_t bits;
      std::memcpy(&bits, &f, sizeof bits);
      char raw[5] = {static_cast<char>(0xca)};
      putBE32(raw + 1, bits);
      out.write(raw, sizeof raw);
      break;
    }
    case ZRValue::TypeString: {
      const std::string& s = v.toStringRef();
      pk.pack_str(static_cast<std::uint32_t>(s.size()));
      pk.pack_str_body(s.data(), static_cast<std::uint32_t>(s.size()));
      break;
    }
    case ZRValue::TypeBinary: {
      const auto size = static_cast<std::uint32_t>(v.getBinarySize());
      if (pack.frame && packable(v)) {
        char ref[12];
        putBE32(ref, 0);
        putBE32(ref + 4, static_cast<std::uint32_t>(pack.used));
        putBE32(ref + 8, size);
        pk.pack_ext(sizeof ref, kBinaryExtType);
        pk.pack_ext_body(ref, sizeof ref);
        std::memcpy(static_cast<char*>(pack.frame->data()) + pack.used, v.GetBinary(), size);
        pack.used += aligned(size);
        break;
      }
      char ref[8];
      putBE32(ref, static_cast<std::uint32_t>(binaries.size() + (pack.frame ? 1 : 0)));
      putBE32(ref + 4, size);
      pk.pack_ext(sizeof ref, kBinaryExtType);
      pk.pack_ext_body(ref, sizeof ref);
      binaries.push_back(binaryFrame(v));
      break;
    }
    case ZRValue::TypeArray: {
      const auto& elements = v.arrayElements();
      pk.pack_array(static_cast<std::uint32_t>(elements.size()));
      for (const ZRValue& e : elements) packValue(pk, out, e, binaries, pack);
      break;
    }
  }
}

void packStr(Packer& pk, const char* key, const std::string& value) {
  pk.pack(key);
  pk.pack(value);
}
void packUint(Packer& pk, const char* key, std::uint64_t value) {
  pk.pack(key);
  pk.pack_uint64(value);
}

void packEnvelope(Packer& pk, const Message& m) {
  switch (m.type) {
    case MsgType::Hello:
      pk.pack_map(3);
      packStr(pk, "host", m.host);
      packStr(pk, "endpoint", m.endpoint);
      packUint(pk, "heartbeat", m.heartbeatMs);
      break;
    case MsgType::Call:
      pk.pack_map(m.deadlineMs ? 6 : 5);
      packUint(pk, "id", m.id);
      packUint(pk, "seq", m.seq);
      packStr(pk, "module", m.module);
      packStr(pk, "method", m.method);
      packStr(pk, "caller", m.caller);
      if (m.deadlineMs) packUint(pk, "deadline", m.deadlineMs);
      break;
    case MsgType::Reply:
    case MsgType::Cancel:
      pk.pack_map(1);
      packUint(pk, "id", m.id);
      break;
    case MsgType::Error:
      pk.pack_map(4);
      packUint(pk, "id", m.id);
      packStr(pk, "module", m.module);
      packStr(pk, "method", m.method);
      packStr(pk, "description", m.description);
      break;
    case MsgType::Data:
      pk.pack_map(5 + (m.lossless ? 1 : 0) + (m.captured ? 1 : 0));
      packStr(pk, "stream", m.stream);
      packUint(pk, "seq", m.seq);
      packStr(pk, "module", m.module);
      packStr(pk, "method", m.method);
      packStr(pk, "caller", m.caller);
      if (m.lossless) {
        pk.pack("lossless");
        pk.pack_true();
      }
      if (m.captured) packUint(pk, "captured", m.captured);
      break;
    case MsgType::StreamError:
      pk.pack_map(5);
      packStr(pk, "stream", m.stream);
      packUint(pk, "seq", m.seq);
      packStr(pk, "module", m.module);
      packStr(pk, "method", m.method);
      packStr(pk, "description", m.description);
      break;
    case MsgType::Credit:
      pk.pack_map(m.delay ? 3 : 2);
      packStr(pk, "stream", m.stream);
      packUint(pk, "credits", m.credits);
      if (m.delay) packUint(pk, "delay", m.delay);
      break;
    case MsgType::Ping:
    case MsgType::Bye:
      pk.pack_map(0);
      break;
  }
}

bool hasArgs(MsgType t) {
  return t == MsgType::Call || t == MsgType::Data;
}

// ---- decoding

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

Frames encode(const Message& m) {
  Frames frames;
  const std::uint8_t header[kHeaderSize] = {'Z', 'R', kProtocolVersion,
                                            static_cast<std::uint8_t>(m.type), m.flags};
  frames.emplace_back(header, kHeaderSize);
  msgpack::sbuffer envelope;
  Packer envelopePacker(envelope);
  packEnvelope(envelopePacker, m);
  frames.push_back(bufferFrame(envelope));

  msgpack::sbuffer body;
  Packer bodyPacker(body);
  Frames binaries;
  Pack pack;
  if (hasArgs(m.type))
    for (const ZRValue& a : m.args) pack.count(a);
  else if (m.type == MsgType::Reply)
    pack.count(m.value);
  zmq::message_t packed;
  if (pack.blocks >= 2 && pack.bytes >= kPackAtLeast) {
    packed.rebuild(pack.bytes);
    std::memset(packed.data(), 0, pack.bytes);  // the padding too: no stray bytes go out
    pack.frame = &packed;
  }
  if (hasArgs(m.type)) {
    bodyPacker.pack_array(static_cast<std::uint32_t>(m.args.size()));
    for (const ZRValue& a : m.args) packValue(bodyPacker, body, a, binaries, pack);
  } else if (m.type == MsgType::Reply) {
    packValue(bodyPacker, body, m.value, binaries, pack);
  } else {
    bodyPacker.pack_nil();
  }
  frames.push_back(bufferFrame(body));
  if (pack.frame) frames.push_back(std::move(packed));
  for (auto& b : binaries) frames.push_back(std::move(b));
  return frames;
}

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
