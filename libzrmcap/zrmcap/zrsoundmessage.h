#pragma once

// How a recording carries sound: one channel per audio device, topic "<device>/Sound", each
// message one buffer as the field's raw-audio JSON message (so that viewers play it), with the
// buffer's stream position and sequence beside it. Written by `zr` when it records, read back by
// the audio device when it replays and by `zr inspect`; docs/recording.md describes it for users
// and python/zr reads the same layout.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace ZR {

/// The topic of a device's sound: the device's name and this.
inline constexpr const char* kSoundTopicSuffix = "/Sound";
inline constexpr const char* kSoundSchemaName = "foxglove.RawAudio";
inline constexpr const char* kSoundSchemaEncoding = "jsonschema";
inline constexpr const char* kJsonEncoding = "json";
/// Channel metadata: "zr.kind" is "sound" or "event"; "zr.module" the producer.
inline constexpr const char* kKindKey = "zr.kind";
inline constexpr const char* kModuleKey = "zr.module";

/// The JSON Schema of a sound message.
const std::string& zrSoundSchema();

/// One recorded buffer.
struct ZRSoundBlock {
  int sampleRate = 0;
  int channels = 0;
  std::int64_t sample = 0;            ///< stream position of its first sample
  std::int64_t sequence = 0;          ///< of the buffer in its stream
  std::int64_t realtimeNs = 0;        ///< capture time of its first sample
  std::vector<std::int16_t> samples;  ///< interleaved

  std::size_t frames() const { return channels > 0 ? samples.size() / channels : 0; }
};

/// The message of `frames` interleaved frames.
std::string zrSoundMessage(int sampleRate, int channels, std::int64_t sample, std::int64_t sequence,
                           std::int64_t realtimeNs, const std::int16_t* samples,
                           std::size_t frames);

/// Reads a sound message into `out`; false, with why in `why`, for anything else.
bool zrReadSoundMessage(const std::uint8_t* data, std::size_t size, ZRSoundBlock& out,
                        std::string& why);

}  // namespace ZR
