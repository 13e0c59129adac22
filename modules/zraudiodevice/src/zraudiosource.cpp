#include "zraudiosource.h"

#include <alsa/asoundlib.h>
#include <fcntl.h>
#include <poll.h>
#include <samplerate.h>
#include <sndfile.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <random>
#include <utility>
#include <vector>

#include <vo/log.h>
#include <zrcommon/zrservicenames.h>
#include <zrerror/zrerror.h>

namespace ZR {

namespace {

// Mono to any count and any count to mono; everything else is refused when the source opens.
bool canConvertChannels(int from, int to) {
  return from == to || from == 1 || to == 1;
}

void convertChannels(const std::int16_t* in, int inChannels, std::int16_t* out, int outChannels,
                     std::size_t frames) {
  if (inChannels == outChannels) {
    std::memcpy(out, in, frames * static_cast<std::size_t>(inChannels) * sizeof(std::int16_t));
  } else if (inChannels == 1) {
    for (std::size_t f = 0; f < frames; ++f)
      for (int c = 0; c < outChannels; ++c) out[f * outChannels + c] = in[f];
  } else {
    for (std::size_t f = 0; f < frames; ++f) {
      int sum = 0;
      for (int c = 0; c < inChannels; ++c) sum += in[f * inChannels + c];
      out[f] = static_cast<std::int16_t>(sum / inChannels);
    }
  }
}

class FileSource : public ZRAudioSource {
 public:
  FileSource(const ZRAudioDeviceOptions& options, const ZRAudioFormat& format,
             const std::string& module, const std::string& method)
      : out_(format) {
    SF_INFO info{};
    file_ = sf_open(options.path.c_str(), SFM_READ, &info);
    if (!file_) {
      throw ZRError(module, method,
                    "cannot open sound file \"" + options.path + "\": " + sf_strerror(nullptr));
    }
    in_.sampleRate = info.samplerate;
    in_.channels = info.channels;
    path_ = options.path;
    // Read as 16-bit, the library turns floating-point samples into integers without scaling
    // them (silence); every other format it reads scales, and reading shorts is 5x faster.
    const int subtype = info.format & SF_FORMAT_SUBMASK;
    floatSamples_ = subtype == SF_FORMAT_FLOAT || subtype == SF_FORMAT_DOUBLE;
    if (!canConvertChannels(in_.channels, out_.channels)) {
      sf_close(file_);
      throw ZRError(module, method,
                    "cannot convert the " + std::to_string(in_.channels) + " channels of \"" +
                        options.path + "\" to " + std::to_string(out_.channels) +
                        ": ask for 1 channel or for the file's own count");
    }
    if (in_.sampleRate != out_.sampleRate) {
      int error = 0;
      resampler_ = src_new(SRC_SINC_MEDIUM_QUALITY, in_.channels, &error);
      if (!resampler_) {
        sf_close(file_);
        throw ZRError(
            module, method,
            std::string("cannot create the sample rate converter: ") + src_strerror(error));
      }
      ratio_ = static_cast<double>(out_.sampleRate) / in_.sampleRate;
    }
  }
  ~FileSource() override {
    if (resampler_) src_delete(resampler_);
    sf_close(file_);
  }

  std::size_t read(std::int16_t* out, std::size_t frames, const std::atomic<bool>& stop) override {
    std::size_t done = 0;
    while (done < frames && !stop.load(std::memory_order_relaxed)) {
      const std::size_t got = resampler_ ? readResampled(out + done * out_.channels, frames - done)
                                         : readDirect(out + done * out_.channels, frames - done);
      if (got == 0) break;
      done += got;
    }
    return done;
  }

 private:
  std::size_t readDirect(std::int16_t* out, std::size_t frames) {
    const bool same = in_.channels == out_.channels;
    if (!same) shorts_.resize(frames * in_.channels);
    std::int16_t* into = same ? out : shorts_.data();
    std::size_t got = 0;
    if (floatSamples_) {
      input_.resize(frames * in_.channels);
      got = checked(sf_readf_float(file_, input_.data(), frames));
      toShorts(input_.data(), into, got * in_.channels);
    } else {
      got = checked(sf_readf_short(file_, into, frames));
    }
    if (!same) convertChannels(shorts_.data(), in_.channels, out, out_.channels, got);
    return got;
  }

