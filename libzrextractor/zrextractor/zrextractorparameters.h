#pragma once

namespace ZR {

/// One subscriber's request: a period in milliseconds (after clamping) and a precision.
/// -1 and -1.0 mean no value.
struct ZRExtractorParameters {
  ZRExtractorParameters() : period(-1), precision(-1.0f) {}
  int period;
  float precision;
};

}  // namespace ZR
