#include "input.h"

#include <sndfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace zr {

namespace {

std::string sampleInput() {
  // Installed: share/zraudio beside bin/; from the build tree: the source's data/.
  char self[4096];
  const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  if (n > 0) {
    self[n] = '\0';
    std::string dir(self);
    dir = dir.substr(0, dir.rfind('/'));
    const std::string installed = dir + "/../share/zraudio/sample.wav";
    if (access(installed.c_str(), R_OK) == 0) return installed;
  }
  return ZR_SOURCE_DATA_DIR "/sample.wav";
}

}  // namespace

ZR::ZRAudioDeviceOptions resolveInput(const std::string& input, bool given) {
  if (given && input.empty())
    throw std::runtime_error(
        "the input is an empty name: give a sound file, -, mic, tone:HZ, noise or silence "
        "(or no INPUT for the bundled sample)");
  ZR::ZRAudioDeviceOptions device =
      ZR::ZRAudioDeviceOptions::fromInput(given ? input : sampleInput());
  if (device.source != ZR::ZRAudioDeviceOptions::Source::File) return device;
  if (access(device.path.c_str(), R_OK) != 0)
    throw std::runtime_error("cannot read input " + device.path + ": " + std::strerror(errno));
  // Opening a FIFO to look at its header consumes it (or waits forever for a writer).
  struct stat st {};
  if (stat(device.path.c_str(), &st) != 0 || !S_ISREG(st.st_mode))
    throw std::runtime_error("input " + device.path +
                             " is not a regular file; send raw 16-bit PCM through - (with --rate "
                             "and --channels) or save the stream to a file first");
  return device;
}

double fileDuration(const std::string& path) {
  struct stat st {};
  if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return 0.0;
  SF_INFO info;
  std::memset(&info, 0, sizeof info);
  SNDFILE* f = sf_open(path.c_str(), SFM_READ, &info);
  if (!f) return 0.0;
  sf_close(f);
  return info.samplerate > 0 ? static_cast<double>(info.frames) / info.samplerate : 0.0;
}

}  // namespace zr
