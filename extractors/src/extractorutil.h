#pragma once

#include <mutex>

#include <zrcommon/zrbroker.h>
#include <zrcommon/zrmodulecore.h>
#include <zrcommon/zrproxy.h>
#include <zrcommon/zrservicenames.h>
#include <zrvalue/zrvalue.h>

namespace ZR {

/// FFTW's planner is not reentrant (execution on one's own arrays is): every extractor makes and
/// destroys its plans under this one lock.
inline std::mutex& fftwPlanMutex() {
  static std::mutex m;
  return m;
}

/// Seconds of a [seconds, microseconds] timestamp; 0 when it has another shape.
inline double timestampSeconds(const ZRValue& ts) {
  if (!ts.isArray() || ts.getSize() < 2 || !ts[0].isInt() || !ts[1].isInt()) return 0.0;
  return static_cast<double>(ts[0].toInt()) + static_cast<double>(ts[1].toInt()) * 1e-6;
}

/// The audio device's sample rate, or `fallback` when the device cannot tell.
inline int deviceSampleRate(ZRModuleCore& self, int fallback) {
  try {
    const int rate = self.getParentBroker()
                         ->getProxy(ZR::kAudioDeviceServiceName, 0)
                         ->call<int>("getSampleRate");
    return rate > 0 ? rate : fallback;
  } catch (const ZRError&) {
    // No device yet: subscribing will fail with a clearer error right after.
    return fallback;
  }
}

}  // namespace ZR
