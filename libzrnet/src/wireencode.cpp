// The wire codec's encoding: a message to its frames, binary blocks handed to ZeroMQ over the
// values' own storage, or packed several to a frame. Decoding is in wire.cpp.

#include "wire.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

#include <msgpack.hpp>

namespace ZR {
namespace net {

namespace {

using Packer = msgpack::packer<msgpack::sbuffer>;

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

}  // namespace

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
  // What the body carries: a call's or data message's arguments, a reply's result.
  auto forBodyValues = [&m](auto&& f) {
    if (hasArgs(m.type))
      for (const ZRValue& a : m.args) f(a);
    else if (m.type == MsgType::Reply)
      f(m.value);
  };
  Pack pack;
  forBodyValues([&](const ZRValue& v) { pack.count(v); });
  zmq::message_t packed;
  if (pack.blocks >= 2 && pack.bytes >= kPackAtLeast) {
    packed.rebuild(pack.bytes);
    std::memset(packed.data(), 0, pack.bytes);  // the padding too: no stray bytes go out
    pack.frame = &packed;
  }
  if (hasArgs(m.type))
    bodyPacker.pack_array(static_cast<std::uint32_t>(m.args.size()));
  else if (m.type != MsgType::Reply)
    bodyPacker.pack_nil();
  forBodyValues([&](const ZRValue& v) { packValue(bodyPacker, body, v, binaries, pack); });
  frames.push_back(bufferFrame(body));
  if (pack.frame) frames.push_back(std::move(packed));
  for (auto& b : binaries) frames.push_back(std::move(b));
  return frames;
}

}  // namespace net
}  // namespace ZR
