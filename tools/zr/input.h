#pragma once

#include <string>
#include <vector>

#include <zraudiodevice/zraudiodevice.h>

namespace CLI {
class App;
}

namespace zr {

/// The device's options beyond its INPUT, as zr run and zr host take them: --rate, --channels,
/// --buffer and --realtime (0 and false: the input's own, else the device's defaults), and the
/// drills --inject-gap AT:N and --clock-skew PPM.
struct DeviceFlags {
  int rate = 0, channels = 0, buffer = 0;
  bool realtime = false;
  std::vector<std::string> gaps;
  double clockSkewPpm = 0.0;
  void define(CLI::App* cmd);
  void apply(ZR::ZRAudioDeviceOptions& device) const;
  /// "AT:N" with AT >= 0 and N > 0.
  static bool parseGap(const std::string& text, ZR::ZRAudioDeviceOptions::InjectedGap& gap);
};

/// The device options for INPUT as given on the command line (`given` false: no INPUT, the
/// bundled sample). Throws std::runtime_error with a line for the user for an empty INPUT, a
/// file that cannot be read or is no sound file, or a file that is not a regular one (a FIFO or a
/// terminal cannot be probed before it is read: raw PCM goes through "-").
ZR::ZRAudioDeviceOptions resolveInput(const std::string& input, bool given);

/// The line that says what raw PCM input is taken for when --rate or --channels is missing
/// (its format cannot be read from it); empty for any other input, or when both are given.
std::string rawInputNotice(const ZR::ZRAudioDeviceOptions& device);

/// What several INPUTs of zr run stand for: each named file as it is, each directory's sound
/// files (searched recursively, hidden names left out, sorted by path). `skipped` counts the
/// directories' files that are no sound file. Throws CLI::ValidationError for an input that is no
/// file name (mic, tone...), std::runtime_error for a directory without sound files.
struct InputList {
  std::vector<std::string> files;
  std::size_t skipped = 0;
};
InputList expandInputs(const std::vector<std::string>& inputs);

/// Seconds of audio in a regular sound file, 0 when unknown.
double fileDuration(const std::string& path);

}  // namespace zr
