#pragma once

// How the fuzzer reads its input as frames: each frame is a 2-byte little-endian length, then
// that many bytes; a last frame shorter than it says takes what is left.

#include <cstddef>
#include <cstdint>
#include <string>

#include "wire.h"

namespace ZR {
namespace net {

inline Frames framesFromFuzzInput(const std::uint8_t* data, std::size_t size) {
  Frames frames;
  while (size >= 2 && frames.size() < 64) {
    std::size_t n = data[0] | (data[1] << 8);
    data += 2;
    size -= 2;
    if (n > size) n = size;
    frames.emplace_back(data, n);
    data += n;
    size -= n;
  }
  return frames;
}

inline std::string fuzzInputFromFrames(const Frames& frames) {
  std::string out;
  for (const auto& f : frames) {
    out += static_cast<char>(f.size() & 0xff);
    out += static_cast<char>((f.size() >> 8) & 0xff);
    out.append(static_cast<const char*>(f.data()), f.size());
  }
  return out;
}

}  // namespace net
}  // namespace ZR
