#pragma once

#include <string>

#include <zraudiodevice/zraudiodevice.h>

namespace zr {

/// The device options for INPUT as given on the command line (`given` false: no INPUT, the
/// bundled sample). Throws std::runtime_error with a line for the user for an empty INPUT, a
/// file that cannot be read, or a file that is not a regular one (a FIFO or a terminal cannot be
/// probed before it is read: raw PCM goes through "-").
ZR::ZRAudioDeviceOptions resolveInput(const std::string& input, bool given);

/// Seconds of audio in a regular sound file, 0 when unknown.
double fileDuration(const std::string& path);

}  // namespace zr
