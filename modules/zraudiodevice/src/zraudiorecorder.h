#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>

#include <zrvalue/zrvalue.h>

#include "zraudiosource.h"

typedef struct sf_private_tag SNDFILE;

namespace ZR {

/// Writes delivered buffers to a 16-bit WAV file. Every method may be called from any thread;
/// they serialise on one lock, held while a buffer is written.
class ZRAudioRecorder {
 public:
  ~ZRAudioRecorder();
  /// ZRError (module `device`) when already recording or when the file cannot be created.
  void start(const std::string& path, const ZRAudioFormat& format, const std::string& device);
  /// Closes the file; the samples per channel written, 0 when not recording.
  std::int64_t stop();
  /// Appends `frames` frames of `buffer`'s samples when recording; warns when some were lost.
  void record(const ZRValue& buffer, std::size_t frames, const std::string& device);

 private:
  std::mutex mutex_;
  SNDFILE* file_ = nullptr;
  std::int64_t frames_ = 0;
};

}  // namespace ZR
