#include "input.h"
#include "recording.h"

#include <sndfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include <CLI/CLI.hpp>

#include <zrerror/zrdefaults.h>

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
  using Source = ZR::ZRAudioDeviceOptions::Source;
  if (device.source != Source::File && device.source != Source::Recording) return device;
  if (access(device.path.c_str(), R_OK) != 0)
    throw std::runtime_error("cannot read input " + device.path + ": " + std::strerror(errno));
  if (device.source == Source::Recording) {
    checkRecordingInput(device.path);
    return device;
  }
  // Opening a FIFO to look at its header consumes it (or waits forever for a writer).
  struct stat st {};
  if (stat(device.path.c_str(), &st) != 0 || !S_ISREG(st.st_mode))
    throw std::runtime_error("input " + device.path +
                             " is not a regular file; send raw 16-bit PCM through - (with --rate "
                             "and --channels) or save the stream to a file first");
  // Said here, in one line, rather than by the device as a chain of the calls that opened it.
  SF_INFO info{};
  SNDFILE* f = sf_open(device.path.c_str(), SFM_READ, &info);
  if (!f)
    throw std::runtime_error("cannot read input " + device.path + ": " + sf_strerror(nullptr));
  sf_close(f);
  return device;
}

void DeviceFlags::define(CLI::App* cmd) {
  cmd->add_flag("--realtime", realtime, "Pace the input at real time (drops when extractors lag).");
  cmd->add_option("--rate", rate,
                  "Sample rate in Hz (default: a file's own, which is resampled when this is "
                  "given; " +
                      std::to_string(ZR::kDefaultSampleRate) + " for other inputs).")
      ->check(CLI::Range(1000, 384000));
  cmd->add_option("--channels", channels, "Channel count (default: a file's own, else 1).")
      ->check(CLI::Range(1, 32));
  cmd->add_option("--buffer", buffer, "Samples per channel in each buffer (default: 100 ms).")
      ->check(CLI::Range(1, 1 << 20));
  cmd->add_option("--inject-gap", gaps,
                  "AT:N drops N samples at sample AT of the input, as a capture overrun would "
                  "(repeatable; for drills of loss handling).")
      ->check([](const std::string& text) {
        ZR::ZRAudioDeviceOptions::InjectedGap g;
        return parseGap(text, g) ? std::string()
                                 : "wants AT:N, a sample position and a count > 0, not " + text;
      });
  cmd->add_option("--clock-skew", clockSkewPpm,
                  "Run the input's clock PPM parts per million fast (or slow, negative), as a "
                  "sound card's would; implies --realtime.")
      ->check(CLI::Range(-100000.0, 100000.0));
}

bool DeviceFlags::parseGap(const std::string& text, ZR::ZRAudioDeviceOptions::InjectedGap& gap) {
  const std::size_t colon = text.find(':');
  if (colon == std::string::npos) return false;
  try {
    std::size_t a = 0, b = 0;
    gap.at = std::stoll(text.substr(0, colon), &a);
    gap.samples = std::stoll(text.substr(colon + 1), &b);
    return a == colon && b == text.size() - colon - 1 && gap.at >= 0 && gap.samples > 0;
  } catch (const std::exception&) {
    return false;
  }
}

void DeviceFlags::apply(ZR::ZRAudioDeviceOptions& device) const {
  if (rate > 0) device.sampleRate = rate;
  if (channels > 0) device.channelCount = channels;
  if (buffer > 0) device.samplesPerBuffer = buffer;
  device.realtime = realtime || clockSkewPpm != 0;
  device.clockSkewPpm = clockSkewPpm;
  device.injectedGaps.clear();
  for (const std::string& text : gaps) {
    ZR::ZRAudioDeviceOptions::InjectedGap g;
    if (parseGap(text, g)) device.injectedGaps.push_back(g);
  }
}

std::string rawInputNotice(const ZR::ZRAudioDeviceOptions& device) {
  if (device.source != ZR::ZRAudioDeviceOptions::Source::RawPcm ||
      (device.sampleRate && device.channelCount))
    return "";
  return "zr: " + device.describe() + " is read as 16-bit " +
         std::to_string(device.sampleRate.value_or(ZR::kDefaultSampleRate)) + " Hz " +
         (device.channelCount.value_or(1) == 1
              ? std::string("mono")
              : std::to_string(*device.channelCount) + " channels") +
         "; give --rate HZ and --channels N if it is not";
}

InputList expandInputs(const std::vector<std::string>& inputs) {
  InputList list;
  for (const std::string& input : inputs) {
    struct stat st {};
    if (stat(input.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
      // A file is run as named, so that its failure is said in its turn.
      if (ZR::ZRAudioDeviceOptions::fromInput(input).source !=
          ZR::ZRAudioDeviceOptions::Source::File)
        throw CLI::ValidationError("INPUT",
                                   "with several inputs each is a sound file or a "
                                   "directory of them; \"" +
                                       input + "\" is neither");
      list.files.push_back(input);
      continue;
    }
    std::vector<std::string> found;
    namespace fs = std::filesystem;
    std::error_code error;
    fs::recursive_directory_iterator it(input, fs::directory_options::follow_directory_symlink,
                                        error);
    if (error) throw std::runtime_error("cannot read directory " + input + ": " + error.message());
    for (; it != fs::recursive_directory_iterator(); it.increment(error)) {
      if (error)
        throw std::runtime_error("cannot read directory " + input + ": " + error.message());
      const std::string name = it->path().filename().string();
      if (!name.empty() && name[0] == '.') {  // hidden: neither the file nor what is inside
        if (it->is_directory(error)) it.disable_recursion_pending();
        continue;
      }
      if (!it->is_regular_file(error)) continue;
      SF_INFO info{};
      SNDFILE* f = sf_open(it->path().c_str(), SFM_READ, &info);
      if (!f) {
        ++list.skipped;
        continue;
      }
      sf_close(f);
      found.push_back(it->path().string());
    }
    if (found.empty())
      throw std::runtime_error("directory " + input + " holds no sound file that zr can read");
    std::sort(found.begin(), found.end());
    list.files.insert(list.files.end(), found.begin(), found.end());
  }
  return list;
}

double fileDuration(const std::string& path) {
  struct stat st {};
  if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return 0.0;
  if (ZR::ZRAudioDeviceOptions::fromInput(path).source ==
      ZR::ZRAudioDeviceOptions::Source::Recording)
    return recordedSoundSeconds(path);
  SF_INFO info;
  std::memset(&info, 0, sizeof info);
  SNDFILE* f = sf_open(path.c_str(), SFM_READ, &info);
  if (!f) return 0.0;
  sf_close(f);
  return info.samplerate > 0 ? static_cast<double>(info.frames) / info.samplerate : 0.0;
}

}  // namespace zr
