// The sound of a recording as a source: its buffers as they were recorded, their stream
// positions (a jump is sound lost when it was recorded, replayed as a loss with the reason the
// recording gave), and their capture times.

#include <algorithm>
#include <cstring>
#include <map>

#include <nlohmann/json.hpp>

#include <vo/log.h>

#include <zrcommon/zrservicenames.h>
#include <zrmcap/zrmcap.h>
#include <zrmcap/zrsoundmessage.h>

#include "zraudiosource.h"

namespace ZR {

namespace {

// The recording's first sound channel.
const ZRMcapChannel* soundChannelOf(const ZRMcapSummary& summary) {
  for (const auto& [id, channel] : summary.channels) {
    auto kind = channel.metadata.find(kKindKey);
    if (kind != channel.metadata.end()
            ? kind->second == "sound"
            : summary.schemas.count(channel.schemaId) &&
                  summary.schemas.at(channel.schemaId).name == kSoundSchemaName)
      return &channel;
  }
  return nullptr;
}

class RecordingSource : public ZRAudioSource {
 public:
  /// `announce`: says when the recording was cut short (the source that plays it; not a probe).
  RecordingSource(const ZRAudioDeviceOptions& options, const std::string& module,
                  const std::string& method, bool announce)
      : path_(options.path), module_(module), method_(method) {
    try {
      reader_ = std::make_unique<ZRMcapReader>(path_);
    } catch (const ZRError& e) {
      fail(e.getDescription());
    }
    const ZRMcapSummary& summary = reader_->summary();
    const ZRMcapChannel* sound = soundChannelOf(summary);
    if (!sound)
      fail("holds no sound (no channel of \"" + std::string(kSoundSchemaName) + "\")" +
           (summary.complete ? "" : "; " + summary.damage));
    sound_ = sound->id;
    readGaps(sound->metadata.count(kModuleKey) ? sound->metadata.at(kModuleKey)
                                               : std::string(kAudioDeviceServiceName));
    cursor_ = reader_->messages({sound_});
    if (!nextBlock()) fail("holds no sound" + (summary.complete ? "" : "; " + summary.damage));
    format_.sampleRate = block_.sampleRate;
    format_.channels = block_.channels;
    format_.samplesPerBuffer = static_cast<int>(block_.frames());
    // The stream starts where the recording does, or before the sound it lost right away.
    first_ = block_.sample;
    for (auto g = gaps_.begin(); g != gaps_.end(); ++g)
      if (g->first + g->second.samples == first_) first_ = g->first;
    expected_ = first_;
    if (announce && !summary.complete)
      VO_LOG(vo::LogLevel_Warning, kAudioDeviceCategory)
          << module << ": \"" << path_ << "\" " << summary.damage << "; replaying what it holds";
  }

  const ZRAudioFormat& format() const { return format_; }

  std::size_t read(std::int16_t* out, std::size_t frames, const std::atomic<bool>& stop) override {
    std::size_t filled = 0;
    realtimeNs_ = 0;
    while (filled < frames && !stop) {
      if (offset_ == block_.frames() && !nextBlock()) {
        // Sound lost after the last buffer ends the stream as it ended it.
        auto last = gaps_.find(expected_);
        if (filled == 0 && last != gaps_.end()) lose(last->second.samples);
        break;
      }
      if (offset_ == 0 && block_.sample > expected_) {
        if (filled > 0) break;  // the loss comes before the frames of the next read
        lose(block_.sample - expected_);
      }
      const std::size_t n = std::min(frames - filled, block_.frames() - offset_);
      if (filled == 0 && block_.realtimeNs > 0)
        realtimeNs_ =
            block_.realtimeNs + static_cast<std::int64_t>(offset_) * 1000000000 / block_.sampleRate;
      const std::size_t channels = static_cast<std::size_t>(block_.channels);
      std::memcpy(out + filled * channels, block_.samples.data() + offset_ * channels,
                  n * channels * sizeof(std::int16_t));
      filled += n, offset_ += n;
      expected_ += static_cast<std::int64_t>(n);
    }
    return filled;
  }

  Loss takeLoss() override { return std::exchange(loss_, {}); }

