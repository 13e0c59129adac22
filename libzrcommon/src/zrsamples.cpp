#include "zrcommon/zrsamples.h"

#include <climits>
#include <cstdint>

#include <vo/dynamicobject.h>

namespace ZR {

bool samplesFit(int channels, int samplesPerChannel, const short* samples) {
  if (channels <= 0 || samplesPerChannel <= 0 || !samples) return false;
  const std::int64_t count = static_cast<std::int64_t>(channels) * samplesPerChannel;
  if (count > INT_MAX) return false;
  if (const ZRValue* binary = vo::DynamicObject::findCallBinary(samples))
    return static_cast<std::uint64_t>(count) * sizeof(short) <= binary->getBinarySize();
  return true;
}

}  // namespace ZR
