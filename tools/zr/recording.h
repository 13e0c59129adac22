#pragma once

// What `zr` records: the sound of the device and every result of a run, each on a channel of
// its own in one recording file (docs/recording.md gives the layout), and what it reads back of
// results.

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include <CLI/CLI.hpp>

#include <zrmcap/zrmcap.h>
#include <zrvalue/zrvalue.h>

namespace zr {

/// The --record options of zr run (and zr record).
struct RecordOptions {
  std::string path;
  std::string sound = "all";  // "all" or "none"
  std::string compression = "zstd";
  void define(CLI::App* cmd, bool required = false);
  bool wanted() const { return !path.empty(); }
  bool withSound() const { return sound == "all"; }
};

/// Writes one recording. Thread-safe: sound comes from the device's delivery, results from the
/// pipeline's; each call blocks for the file when it closes a chunk. A failed write (a full disk)
/// is kept, not thrown at the caller's thread: failure() says it, and close() throws it.
class Recorder {
 public:
  /// Creates the file; throws ZRError when it cannot.
  explicit Recorder(const RecordOptions& options);
  /// One buffer of `device` at `sampleRate`, as its "processRemote" got it.
  void sound(const std::string& device, int sampleRate, int channels, int frames,
             const ZR::ZRValue& timestamp, const ZR::ZRValue& samples);
  /// One result: `event` (its full name) raised by `producer`, made from sound captured at
  /// `captureRealtimeNs` (0: unknown, then now).
  void event(const std::string& event, const std::string& producer, const ZR::ZRValue& value,
             std::int64_t captureRealtimeNs);
  /// Ends the file; throws ZRError for a write that failed, now or before.
  void close();
  /// The first failed write, or "".
  std::string failure() const;

 private:
  std::uint16_t channelFor(const std::string& topic, const std::string& producer,
                           const ZR::ZRValue* value);
  mutable std::mutex mutex_;
  ZR::ZRMcapWriter writer_;
  std::map<std::string, std::uint16_t> channels_;
  std::string failure_;
};

/// A result's value as a recording carries it (a record as an object of its fields, anything
/// else as {"value": ...}), and back; `record` says which the channel holds.
std::string eventJson(const ZR::ZRValue& value);
ZR::ZRValue eventValue(const std::string& json, bool record);

/// Seconds of sound in the recording at `path` (its first sound channel, lost sound left out); 0
/// when it has none or cannot be read.
double recordedSoundSeconds(const std::string& path);

/// The real-time clock's ns of a capture time on the monotonic one; now for 0.
std::int64_t realtimeOf(std::int64_t monotonicNs);

}  // namespace zr
