#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include <zraudiodevice/zraudiodevice.h>

namespace ZR {

/// The log category of the device and its sources.
inline constexpr const char* kAudioDeviceCategory = "zraudiodevice";

/// The output format every source delivers in.
struct ZRAudioFormat {
  int sampleRate = 0;
  int channels = 0;
  /// Frames per buffer the source comes in (a recording's); 0: the device chooses.
  int samplesPerBuffer = 0;
};

/// Where samples come from. Opened on the thread of the subscribe that starts it (so that its
/// failure reaches that caller), then read and destroyed on the capture thread.
class ZRAudioSource {
 public:
  virtual ~ZRAudioSource() = default;
  /// Fills `out` with up to `frames` interleaved frames; fewer only at the end of the stream, 0
  /// once it has ended. Returns early, with whatever it has, once `stop` is set. Throws ZRError
  /// on a read failure.
  virtual std::size_t read(std::int16_t* out, std::size_t frames,
                           const std::atomic<bool>& stop) = 0;
  /// Sources with a clock of their own (a microphone) pace themselves.
  virtual bool isHardware() const { return false; }

  /// Frames lost just before those the last read returned (an overrun), and why.
  struct Loss {
    std::int64_t frames = 0;
    std::string reason;
  };
  /// The loss since the last call; none by default.
  virtual Loss takeLoss() { return {}; }
  /// The real-time clock's ns when the first frame of the last read was captured, for a source
  /// that knows it (a recording); 0: the device stamps it.
  virtual std::int64_t capturedRealtimeNs() const { return 0; }
  /// The stream position of the first frame (a recording made mid-stream starts where it did).
  virtual std::int64_t firstPosition() const { return 0; }
};

/// True for the sources read from a file whose format the file says.
inline bool readsFormatFromFile(const ZRAudioDeviceOptions& options) {
  return options.source == ZRAudioDeviceOptions::Source::File ||
         options.source == ZRAudioDeviceOptions::Source::Recording;
}

/// Wraps `source` so that it drops the options' injected gaps, as an overrun would: the samples
/// are read and thrown away, and reported by takeLoss with the reason "injected". Returns
/// `source` itself when there are none.
std::unique_ptr<ZRAudioSource> withInjectedGaps(std::unique_ptr<ZRAudioSource> source,
                                                const ZRAudioDeviceOptions& options,
                                                const ZRAudioFormat& format);

/// A recording's sound (zraudioreplay.cpp).
bool probeRecordingFormat(const ZRAudioDeviceOptions& options, ZRAudioFormat& format);
std::unique_ptr<ZRAudioSource> openRecordingSource(const ZRAudioDeviceOptions& options,
                                                   const ZRAudioFormat& format,
                                                   const std::string& moduleName,
                                                   const std::string& method);

/// The format a file source will deliver in, from the options and the file's own format. Returns
/// false when the file cannot be opened (yet).
bool probeFileFormat(const ZRAudioDeviceOptions& options, ZRAudioFormat& format);

/// Opens the options' source for `format`; throws ZRError (method `method`) with the cause.
std::unique_ptr<ZRAudioSource> openAudioSource(const ZRAudioDeviceOptions& options,
                                               const ZRAudioFormat& format,
                                               const std::string& moduleName,
                                               const std::string& method);

}  // namespace ZR
