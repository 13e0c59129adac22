// Reads a message body straight into values, never reserving beyond what the bytes left could
// encode (an element takes at least one byte), so that a message costs its receiver memory and
// time in proportion to its size.

#include "bodyreader.h"

#include <cstring>
#include <limits>
#include <stdexcept>

namespace ZR {
namespace net {

BodyReader::BodyReader(const void* data, std::size_t size, Fail fail, Binary binary)
    : at_(static_cast<const std::uint8_t*>(data)),
      end_(at_ + size),
      fail_(std::move(fail)),
      binary_(std::move(binary)) {}

void BodyReader::fail(const std::string& what) const {
  fail_(what);
  throw std::logic_error("BodyReader: fail returned");  // fail_ always throws
}

const std::uint8_t* BodyReader::take(std::size_t n) {
  if (static_cast<std::size_t>(end_ - at_) < n) fail("the body ends in the middle of a value");
  const std::uint8_t* p = at_;
  at_ += n;
  return p;
}

std::uint64_t BodyReader::bigEndian(std::size_t n) {
  const std::uint8_t* p = take(n);
  std::uint64_t v = 0;
  for (std::size_t i = 0; i < n; ++i) v = (v << 8) | p[i];
  return v;
}

void BodyReader::count(std::size_t n) {
  if (n > kMaxDecodedValues - values_)
    fail("the message holds more than " + std::to_string(kMaxDecodedValues) + " values");
  values_ += n;
}

bool BodyReader::isNil() const {
  return end_ - at_ == 1 && *at_ == 0xc0;
}

void BodyReader::expectEnd() {
  if (at_ != end_) fail("trailing bytes after the body");
}

std::size_t BodyReader::arrayHeader(std::uint8_t marker) {
  std::size_t n = 0;
  if (marker >= 0x90 && marker <= 0x9f)
    n = marker & 0x0f;
  else if (marker == 0xdc)
    n = bigEndian(2);
  else
    n = bigEndian(4);
  // The declared size is checked against what is left before anything is reserved for it.
  const auto left = static_cast<std::size_t>(end_ - at_);
  if (n > left)
    fail("an array declares " + std::to_string(n) + " elements with only " + std::to_string(left) +
         " bytes left");
  count(n);
  return n;
}

ZRValue BodyReader::value() {
  return value(0);
}

std::vector<ZRValue> BodyReader::arguments() {
  if (at_ == end_) fail("the body is empty");
  const std::uint8_t marker = *at_;
  if (!((marker >= 0x90 && marker <= 0x9f) || marker == 0xdc || marker == 0xdd))
    fail("arguments are not an array");
  ++at_;
  const std::size_t n = arrayHeader(marker);
  std::vector<ZRValue> args;
  args.reserve(n);
  for (std::size_t i = 0; i < n; ++i) args.push_back(value(1));
  return args;
}

ZRValue BodyReader::value(std::size_t depth) {
  if (depth > kMaxDepth) fail("values nest deeper than " + std::to_string(kMaxDepth));
  if (depth == 0) count(1);
  const std::uint8_t marker = *take(1);
  if (marker <= 0x7f) return ZRValue(static_cast<int>(marker));
  if (marker >= 0xe0) return ZRValue(static_cast<int>(static_cast<std::int8_t>(marker)));
  if ((marker >= 0x90 && marker <= 0x9f) || marker == 0xdc || marker == 0xdd) {
    const std::size_t n = arrayHeader(marker);
    ZRValue v;
    v.arraySetSize(0);
    v.arrayReserve(static_cast<int>(n));
    for (std::size_t i = 0; i < n; ++i) v.arrayPush(value(depth + 1));
    return v;
  }
  std::size_t strSize = 0;
  if (marker >= 0xa0 && marker <= 0xbf) {
    strSize = marker & 0x1f;
  } else if (marker >= 0xd9 && marker <= 0xdb) {
    strSize = bigEndian(std::size_t(1) << (marker - 0xd9));
  } else {
    switch (marker) {
      case 0xc0:
        return ZRValue();
      case 0xc2:
        return ZRValue(false);
      case 0xc3:
        return ZRValue(true);
      case 0xca: {
        const auto bits = static_cast<std::uint32_t>(bigEndian(4));
        float f;
        std::memcpy(&f, &bits, sizeof f);
        return ZRValue(f);
      }
      case 0xcb: {
        const std::uint64_t bits = bigEndian(8);
        double d;
        std::memcpy(&d, &bits, sizeof d);
        return ZRValue(static_cast<float>(d));
      }
      case 0xcc:
      case 0xcd:
      case 0xce:
      case 0xcf: {
        const std::uint64_t u = bigEndian(std::size_t(1) << (marker - 0xcc));
        if (u > static_cast<std::uint64_t>(std::numeric_limits<int>::max()))
          fail("integer " + std::to_string(u) + " does not fit in 32 bits");
        return ZRValue(static_cast<int>(u));
      }
      case 0xd0:
      case 0xd1:
      case 0xd2:
      case 0xd3: {
        const std::size_t n = std::size_t(1) << (marker - 0xd0);
        const std::uint64_t u = bigEndian(n);
        const int shift = static_cast<int>(64 - 8 * n);  // sign-extend from n bytes
        const auto i = static_cast<std::int64_t>(u << shift) >> shift;
        if (i < std::numeric_limits<int>::min() || i > std::numeric_limits<int>::max())
          fail("integer " + std::to_string(i) + " does not fit in 32 bits");
        return ZRValue(static_cast<int>(i));
      }
      case 0xc7:
      case 0xc8:
      case 0xc9:
      case 0xd4:
      case 0xd5:
      case 0xd6:
      case 0xd7:
      case 0xd8: {
        const std::size_t size = marker <= 0xc9 ? bigEndian(std::size_t(1) << (marker - 0xc7))
                                                : std::size_t(1) << (marker - 0xd4);
        const auto type = static_cast<std::int8_t>(*take(1));
        if (type != 1 || (size != 8 && size != 12))
          fail("unknown extension type " + std::to_string(type) + " of " + std::to_string(size) +
               " bytes");
        BinaryRef ref;
        ref.index = static_cast<std::uint32_t>(bigEndian(4));
        ref.slice = size == 12;
        if (ref.slice) ref.offset = static_cast<std::uint32_t>(bigEndian(4));
        ref.size = static_cast<std::uint32_t>(bigEndian(4));
        return binary_(ref);
      }
      case 0xc4:
      case 0xc5:
      case 0xc6:
        fail("msgpack bin is not a value (binary blocks travel in frames of their own)");
      case 0xde:
      case 0xdf:
        fail("a map is not a value");
      default:
        if (marker >= 0x80 && marker <= 0x8f) fail("a map is not a value");
        fail("byte 0xc1 is not msgpack");
    }
  }
  const std::uint8_t* bytes = take(strSize);
  return ZRValue(std::string(reinterpret_cast<const char*>(bytes), strSize));
}

}  // namespace net
}  // namespace ZR