  // Full scale is 1.0. Floating-point files may go beyond it: clipped, and said once.
  void toShorts(const float* in, std::int16_t* out, std::size_t count) {
    std::size_t clipped = 0;
    for (std::size_t i = 0; i < count; ++i) {
      const float v = in[i] * 32768.0f;
      if (v > 32767.0f) {
        out[i] = 32767;
        clipped += v > 32768.0f;  // exactly 1.0, a file normalised to full scale, is no clip
      } else if (v < -32768.0f) {
        out[i] = -32768;
        ++clipped;
      } else {
        out[i] = static_cast<std::int16_t>(std::lrint(std::isnan(v) ? 0.0f : v));
      }
    }
    if (clipped && !warnedClipping_) {
      warnedClipping_ = true;
      VO_LOG(vo::LogLevel_Warning, kAudioDeviceCategory)
          << "\"" << path_ << "\" holds samples beyond full scale: they are clipped to 16 bits, so "
          << "its loudest passages read as 0 dBFS";
    }
  }

  std::size_t readResampled(std::int16_t* out, std::size_t frames) {
    for (;;) {
      if (pendingFrames_ == 0 && !endOfFile_) {
        const std::size_t chunk = std::max<std::size_t>(256, frames);
        input_.resize(chunk * in_.channels);
        pendingFrames_ = checked(sf_readf_float(file_, input_.data(), chunk));
        pendingOffset_ = 0;
        endOfFile_ = pendingFrames_ == 0;
      }
      resampled_.resize(frames * in_.channels);
      SRC_DATA data{};
      data.data_in = input_.data() + pendingOffset_ * in_.channels;
      data.input_frames = static_cast<long>(pendingFrames_);
      data.data_out = resampled_.data();
      data.output_frames = static_cast<long>(frames);
      data.end_of_input = endOfFile_ ? 1 : 0;
      data.src_ratio = ratio_;
      if (int error = src_process(resampler_, &data))
        throw ZRError(kAudioDeviceServiceName, "read",
                      std::string("resampling failed: ") + src_strerror(error));
      pendingOffset_ += static_cast<std::size_t>(data.input_frames_used);
      pendingFrames_ -= static_cast<std::size_t>(data.input_frames_used);
      const std::size_t got = static_cast<std::size_t>(data.output_frames_gen);
      if (got > 0) {
        shorts_.resize(got * in_.channels);
        toShorts(resampled_.data(), shorts_.data(), got * in_.channels);
        convertChannels(shorts_.data(), in_.channels, out, out_.channels, got);
        return got;
      }
      if (endOfFile_ && pendingFrames_ == 0) return 0;  // the converter is drained
    }
  }

  std::size_t checked(sf_count_t count) {
    if (count < 0 || sf_error(file_) != SF_ERR_NO_ERROR)
      throw ZRError(kAudioDeviceServiceName, "read",
                    "cannot read the sound file \"" + path_ + "\": " + sf_strerror(file_));
    return static_cast<std::size_t>(count);
  }

  ZRAudioFormat in_, out_;
  std::string path_;
  bool floatSamples_ = false, warnedClipping_ = false;
  SNDFILE* file_ = nullptr;
  SRC_STATE* resampler_ = nullptr;
  double ratio_ = 1.0;
  std::vector<float> input_, resampled_;
  std::vector<std::int16_t> shorts_;
  std::size_t pendingOffset_ = 0, pendingFrames_ = 0;
  bool endOfFile_ = false;
};

class SyntheticSource : public ZRAudioSource {
 public:
  SyntheticSource(const ZRAudioDeviceOptions& options, const ZRAudioFormat& format)
      : options_(options), format_(format) {
    if (options.durationSeconds)
      remaining_ = std::llround(*options.durationSeconds * format.sampleRate);
  }

  std::size_t read(std::int16_t* out, std::size_t frames, const std::atomic<bool>&) override {
    if (remaining_ >= 0) {
      frames = std::min<std::size_t>(frames, static_cast<std::size_t>(remaining_));
      remaining_ -= static_cast<long long>(frames);
    }
    const double scale = options_.amplitude * 32767.0;
    const int channels = format_.channels;
    switch (options_.source) {
      case ZRAudioDeviceOptions::Source::Tone:
        for (std::size_t f = 0; f < frames; ++f) {
          // The phase comes from the frame index, not an accumulator, so it never drifts.
          const double cycles = std::fmod(options_.frequency * static_cast<double>(index_ + f),
                                          static_cast<double>(format_.sampleRate));
          const auto v = static_cast<std::int16_t>(
              std::lround(scale * std::sin(2.0 * M_PI * cycles / format_.sampleRate)));
          for (int c = 0; c < channels; ++c) out[f * channels + c] = v;
        }
        break;
      case ZRAudioDeviceOptions::Source::Noise: {
        std::uniform_real_distribution<double> level(-scale, scale);
        for (std::size_t i = 0; i < frames * channels; ++i)
          out[i] = static_cast<std::int16_t>(std::lround(level(random_)));
        break;
      }
      default:
        std::fill(out, out + frames * channels, std::int16_t{0});
    }
    index_ += static_cast<long long>(frames);
    return frames;
  }

