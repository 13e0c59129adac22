#pragma once

// Reads a message body (msgpack) straight into values, bounded by the bytes that arrived: no
// container is sized beyond what its remaining bytes could hold, a message decodes to at most
// kMaxDecodedValues values, and nesting stops at kMaxDepth. Internal to zrnet.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <zrvalue/zrvalue.h>

namespace ZR {
namespace net {

/// How many values (array elements included, at any depth) one message may decode to: bounds
/// the memory and the time a message under the size limit can cost its receiver.
constexpr std::size_t kMaxDecodedValues = std::size_t(1) << 20;
/// How deep arrays may nest.
constexpr std::size_t kMaxDepth = 32;

class BodyReader {
 public:
  /// A binary reference: a whole frame (index, declared size), or `size` bytes at `offset` in it.
  struct BinaryRef {
    std::uint32_t index = 0, offset = 0, size = 0;
    bool slice = false;
  };
  /// `fail` throws with the description it is given; `binary` resolves a binary reference to its
  /// value, or fails.
  using Fail = std::function<void(const std::string&)>;
  using Binary = std::function<ZRValue(const BinaryRef&)>;
  BodyReader(const void* data, std::size_t size, Fail fail, Binary binary);

  ZRValue value();
  /// An array at the top, as the arguments of a call.
  std::vector<ZRValue> arguments();
  bool isNil() const;
  /// Fails unless every byte was read.
  void expectEnd();

 private:
  [[noreturn]] void fail(const std::string& what) const;
  const std::uint8_t* take(std::size_t n);
  std::uint64_t bigEndian(std::size_t n);
  std::size_t arrayHeader(std::uint8_t marker);
  ZRValue value(std::size_t depth);
  void count(std::size_t n);

  const std::uint8_t* at_;
  const std::uint8_t* const end_;
  Fail fail_;
  Binary binary_;
  std::size_t values_ = 0;
};

}  // namespace net
}  // namespace ZR
