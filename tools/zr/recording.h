#pragma once

// What `zr` records: the sound of the device and every result of a run, each on a channel of
// its own in one recording file (docs/recording.md gives the layout), and what it reads back of
// results.

#include <chrono>
#include <cstdint>
#include <deque>
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
  /// `captureNs` on this host's monotonic clock (0: unknown, then now). Its log time is the real
  /// time of that capture as the sound's buffer says it (a replayed recording's own), else as the
  /// clocks convert it.
  void event(const std::string& event, const std::string& producer, const ZR::ZRValue& value,
             std::int64_t captureNs);
  /// Ends the file; throws ZRError for a write that failed, now or before.
  void close();
  /// The first failed write, or "".
  std::string failure() const;

 private:
  struct Pending {
    std::string event, producer;
    ZR::ZRValue value;
    std::int64_t captureNs;
    std::chrono::steady_clock::time_point received;
  };
  std::uint16_t channelFor(const std::string& topic, const std::string& producer,
                           const ZR::ZRValue* value);
  void writeResult(const Pending& p);
  void writePending();  // the oldest waiting result
  // One message on `topic`'s channel (made on first use; `value` null for sound).
  void write(const std::string& topic, const std::string& producer, const ZR::ZRValue* value,
             std::uint64_t logTime, const std::string& message);
  const std::string path_;
  const bool withSound_;
  mutable std::mutex mutex_;
  ZR::ZRMcapWriter writer_;
  std::deque<Pending> pending_;  // results waiting for the buffer they were made from
  std::map<std::string, std::uint16_t> channels_;
  std::map<std::int64_t, std::int64_t> captured_;  // recent buffers: monotonic ns -> real-time ns
  std::string failure_;
};

/// A result's value as a recording carries it (a record as an object of its fields, anything
/// else as {"value": ...}), and back; `record` says which the channel holds.
std::string eventJson(const ZR::ZRValue& value);
ZR::ZRValue eventValue(const std::string& json, bool record);
/// The JSON Schema of `topic`'s values as eventJson writes them, from one of them (null: none
/// seen yet, any object).
std::string eventSchema(const std::string& topic, const ZR::ZRValue* value);

/// Throws std::runtime_error with a line for the user unless `path` is a recording with sound
/// (what a device replays).
void checkRecordingInput(const std::string& path);

/// Seconds of sound in the recording at `path` (its first sound channel, lost sound left out); 0
/// when it has none or cannot be read.
double recordedSoundSeconds(const std::string& path);

/// The real-time clock's ns of a capture time on the monotonic one; now for 0.
std::int64_t realtimeOf(std::int64_t monotonicNs);

}  // namespace zr
