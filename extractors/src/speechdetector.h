#pragma once

#include <complex>
#include <functional>
#include <vector>

namespace ZR {

/// The signal processing behind VoiceActivity, free of any module so that it can be driven and
/// measured on its own.
///
/// Every 10 ms it analyses the last 40 ms of sound in the speech band (100 Hz - 4 kHz, whatever
/// the sample rate), with the power spectra of all channels summed so that channels in opposite
/// phase add up instead of cancelling. A per-bin noise estimate follows the background up and
/// down (minimum-controlled recursive averaging), and a frame is active when the mean
/// log-likelihood ratio of speech over noise across the band passes a threshold, raised where
/// the ratio itself stays high for seconds, as in babble; there the frame's smoothed level must
/// also stand above the background's, since a nearby voice is louder than babble. A frame is
/// voiced when the noise-free part of its spectrum is periodic at a pitch (70-400 Hz) without
/// being a single tone. Active frames open a candidate; a candidate becomes speech only once it
/// holds enough voiced frames and lasts the minimum length, so that clicks, bangs, hiss and
/// rising noise never make a segment. Speech ends after a hangover with no active frame.
///
/// Not thread-safe: one caller at a time (VoiceActivity serialises feeds and flushes).
class SpeechDetector {
 public:
  static constexpr int kHopMs = 10;
  static constexpr int kHangoverMs = 300;
  static constexpr int kMinSegmentMs = 150;
  static constexpr int kMinVoicedFrames = 5;
  static constexpr float kAbsoluteFloorDb = -65.0f;

  /// Called on each change: speech or not, and the time of the change in seconds.
  std::function<void(bool speech, double time)> onChange;
  /// Called per finished segment, start and end in seconds.
  std::function<void(double start, double end)> onSegment;

  explicit SpeechDetector(int sampleRate);
  ~SpeechDetector();
  SpeechDetector(const SpeechDetector&) = delete;
  SpeechDetector& operator=(const SpeechDetector&) = delete;

  int sampleRate() const { return rate_; }
  /// 0 (least sensitive) to 1 (most sensitive); values outside are clamped.
  void setSensitivity(float sensitivity);

  /// Feeds `frames` interleaved frames of `channels` samples, the first at `time` seconds. The
  /// counts must describe `samples` (the caller checks them).
  void feed(int channels, int frames, const short* samples, double time);
  /// Ends a segment still open at its last active frame, and forgets an unconfirmed candidate.
  void flush();

 private:
  void analyse(double windowEnd);
  void decide(bool active, bool voiced, double start, double end);

  // Fixed by the sample rate.
  int rate_;
  int hop_;   // samples per 10 ms step
  int size_;  // analysis window and FFT size
  int lowBin_, highBin_;
  int minLag_, maxLag_;  // pitch period range in samples
  std::vector<float> window_, windowAcf_;
  float windowPower_;
  struct Fft;
  Fft* fft_;

  // Thresholds on the mean log-likelihood ratio, from the sensitivity.
  float onThreshold_ = 0.0f, offThreshold_ = 0.0f;

  // Sound of the last window, per channel.
  int channels_ = 0;
  std::vector<std::vector<float>> ring_;
  int ringPos_ = 0;
  long long received_ = 0;
  int sinceHop_ = 0;

  // Per-bin noise tracking and a-priori SNR state.
  std::vector<float> power_, smoothed_, minimum_, windowMin_, presence_, noise_, previousClean_,
      llr_;
  int framesAnalysed_ = 0;
  // The score's own background (see analyse).
  float scoreMean_ = 0.0f, scoreMin_ = 0.0f, scoreBlockMin_ = 0.0f;
  // The band's smoothed level and its low percentile, in dB (see analyse).
  float level_ = 0.0f, floorDb_ = 0.0f;

  // Segment state.
  enum class State { Idle, Candidate, Speech } state_ = State::Idle;
  double start_ = 0.0, lastActiveEnd_ = 0.0, firstVoiced_ = 0.0;
  int voicedFrames_ = 0;
};

}  // namespace ZR
