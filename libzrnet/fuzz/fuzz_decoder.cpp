// libFuzzer target: any input, read as frames, is either a message or a DecodeError, never a
// crash, a leak or a hang. What decodes must encode again and decode to the same bytes.

#include <cstdlib>
#include <cstring>

#include "frames.h"
#include "wire.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace ZR::net;
  Frames frames = framesFromFuzzInput(data, size);
  Message m;
  try {
    m = decode(frames, 1 << 20);
  } catch (const DecodeError&) {
    return 0;
  }
  Frames again = encode(m);
  Frames copy;
  for (const auto& f : again) copy.emplace_back(f.data(), f.size());
  // Compared as bytes: a NaN float is not equal to itself, but it encodes the same.
  Frames twice = encode(decode(copy, 1 << 20));
  if (twice.size() != again.size()) std::abort();
  for (std::size_t i = 0; i < again.size(); ++i) {
    if (twice[i].size() != again[i].size() ||
        std::memcmp(twice[i].data(), again[i].data(), again[i].size()) != 0)
      std::abort();
  }
  return 0;
}