 private:
  ZRAudioDeviceOptions options_;
  ZRAudioFormat format_;
  long long remaining_ = -1;  // -1: endless
  long long index_ = 0;
  std::mt19937 random_{0x5eed};
};

class RawSource : public ZRAudioSource {
 public:
  RawSource(const ZRAudioDeviceOptions& options, const ZRAudioFormat& format,
            const std::string& module, const std::string& method)
      : frameBytes_(static_cast<std::size_t>(format.channels) * sizeof(std::int16_t)) {
    if (options.fileDescriptor >= 0) {
      fd_ = options.fileDescriptor;
    } else if (options.path == "-" || options.path.empty()) {
      fd_ = STDIN_FILENO;
    } else {
      fd_ = ::open(options.path.c_str(), O_RDONLY | O_CLOEXEC);
      if (fd_ < 0)
        throw ZRError(
            module, method,
            "cannot open raw PCM input \"" + options.path + "\": " + std::strerror(errno));
      owned_ = true;
    }
  }
  ~RawSource() override {
    if (owned_) ::close(fd_);
  }

  std::size_t read(std::int16_t* out, std::size_t frames, const std::atomic<bool>& stop) override {
    auto* bytes = reinterpret_cast<unsigned char*>(out);
    const std::size_t wanted = frames * frameBytes_;
    std::size_t have = carry_.size();
    if (have) std::memcpy(bytes, carry_.data(), have);
    carry_.clear();
    while (have < wanted && !endOfInput_ && !stop.load(std::memory_order_relaxed)) {
      // Polling with a timeout lets an unsubscribe stop a reader whose writer is silent.
      pollfd p{fd_, POLLIN, 0};
      const int ready = ::poll(&p, 1, 50);
      if (ready < 0 && errno != EINTR)
        throw ZRError(kAudioDeviceServiceName, "read",
                      std::string("poll failed: ") + std::strerror(errno));
      if (ready <= 0) continue;
      const ssize_t n = ::read(fd_, bytes + have, wanted - have);
      if (n > 0) {
        have += static_cast<std::size_t>(n);
      } else if (n == 0) {
        endOfInput_ = true;
      } else if (errno != EINTR && errno != EAGAIN) {
        throw ZRError(kAudioDeviceServiceName, "read",
                      std::string("cannot read raw PCM input: ") + std::strerror(errno));
      }
    }
    const std::size_t whole = have / frameBytes_;
    const std::size_t partial = have - whole * frameBytes_;
    // A frame split across reads waits for its end; at the end of input it is dropped, said once.
    if (!endOfInput_) {
      carry_.assign(bytes + whole * frameBytes_, bytes + have);
    } else if (partial) {
      VO_LOG(vo::LogLevel_Warning, kAudioDeviceCategory)
          << "raw PCM input ended with " << partial << " byte(s) that make no whole frame of "
          << frameBytes_ / sizeof(std::int16_t) << " 16-bit sample(s); they were dropped";
    }
    return whole;
  }

 private:
  std::size_t frameBytes_;
  int fd_ = -1;
  bool owned_ = false;
  bool endOfInput_ = false;
  std::vector<unsigned char> carry_;
};

// ALSA prints its own diagnostics on stderr; the device reports failures as ZRError instead, so
// the library's printing is silenced.
extern "C" void quietAlsaErrors(const char*, int, const char*, int, const char*, ...) {}

class AlsaSource : public ZRAudioSource {
 public:
  AlsaSource(const ZRAudioDeviceOptions& options, const ZRAudioFormat& format,
             const std::string& module, const std::string& method)
      : name_(options.path.empty() ? "default" : options.path),
        channels_(format.channels),
        rate_(format.sampleRate) {
    static const bool quiet = (snd_lib_error_set_handler(quietAlsaErrors), true);
    (void)quiet;
    int err = snd_pcm_open(&pcm_, name_.c_str(), SND_PCM_STREAM_CAPTURE, 0);
    if (err < 0)
      throw ZRError(module, method,
                    "cannot open microphone \"" + name_ + "\": " + snd_strerror(err));
    // Let ALSA convert rate and channels when the hardware cannot do ours; 200 ms of latency
    // absorbs scheduling hiccups without overruns.
    err = snd_pcm_set_params(pcm_, SND_PCM_FORMAT_S16, SND_PCM_ACCESS_RW_INTERLEAVED,
                             static_cast<unsigned>(format.channels),
                             static_cast<unsigned>(format.sampleRate), 1, 200000);
    if (err < 0) {
      snd_pcm_close(pcm_);
      throw ZRError(module, method,
                    "cannot capture " + std::to_string(format.channels) + " channel(s) at " +
                        std::to_string(format.sampleRate) + " Hz from microphone \"" + name_ +
                        "\": " + snd_strerror(err));
    }
  }
  ~AlsaSource() override { snd_pcm_close(pcm_); }
  bool isHardware() const override { return true; }

