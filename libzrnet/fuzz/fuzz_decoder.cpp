// libFuzzer target: any input, read as frames, is either a message or a DecodeError, never a
// crash, a leak or a hang. What decodes must encode again and decode to the same bytes.

#include <cstdlib>

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
  Message back = decode(copy, 1 << 20);
  if (back.args != m.args || back.value != m.value || back.module != m.module || back.id != m.id ||
      back.type != m.type)
    std::abort();
  return 0;
}
