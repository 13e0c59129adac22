#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>

#include <zrerror/zrdefaults.h>
#include <zrproxies/zrmemoryproxy.h>
#include <zrsoundextractor/zrsoundextractor.h>

namespace ZR {

class SpeechDetector;

/// Speech segments in the sound of the audio device, robust to steady, coloured and rising
/// background noise and to short non-speech sounds.
///
/// Every 10 ms the speech band (100 Hz - 4 kHz at any sample rate) of all channels together is
/// weighed against a background estimate that follows the noise as it rises and falls; a stretch
/// counts as speech only when it is also voiced (periodic at a pitch, not a single tone) for a
/// while, lasts at least kMinSegmentMs, and it ends after kHangoverMs without speech-like sound.
/// Channels are combined by power, so channels in opposite phase do not cancel.
///
/// The precision tunes sensitivity: 0 is the least sensitive (fewest false alarms), 1 the most
/// (fewest missed words); subscribers that give none get getDefaultPrecision(), chosen on
/// recordings with known truth. As for every extractor, the largest precision asked wins.
///
/// Outputs, for a module registered as N:
/// - event "N/SpeechDetected", raised on each change: [["time", s], ["speech", bool]];
/// - event "N/Segment", raised per finished segment: [["start", s], ["end", s]], in seconds
///   from the start of the stream; the end is that of the last speech-like frame.
/// The remote "flush" closes a segment still open at the end of a stream.
///
/// Concurrency: deliveries, "flush" and parameter changes may come from any thread at once;
/// deliveries and flushes are serialised on one mutex, held for the analysis of one buffer
/// (microseconds per 10 ms of sound) and for the events it raises. A delivery whose counts do not
/// fit its buffer is ignored, with a warning at most every few seconds.
class VoiceActivity : public ZRSoundExtractor {
 public:
  static constexpr int kFrameMs = 10;
  static constexpr int kHangoverMs = 300;
  static constexpr int kMinSegmentMs = 150;
  static constexpr float kDefaultPrecision = 0.75f;

  VoiceActivity(boost::shared_ptr<ZRBroker> broker, const std::string& name);
  ~VoiceActivity() override;

  float getDefaultPrecision() override { return kDefaultPrecision; }
  void startDetection() override;
  void xStartDetection(int period, float precision) override;
  void xUpdateParameters(int period, float precision) override;
  void process(const int& nbOfChannels, const int& nbOfSamplesByChannel, const short* buffer,
               const ZRValue& timestamp) override;

  /// Remote: ends an open segment at its last speech-like frame.
  void flush();
  std::string speechEvent() const { return getName() + "/SpeechDetected"; }
  std::string segmentEvent() const { return getName() + "/Segment"; }

 private:
  void setPrecision(float precision);
  void warnBadBuffer(int channels, int samples);

  boost::shared_ptr<ZRMemoryProxy> memory_;
  std::atomic<int> sampleRate_{kDefaultSampleRate};
  std::atomic<float> precision_{kDefaultPrecision};

  // Guarded because flush may come from another thread than deliveries.
  std::mutex mutex_;
  std::unique_ptr<SpeechDetector> detector_;
  std::chrono::steady_clock::time_point lastWarning_{};
  long long ignoredBuffers_ = 0;
};

}  // namespace ZR