  std::size_t read(std::int16_t* out, std::size_t frames, const std::atomic<bool>& stop) override {
    std::size_t done = 0;
    while (done < frames && !stop.load(std::memory_order_relaxed)) {
      if (snd_pcm_wait(pcm_, 100) == 0) continue;  // timeout: look at `stop` again
      const snd_pcm_sframes_t n = snd_pcm_readi(pcm_, out + done * channels_, frames - done);
      if (n >= 0) {
        done += static_cast<std::size_t>(n);
        continue;
      }
      if (n == -EAGAIN) continue;
      const std::int64_t lost = n == -EPIPE ? overrunFrames() : 0;
      const int err = snd_pcm_recover(pcm_, static_cast<int>(n), 1);
      if (err < 0)
        throw ZRError(kAudioDeviceServiceName, "read",
                      "microphone \"" + name_ + "\" failed: " + snd_strerror(err));
      VO_LOG(vo::LogLevel_Warning, kAudioDeviceCategory)
          << "microphone \"" << name_ << "\" overran: about " << lost << " samples were lost ("
          << snd_strerror(static_cast<int>(n)) << ")";
      // What came before the overrun goes out on its own: a buffer's samples are contiguous.
      pendingLoss_ += lost;
      if (done > 0) break;
      loss_ += std::exchange(pendingLoss_, 0);
    }
    return done;
  }

  Loss takeLoss() override {
    Loss l{loss_, "overrun"};
    loss_ = std::exchange(pendingLoss_, 0);
    return l;
  }

 private:
  // ALSA does not count what an overrun loses: the full ring it discards, plus the time from
  // the overrun to the restart, at the nominal rate.
  std::int64_t overrunFrames() {
    snd_pcm_uframes_t ring = 0, period = 0;
    snd_pcm_get_params(pcm_, &ring, &period);
    snd_pcm_status_t* status = nullptr;
    snd_pcm_status_alloca(&status);
    std::int64_t frames = static_cast<std::int64_t>(ring);
    if (snd_pcm_status(pcm_, status) == 0) {
      snd_htimestamp_t since{}, now{};
      snd_pcm_status_get_trigger_htstamp(status, &since);
      snd_pcm_status_get_htstamp(status, &now);
      const double seconds = static_cast<double>(now.tv_sec - since.tv_sec) +
                             static_cast<double>(now.tv_nsec - since.tv_nsec) * 1e-9;
      if (since.tv_sec > 0 && seconds > 0 && seconds < 3600)
        frames += std::llround(seconds * rate_);
    }
    return frames;
  }

  std::string name_;
  int channels_;
  int rate_;
  snd_pcm_t* pcm_ = nullptr;
  std::int64_t loss_ = 0, pendingLoss_ = 0;
};

}  // namespace

bool probeFileFormat(const ZRAudioDeviceOptions& options, ZRAudioFormat& format) {
  if (options.source == ZRAudioDeviceOptions::Source::Recording)
    return probeRecordingFormat(options, format);
  SF_INFO info{};
  SNDFILE* file = sf_open(options.path.c_str(), SFM_READ, &info);
  if (!file) return false;
  sf_close(file);
  format.sampleRate = options.sampleRate.value_or(info.samplerate);
  format.channels = options.channelCount.value_or(info.channels);
  return true;
}

std::unique_ptr<ZRAudioSource> openAudioSource(const ZRAudioDeviceOptions& options,
                                               const ZRAudioFormat& format,
                                               const std::string& module,
                                               const std::string& method) {
  using Source = ZRAudioDeviceOptions::Source;
  switch (options.source) {
    case Source::File:
      return std::make_unique<FileSource>(options, format, module, method);
    case Source::Microphone:
      return std::make_unique<AlsaSource>(options, format, module, method);
    case Source::RawPcm:
      return std::make_unique<RawSource>(options, format, module, method);
    case Source::Tone:
    case Source::Noise:
    case Source::Silence:
      return std::make_unique<SyntheticSource>(options, format);
    case Source::Recording:
      return openRecordingSource(options, format, module, method);
    case Source::Host:
      break;
  }
  return nullptr;
}

}  // namespace ZR