  // `frames` lost at the expected position, for the reason recorded there.
  void lose(std::int64_t frames) {
    auto gap = gaps_.find(expected_);
    loss_.frames += frames;
    loss_.reason = gap != gaps_.end() ? gap->second.reason : "not in the recording";
    expected_ += frames;
  }
  std::int64_t firstPosition() const override { return first_; }
  std::int64_t capturedRealtimeNs() const override { return realtimeNs_; }

 private:
  [[noreturn]] void fail(const std::string& why) const {
    throw ZRError(module_, method_, "\"" + path_ + "\": " + why);
  }

  // The next buffer of the sound channel; false at its end. A buffer in another format than the
  // first is damage, not a new stream.
  bool nextBlock() {
    ZRMcapMessage m;
    try {
      if (!cursor_.next(m)) return false;
    } catch (const ZRError& e) {
      fail(e.getDescription());
    }
    std::string why;
    ZRSoundBlock next;
    if (!zrReadSoundMessage(m.data, m.size, next, why))
      fail("has a sound message (sequence " + std::to_string(m.sequence) +
           ") that is not one: " + why);
    if (format_.sampleRate != 0 &&
        (next.sampleRate != format_.sampleRate || next.channels != format_.channels))
      fail("changes its sound format mid-stream (sequence " + std::to_string(m.sequence) + ")");
    if (next.sample < expected_ && format_.sampleRate != 0)
      next.sample = expected_;  // sound recorded by others may carry no positions
    block_ = std::move(next);
    offset_ = 0;
    return true;
  }

  // The recorded announcements of lost sound, by their position: a replayed loss says what the
  // recorded one said, and one before the first buffer or after the last is replayed too.
  void readGaps(const std::string& device) {
    const std::string topic = device + "/Gap";
    std::vector<std::uint16_t> ids;
    for (const auto& [id, channel] : reader_->summary().channels)
      if (channel.topic == topic) ids.push_back(id);
    if (ids.empty()) return;
    reader_->forEachMessage(
        [&](const ZRMcapMessage& m) {
          const auto gap = nlohmann::json::parse(m.data, m.data + m.size, nullptr, false);
          if (gap.is_object() && gap.contains("start") && gap["start"].is_number_integer() &&
              gap.contains("samples") && gap["samples"].is_number_integer() &&
              gap.contains("reason") && gap["reason"].is_string())
            gaps_[gap["start"].get<std::int64_t>()] = {gap["samples"].get<std::int64_t>(),
                                                       gap["reason"].get<std::string>()};
          return true;
        },
        ids);
  }

  std::string path_, module_, method_;
  std::unique_ptr<ZRMcapReader> reader_;
  ZRMcapReader::Cursor cursor_;
  std::uint16_t sound_ = 0;
  struct Gap {
    std::int64_t samples = 0;
    std::string reason;
  };
  std::map<std::int64_t, Gap> gaps_;  // by position
  ZRAudioFormat format_;
  ZRSoundBlock block_;
  std::size_t offset_ = 0;
  std::int64_t expected_ = 0, first_ = 0, realtimeNs_ = 0;
  Loss loss_;
};

}  // namespace

bool probeRecordingFormat(const ZRAudioDeviceOptions& options, ZRAudioFormat& format) {
  try {
    format = RecordingSource(options, kAudioDeviceServiceName, "probe", false).format();
    // Asked for another format, the subscribe that opens it says why it cannot be.
    format.sampleRate = options.sampleRate.value_or(format.sampleRate);
    format.channels = options.channelCount.value_or(format.channels);
    return true;
  } catch (const ZRError&) {
    return false;  // said by the subscribe that opens it
  }
}

std::unique_ptr<ZRAudioSource> openRecordingSource(const ZRAudioDeviceOptions& options,
                                                   const ZRAudioFormat& format,
                                                   const std::string& module,
                                                   const std::string& method) {
  auto source = std::make_unique<RecordingSource>(options, module, method, true);
  const ZRAudioFormat& recorded = source->format();
  const auto channels = [](int n) {
    return std::to_string(n) + (n == 1 ? " channel" : " channels");
  };
  if (recorded.sampleRate != format.sampleRate || recorded.channels != format.channels)
    throw ZRError(module, method,
                  "\"" + options.path + "\" was recorded at " +
                      std::to_string(recorded.sampleRate) + " Hz with " +
                      channels(recorded.channels) +
                      "; a recording is replayed as it was recorded, not at " +
                      std::to_string(format.sampleRate) + " Hz with " + channels(format.channels));
  return source;
}

}  // namespace ZR
