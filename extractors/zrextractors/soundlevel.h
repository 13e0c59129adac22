#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include <zrerror/zrdefaults.h>
#include <zrproxies/zrmemoryproxy.h>
#include <zrsoundextractor/zrsoundextractor.h>

namespace ZR {

/// Per channel, the RMS and peak level in dBFS over consecutive windows of the current period
/// (ms of audio, not of wall time).
///
/// Outputs, for a module registered as N:
/// - event "N/Levels", raised per window with the record
///   [["time", s], ["rms", [dB per channel]], ["peak", [dB per channel]]], where time is the
///   window's first sample in seconds from the start of the stream; the memory key of the same
///   name holds the latest one;
/// - event "N/ThresholdCrossed", raised when a channel's RMS level rises to the threshold or falls
///   below threshold - hysteresis: [["time", s], ["channel", c], ["state", "loud"|"quiet"],
///   ["rms", dB]].
/// Levels are floored at -120 dBFS, so that silence has a finite level. The remote "flush"
/// publishes the window still open (shorter than the period) at the end of a stream.
///
/// Concurrency: buffers, "flush" and "setThreshold" may arrive on any threads at once; buffers
/// and "flush" are serialised by one mutex, held for the samples of one buffer (no call out of
/// the module waits under it except raising events, which the memory service only queues).
/// A buffer whose counts do not fit its samples (see samplesFit) is ignored and counted, with a
/// warning at the 1st, 10th, 100th... such buffer.
class SoundLevel : public ZRSoundExtractor {
 public:
  static constexpr float kFloorDb = -120.0f;

  SoundLevel(boost::shared_ptr<ZRBroker> broker, const std::string& name,
             int defaultPeriodMs = 100);
  ~SoundLevel() override;

  int getDefaultPeriod() override { return defaultPeriodMs_; }
  void startDetection() override;
  void xStartDetection(int period, float precision) override;
  void xUpdateParameters(int period, float precision) override;
  void process(const int& nbOfChannels, const int& nbOfSamplesByChannel, const short* buffer,
               const ZRValue& timestamp) override;

  /// Remote: the crossing threshold and hysteresis, both in dB.
  void setThreshold(const float& thresholdDb, const float& hysteresisDb);
  /// Remote: publishes the partial window, if any, as the end of a stream would.
  void flush();
  std::string levelsEvent() const { return getName() + "/Levels"; }
  std::string thresholdEvent() const { return getName() + "/ThresholdCrossed"; }
  /// Buffers ignored because their counts did not fit their samples.
  std::int64_t ignoredBuffers() const { return ignored_.load(); }

  /// dBFS of a linear full-scale-relative amplitude, floored.
  static float toDb(double amplitude);

 private:
  void emitWindow();

  boost::shared_ptr<ZRMemoryProxy> memory_;
  const int defaultPeriodMs_;
  std::atomic<int> periodMs_;
  std::atomic<int> sampleRate_{kDefaultSampleRate};
  std::atomic<float> thresholdDb_{-30.0f};
  std::atomic<float> hysteresisDb_{6.0f};
  std::atomic<std::int64_t> ignored_{0};

  // Window state: buffers of one subscriber arrive in order; flush may come from anywhere.
  std::mutex mutex_;
  int channels_ = 0;
  long long windowSamples_ = 0;
  long long filled_ = 0;
  double windowStart_ = 0.0;
  std::int64_t windowStartSample_ = 0;  // its position in the stream
  std::vector<double> sumSquares_;
  std::vector<int> peak_;
  std::vector<bool> loud_;
};

}  // namespace ZR
