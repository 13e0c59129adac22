#pragma once

namespace ZR {

/// One subscriber's request: a period in milliseconds (after clamping) and a precision.
/// -1 and -1.0 mean no value. A plain value with no lock of its own: the extractor reads and
/// writes the records it keeps under its registry lock; copies are free to share.
struct ZRExtractorParameters {
  ZRExtractorParameters() : period(-1), precision(-1.0f) {}
  int period;
  float precision;
};

}  // namespace ZR
