#pragma once

// The wire codec: one protocol message <-> the ZeroMQ frames that carry it (wireencode.cpp,
// wire.cpp). Internal to zrnet; docs/protocol.md is the contract it implements.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <zmq.hpp>

#include <zrerror/zrerror.h>
#include <zrvalue/zrvalue.h>

namespace ZR {
namespace net {

constexpr std::uint8_t kProtocolVersion = 2;
constexpr std::size_t kHeaderSize = 5;
constexpr std::size_t kDefaultMaxMessageSize = 64u << 20;
/// Extension type of a binary reference inside msgpack arguments.
constexpr std::int8_t kBinaryExtType = 1;
/// A decoded binary block's bytes start at a multiple of this: a larger received frame as it is,
/// a smaller one copied (see docs/protocol.md).
constexpr std::size_t kBinaryAlignment = 8;

enum class MsgType : std::uint8_t {
  Hello = 1,
  Call = 2,
  Reply = 3,
  Error = 4,
  Cancel = 5,
  Data = 6,
  Credit = 7,
  Ping = 8,
  Bye = 9,
  StreamError = 10,
};
/// "hello", "call", ...; "unknown" for anything else.
const char* msgTypeName(MsgType type) noexcept;
/// Whether a message of this type carries arguments in its body.
inline bool hasArgs(MsgType t) {
  return t == MsgType::Call || t == MsgType::Data;
}

/// One protocol message. Which fields travel depends on the type (see docs/protocol.md); the
/// others stay at their defaults.
struct Message {
  MsgType type = MsgType::Ping;
  std::uint8_t flags = 0;
  std::uint64_t id = 0;           // call, reply, error, cancel
  std::uint64_t seq = 0;          // call, data, stream error
  std::uint32_t deadlineMs = 0;   // call; 0: none
  std::uint32_t heartbeatMs = 0;  // hello
  std::uint32_t credits = 0;      // credit
  std::uint64_t captured = 0;     // data: real-time ns of the sound's capture; 0: none
  std::uint64_t delay = 0;        // credit: ns from capture to start, the longest; 0: none
  std::string host, endpoint;     // hello
  std::string module, method;     // call, data, error, stream error
  std::string caller;             // call, data
  std::string description;        // error, stream error
  std::string stream;             // data, credit, stream error
  bool lossless = false;          // data
  std::vector<ZRValue> args;      // call, data
  ZRValue value;                  // reply
};

using Frames = std::vector<zmq::message_t>;

/// Encodes `m`. Binary blocks become frames that reference the values' shared storage.
Frames encode(const Message& m);

/// A message that cannot be decoded. When the envelope of a call was readable, `callId` (non
/// zero), module and method say whom the caller is waiting for.
class DecodeError : public ZRError {
 public:
  DecodeError(const std::string& description, std::uint64_t callId = 0,
              const std::string& module = "", const std::string& method = "");
  std::uint64_t callId() const noexcept { return callId_; }
  const std::string& callModule() const noexcept { return module_; }
  const std::string& callMethod() const noexcept { return method_; }

 private:
  std::uint64_t callId_;
  std::string module_, method_;
};

/// Decodes the frames of one message (without any routing identity). Binary frames are moved
/// out of `frames` and become the owners of the received binary values: no copy. Throws
/// DecodeError, naming what is wrong, for anything that does not follow the protocol.
Message decode(Frames& frames, std::size_t maxMessageSize = kDefaultMaxMessageSize);

}  // namespace net
}  // namespace ZR
