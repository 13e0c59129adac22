#include "zraudiorecorder.h"

#include <sndfile.h>

#include <vo/log.h>
#include <zrerror/zrerror.h>

namespace ZR {

ZRAudioRecorder::~ZRAudioRecorder() {
  stop();
}

void ZRAudioRecorder::start(const std::string& path, const ZRAudioFormat& format,
                            const std::string& device) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (file_) throw ZRError(device, "startRecording", "already recording; call stopRecording first");
  SF_INFO info{};
  info.samplerate = format.sampleRate;
  info.channels = format.channels;
  info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
  SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
  if (!file)
    throw ZRError(device, "startRecording",
                  "cannot create \"" + path + "\": " + sf_strerror(nullptr));
  file_ = file;
  frames_ = 0;
}

std::int64_t ZRAudioRecorder::stop() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!file_) return 0;
  sf_close(file_);
  file_ = nullptr;
  return frames_;
}

void ZRAudioRecorder::record(const ZRValue& buffer, std::size_t frames, const std::string& device) {
  std::string lost;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!file_) return;
    const auto* samples = static_cast<const short*>(buffer.GetBinary());
    const sf_count_t written = sf_writef_short(file_, samples, static_cast<sf_count_t>(frames));
    frames_ += written;
    if (written != static_cast<sf_count_t>(frames)) lost = sf_strerror(file_);
  }
  if (!lost.empty())
    VO_LOG(vo::LogLevel_Warning, kAudioDeviceCategory)
        << device << ": recording lost samples: " << lost;
}

}  // namespace ZR
