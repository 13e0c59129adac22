#include "speechdetector.h"

#include "extractorutil.h"

#include <fftw3.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <mutex>

namespace ZR {

namespace {

constexpr double kPi = 3.14159265358979323846;
// Long enough to hold two periods of a low voice, short enough to follow syllables.
constexpr double kWindowSeconds = 0.040;
constexpr double kLowHz = 100.0, kHighHz = 4000.0;
constexpr double kLowPitchHz = 70.0, kHighPitchHz = 400.0;
// Frames spent learning the background before any decision.
constexpr int kLearnFrames = 10;
// Noise tracking (minimum-controlled recursive averaging): periodogram smoothing, the length of
// one minimum-search block (the minimum looks back one to two blocks, longer than the pauses
// inside phrases), the ratio to the minimum above which a bin holds more than noise, and how
// fast presence and noise follow.
constexpr float kSmoothing = 0.8f;
constexpr int kMinimumBlockFrames = 80;
constexpr float kPresenceRatio = 5.0f;
constexpr float kPresenceSmoothing = 0.2f;
constexpr float kNoiseSmoothing = 0.95f;
// Decision-directed a-priori SNR: weight of the previous frame's clean estimate, and its floor.
constexpr float kDecisionDirected = 0.96f;
constexpr float kMinPriorSnr = 0.003f;
// Mean log-likelihood ratio thresholds at sensitivity 0 and 1; speech continues above a fraction
// of the onset threshold.
constexpr float kLeastSensitive = 1.2f, kMostSensitive = 0.1f;
constexpr float kContinueFraction = 0.5f;
// Voiced: normalised autocorrelation of the noise-free spectrum at a pitch period, and not a
// tone (three neighbouring bins holding most of the band's energy).
constexpr float kVoicing = 0.45f;
constexpr float kTonal = 0.7f;
// A candidate with no active frame for this long before it is confirmed is forgotten.
constexpr double kCandidateGapSeconds = 0.2;

// Babble and other fluctuating backgrounds push the score up even where nobody near speaks. The
// score's background is its short-term mean (each frame capped, so loud speech cannot hold it
// up), at its lowest over the last 5-10 s: longer than phrases, so continuous babble keeps it
// high while the pauses between phrases bring it to near zero. Above what stationary noise
// reaches, it raises the thresholds by these factors (onsets more than continuations, which keep
// the quieter ends of phrases).
constexpr float kScoreSmoothing = 0.96f;
constexpr float kScoreCap = 3.0f;
constexpr int kScoreBlockFrames = 500;
constexpr float kStationaryScore = 0.15f;
constexpr float kOnPerBackground = 6.0f, kOffPerBackground = 3.0f;
// In such a background the nearby voice is also louder than the babble, which is steady in level
// once averaged over ~100 ms, while the score alone still rises on its syllables. There a frame
// counts only when the band's smoothed level is this far above its own 10th percentile, followed
// in fixed steps (up 0.5 dB/s, down 4.5 dB/s, so that phrases barely lift it).
constexpr float kLevelSmoothing = 0.9f;
constexpr float kFloorQuantile = 0.1f;
constexpr float kFloorStepDb = 0.05f;
constexpr float kAboveFloorDb = 2.0f;
// The percentile starts at the first level heard, which may be speech: it is trusted after ~2 s.
constexpr int kFloorSettleFrames = 200;

// ln(1 + x) for x >= 0, to about 1e-4: the exact one would be a third of the detector's time.
inline float lnOnePlus(float x) {
  const float y = 1.0f + x;
  std::uint32_t bits;
  std::memcpy(&bits, &y, sizeof bits);
  const int exponent = static_cast<int>((bits >> 23) & 0xff) - 127;
  bits = (bits & 0x007fffffu) | 0x3f800000u;  // mantissa in [1, 2)
  float m;
  std::memcpy(&m, &bits, sizeof m);
  // log2(m) on [1, 2): a least-squares quartic through 0.
  const float t = m - 1.0f;
  const float log2m = t * (1.4385482f + t * (-0.6780915f + t * (0.3236504f - t * 0.0842971f)));
  return (static_cast<float>(exponent) + log2m) * 0.69314718f;
}

// Smallest 2^a 3^b 5^c >= n: sizes FFTW transforms fastest.
int smoothSize(int n) {
  for (int m = std::max(n, 16);; ++m) {
    int r = m;
    for (int p : {2, 3, 5})
      while (r % p == 0) r /= p;
    if (r == 1 && m % 2 == 0) return m;
  }
}

}  // namespace

struct SpeechDetector::Fft {
  explicit Fft(int n) : size(n) {
    real = fftwf_alloc_real(n);
    spectrum = fftwf_alloc_complex(n / 2 + 1);
    std::lock_guard<std::mutex> lock(fftwPlanMutex());
    forward = fftwf_plan_dft_r2c_1d(n, real, spectrum, FFTW_ESTIMATE);
    backward = fftwf_plan_dft_c2r_1d(n, spectrum, real, FFTW_ESTIMATE);
  }
  ~Fft() {
    std::lock_guard<std::mutex> lock(fftwPlanMutex());
    fftwf_destroy_plan(forward);
    fftwf_destroy_plan(backward);
    fftwf_free(real);
    fftwf_free(spectrum);
  }
  int size;
  float* real;
  fftwf_complex* spectrum;
  fftwf_plan forward, backward;
};

SpeechDetector::SpeechDetector(int sampleRate) : rate_(std::max(sampleRate, 1000)) {
  hop_ = std::max(1, static_cast<int>(std::lround(rate_ * kHopMs / 1000.0)));
  size_ = smoothSize(static_cast<int>(std::lround(rate_ * kWindowSeconds)));
  lowBin_ = std::max(1, static_cast<int>(std::ceil(kLowHz * size_ / rate_)));
  highBin_ = std::min(size_ / 2 - 1, static_cast<int>(std::floor(kHighHz * size_ / rate_)));
  window_.resize(size_);
  double sumSquares = 0.0;
  for (int n = 0; n < size_; ++n) {
    window_[n] = static_cast<float>(0.5 - 0.5 * std::cos(2.0 * kPi * n / size_));
    sumSquares += double(window_[n]) * window_[n];
  }
  windowPower_ = static_cast<float>(sumSquares);
  // The window's own autocorrelation, to undo its taper on the signal's.
  minLag_ = std::max(1, static_cast<int>(rate_ / kHighPitchHz));
  maxLag_ = minLag_;
  windowAcf_.assign(size_, 0.0f);
  for (int lag = 0; lag < size_; ++lag) {
    double s = 0.0;
    for (int n = 0; n + lag < size_; ++n) s += double(window_[n]) * window_[n + lag];
    windowAcf_[lag] = static_cast<float>(s / sumSquares);
    // Past this the taper leaves too little to measure.
    if (lag <= rate_ / kLowPitchHz && windowAcf_[lag] >= 0.25f) maxLag_ = lag;
  }
  fft_ = new Fft(size_);
  const std::size_t bins = static_cast<std::size_t>(highBin_ - lowBin_ + 1);
  for (auto* v :
       {&power_, &smoothed_, &minimum_, &windowMin_, &presence_, &noise_, &previousClean_, &llr_})
    v->assign(bins, 0.0f);
  setSensitivity(0.5f);
}

SpeechDetector::~SpeechDetector() {
  delete fft_;
}

void SpeechDetector::setSensitivity(float sensitivity) {
  const float s = std::isfinite(sensitivity) ? std::clamp(sensitivity, 0.0f, 1.0f) : 0.0f;
  onThreshold_ = kLeastSensitive + (kMostSensitive - kLeastSensitive) * s;
  offThreshold_ = kContinueFraction * onThreshold_;
}

void SpeechDetector::feed(int channels, int frames, const short* samples, double time) {
  if (channels != channels_) {
    // A new layout: the window starts empty, the background learnt so far stays.
    channels_ = channels;
    ring_.assign(static_cast<std::size_t>(channels), std::vector<float>(size_, 0.0f));
    ringPos_ = 0;
    received_ = 0;
    sinceHop_ = 0;
  }
  for (int i = 0; i < frames; ++i) {
    const short* frame = samples + static_cast<std::size_t>(i) * channels;
    for (int c = 0; c < channels; ++c) ring_[c][ringPos_] = frame[c];
    if (++ringPos_ == size_) ringPos_ = 0;
    ++received_;
    if (++sinceHop_ == hop_) {
      sinceHop_ = 0;
      if (received_ >= size_) analyse(time + static_cast<double>(i + 1) / rate_);
    }
  }
}

void SpeechDetector::analyse(double windowEnd) {
  const int bins = highBin_ - lowBin_ + 1;
  float* in = fft_->real;
  fftwf_complex* out = fft_->spectrum;
  // Power per bin as a share of full-scale mean square, summed over channels.
  const float scale = 2.0f / (static_cast<float>(size_) * windowPower_ * 32768.0f * 32768.0f);
  std::fill(power_.begin(), power_.end(), 0.0f);
  for (int c = 0; c < channels_; ++c) {
    const float* ring = ring_[c].data();
    const int older = size_ - ringPos_;
    for (int n = 0; n < older; ++n) in[n] = window_[n] * ring[ringPos_ + n];
    for (int n = older; n < size_; ++n) in[n] = window_[n] * ring[n - older];
    fftwf_execute(fft_->forward);
    for (int j = 0; j < bins; ++j) {
      const float re = out[lowBin_ + j][0], im = out[lowBin_ + j][1];
      power_[j] += (re * re + im * im) * scale;
    }
  }

  double bandPower = 0.0;
  for (int j = 0; j < bins; ++j) bandPower += power_[j];
  const bool audible = bandPower > std::pow(10.0, kAbsoluteFloorDb / 10.0);
  level_ = framesAnalysed_ == 0 ? static_cast<float>(bandPower)
                                : kLevelSmoothing * level_ +
                                      (1.0f - kLevelSmoothing) * static_cast<float>(bandPower);
  const float levelDb = 10.0f * std::log10(level_ + 1e-12f);

  // Each step below is one branch-free pass over the bins, which the compiler vectorises.
  float* p = power_.data();
  float* smoothed = smoothed_.data();
  float* minimum = minimum_.data();
  float* windowMin = windowMin_.data();
  float* presence = presence_.data();
  float* noise = noise_.data();
  float* previous = previousClean_.data();
  for (int j = 0; j < bins; ++j) p[j] = std::max(p[j], 1e-14f);
  if (++framesAnalysed_ == 1) {
    for (int j = 0; j < bins; ++j) smoothed[j] = minimum[j] = windowMin[j] = noise[j] = p[j];
    return;
  }
  for (int j = 0; j < bins; ++j) {
    smoothed[j] = kSmoothing * smoothed[j] + (1.0f - kSmoothing) * p[j];
    minimum[j] = std::min(minimum[j], smoothed[j]);
    windowMin[j] = std::min(windowMin[j], smoothed[j]);
  }
  if (framesAnalysed_ <= kLearnFrames) {
    const float weight = 1.0f / static_cast<float>(framesAnalysed_);
    for (int j = 0; j < bins; ++j) noise[j] += (p[j] - noise[j]) * weight;
    return;
  }
  if (framesAnalysed_ % kMinimumBlockFrames == 0) {
    for (int j = 0; j < bins; ++j) {
      minimum[j] = std::min(windowMin[j], smoothed[j]);
      windowMin[j] = smoothed[j];
    }
  }
  for (int j = 0; j < bins; ++j) {
    const float present = smoothed[j] > kPresenceRatio * minimum[j] ? 1.0f : 0.0f;
    presence[j] = kPresenceSmoothing * presence[j] + (1.0f - kPresenceSmoothing) * present;
    const float a = kNoiseSmoothing + (1.0f - kNoiseSmoothing) * presence[j];
    noise[j] = std::max(a * noise[j] + (1.0f - a) * p[j], 1e-14f);
  }
  // Per-bin log-likelihood ratio of speech over noise, with a decision-directed prior SNR.
  float* llrBins = llr_.data();
  for (int j = 0; j < bins; ++j) {
    const float inverse = 1.0f / noise[j];
    const float posterior = std::min(p[j] * inverse, 1e4f);
    const float prior =
        std::max(kMinPriorSnr, kDecisionDirected * previous[j] * inverse +
                                   (1.0f - kDecisionDirected) * std::max(posterior - 1.0f, 0.0f));
    const float gain = prior / (1.0f + prior);
    llrBins[j] = posterior * gain - lnOnePlus(prior);
    previous[j] = gain * gain * p[j];
  }
  float llr = 0.0f;
  for (int j = 0; j < bins; ++j) llr += llrBins[j];
  const float score = llr / static_cast<float>(bins);

  const double centre = windowEnd - 0.5 * size_ / rate_;
  const double half = 0.5 * hop_ / rate_;
  // It starts high, not from zero, so that sound that opens in babble need not wait seconds.
  if (framesAnalysed_ == kLearnFrames + 1) {
    scoreMean_ = scoreMin_ = scoreBlockMin_ = kScoreCap;
    floorDb_ = levelDb;
  }
  scoreMean_ += (1.0f - kScoreSmoothing) * (std::min(score, kScoreCap) - scoreMean_);
  scoreMin_ = std::min(scoreMin_, scoreMean_);
  scoreBlockMin_ = std::min(scoreBlockMin_, scoreMean_);
  if (framesAnalysed_ % kScoreBlockFrames == 0) {
    scoreMin_ = std::min(scoreBlockMin_, scoreMean_);
    scoreBlockMin_ = scoreMean_;
  }
  const float background = std::max(scoreMin_ - kStationaryScore, 0.0f);
  const float threshold = state_ == State::Speech ? offThreshold_ + kOffPerBackground * background
                                                  : onThreshold_ + kOnPerBackground * background;
  floorDb_ += kFloorStepDb * (kFloorQuantile - (levelDb < floorDb_ ? 1.0f : 0.0f));
  const bool loud = background <= 0.0f || framesAnalysed_ <= kLearnFrames + kFloorSettleFrames ||
                    levelDb > floorDb_ + kAboveFloorDb;
  const bool active = audible && loud && score > threshold;

  // Voicing only decides whether a candidate becomes speech.
  bool voiced = false;
  if (active && state_ != State::Speech) {
    // Autocorrelation of the noise-free band (magnitudes compressed, which steadies the pitch
    // peak against strong formants), and how much one spectral peak dominates.
    double total = 0.0, peak = 0.0;
    for (int k = 0; k < size_ / 2 + 1; ++k) out[k][0] = out[k][1] = 0.0f;
    for (int j = 0; j < bins; ++j) {
      const float clean = std::max(power_[j] - noise_[j], 0.0f);
      out[lowBin_ + j][0] = std::sqrt(clean);
      total += clean;
      if (j > 0 && j + 1 < bins) {
        const double local = double(std::max(power_[j - 1] - noise_[j - 1], 0.0f)) + clean +
                             std::max(power_[j + 1] - noise_[j + 1], 0.0f);
        peak = std::max(peak, local);
      }
    }
    if (total > 0.0) {
      fftwf_execute(fft_->backward);
      const float r0 = in[0];
      float best = 0.0f;
      for (int lag = minLag_; lag <= maxLag_; ++lag)
        best = std::max(best, in[lag] / windowAcf_[lag]);
      voiced = r0 > 0.0f && best / r0 > kVoicing && peak / total < kTonal;
    }
  }
  decide(active, voiced, centre - half, centre + half);
}

void SpeechDetector::decide(bool active, bool voiced, double start, double end) {
  switch (state_) {
    case State::Idle:
      if (!active) return;
      state_ = State::Candidate;
      start_ = std::max(0.0, start);
      lastActiveEnd_ = end;
      voicedFrames_ = 0;
      [[fallthrough]];
    case State::Candidate:
      if (!active) {
        if (end - lastActiveEnd_ >= kCandidateGapSeconds) state_ = State::Idle;
        return;
      }
      lastActiveEnd_ = end;
      if (voiced && voicedFrames_++ == 0) firstVoiced_ = start;
      // The minimum length counts from the first voiced frame: a short voiced sound after a
      // click or a bell is no more speech than either.
      if (voicedFrames_ >= kMinVoicedFrames && end - firstVoiced_ >= kMinSegmentMs / 1000.0) {
        state_ = State::Speech;
        if (onChange) onChange(true, start_);
      }
      return;
    case State::Speech:
      if (active) {
        lastActiveEnd_ = end;
      } else if (end - lastActiveEnd_ >= kHangoverMs / 1000.0) {
        flush();
      }
      return;
  }
}

void SpeechDetector::flush() {
  if (state_ == State::Speech) {
    if (onChange) onChange(false, lastActiveEnd_);
    if (onSegment) onSegment(start_, lastActiveEnd_);
  }
  state_ = State::Idle;
  voicedFrames_ = 0;
}

}  // namespace ZR
