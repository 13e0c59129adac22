#pragma once

// The directions sound comes from, period by period. Every frame, each frequency bin's phases are
// matched against the directions of the sources already tracked (the candidates) and the bin is
// given to the one it fits best, or left free; each candidate's own bins, weighted by how far they
// stand above the noise and the reverberation, make its steered response, in which its direction
// is refined near where it was. A talker outspoken by another for most of a period still owns the
// bins where it dominates. New sources are looked for in the free bins, peaks picked one by one
// with each found source's pattern taken out before the next.

#include <array>
#include <memory>
#include <vector>

#include "zrextractors/micarray.h"

namespace ZR {

/// How finely the localizer looks, from the subscribers' precision (0 to 1): finer grids and
/// delays and overlapping frames cost more CPU.
struct LocalizerSettings {
  int frameSize = 512;        // samples per analysis frame (a power of two)
  int hop = 256;              // samples between frames
  double lagStep = 0.125;     // delay resolution of the pair correlations, in samples
  double coarseStep = 5.0;    // degrees between directions of the first search
  double fineStep = 0.5;      // degrees between directions of the refinement
  double minFrequency = 400;  // Hz; the band analysed (below, a small array resolves nothing)
  double maxFrequency = 7000;

  static LocalizerSettings forPrecision(float precision, int sampleRate);
};

/// One direction found in a period.
struct LocalizedPeak {
  ZRMicArray::Point direction{};  // unit vector towards the source
  double azimuth = 0.0;           // degrees, as reported (see SoundLocalization)
  double elevation = 0.0;
  float coherence = 0.0f;  // share of the period's weighted phase agreement it explains, 0 to 1
  float purity = 0.0f;     // phase agreement of the bins it was given (a candidate's), 0 to 1
  float share = 0.0f;      // its share of the period's weighted bins (a candidate's), 0 to 1
  int candidate = -1;      // the candidate it refines, -1 for a new direction
};

/// What a period held: a peak per candidate (coherence 0 where none was found), the new
/// directions, strongest first, and what the channel check and the gate need.
struct LocalizedPeriod {
  std::vector<LocalizedPeak> tracked;
  std::vector<LocalizedPeak> peaks;
  int frames = 0;
  float speechDb = -120.0f;      // power above the noise floor, dBFS, mean over channels
  float weight = 0.0f;           // mean share of bins above the noise, 0 to 1
  std::vector<float> channelDb;  // each channel's power in the band, dBFS
};

/// Not thread-safe: one owner feeds it and analyses its periods.
class Localizer {
 public:
  Localizer(const ZRMicArray& array, int sampleRate, const LocalizerSettings& settings);
  ~Localizer();
  Localizer(const Localizer&) = delete;
  Localizer& operator=(const Localizer&) = delete;

  /// Takes `count` interleaved frames of array.size() channels; analyses a frame every hop.
  void push(const short* interleaved, int count);
  /// Directions of the sources already tracked, which the bins of the frames from now on are
  /// matched against (at most kMaxCandidates; the rest are ignored).
  void setCandidates(const std::vector<ZRMicArray::Point>& directions);
  /// The period since the last call: a peak near each candidate, then up to `maxNew` new
  /// directions in the free bins, strongest first.
  LocalizedPeriod analyse(int maxNew);
  /// Frames analysed since the last period.
  int pendingFrames() const { return frames_; }
  /// Channels left out of the pairs (dead ones); the others go on.
  void excludeChannel(int channel);
  /// Whether analyse() measures pairPeaks() (the channel check's; it costs a full correlation).
  void measurePairPeaks(bool on) { measurePairs_ = on; }

  /// Delay of mic i against mic j, in samples, for a plane wave from `direction`.
  double pairDelay(int i, int j, const ZRMicArray::Point& direction) const;
  /// The peak of each pair's correlation in the last analysed period (all bins, before any peak
  /// was taken out), in samples, with its height; pairs in the order (0,1), (0,2), ..., (1,2).
  const std::vector<std::pair<double, float>>& pairPeaks() const { return pairPeaks_; }
  const LocalizerSettings& settings() const { return settings_; }
  /// Reported azimuth and elevation of a direction (see SoundLocalization's conventions).
  void label(const ZRMicArray::Point& u, double& azimuth, double& elevation) const;

  static constexpr int kMaxCandidates = 6;

 private:
  struct Fft;
  struct Direction {
    ZRMicArray::Point u;
    double a, b;  // grid coordinates: azimuth and elevation, or the angle from a line's axis
  };

  void analyseFrame();
  void weighBins(const float* power, int active);
  void assignBins(int active);
  void buildGrid();
  ZRMicArray::Point directionAt(double a, double b) const;
  /// The array's own axes: along its line or in its plane first, then its normal.
  void frame(ZRMicArray::Point& e1, ZRMicArray::Point& e2, ZRMicArray::Point& n) const;
  /// Pair correlations over all lags of one slot's cross-spectra, normalised by `total`.
  void correlate(int slot, float total, float* corr) const;
  float response(const float* corr, const ZRMicArray::Point& u) const;
  float gridResponse(const float* corr, std::size_t index) const;
  /// The strongest grid direction (within `cone` of `near`, cosine, when given), refined.
  LocalizedPeak strongest(const float* corr, const ZRMicArray::Point* near, double cone) const;
  LocalizedPeak refine(const float* corr, const Direction& start, double span) const;
  void removePeak(float* corr, const LocalizedPeak& peak, float amount) const;

  ZRMicArray array_;
  int rate_;
  LocalizerSettings settings_;
  int channels_;
  std::vector<std::array<int, 2>> pairs_;
  std::vector<ZRMicArray::Point> baselines_;  // (r_i - r_j) * rate / c per pair
  std::vector<bool> excluded_;
  bool measurePairs_ = true;

  // Sound in: the last frameSize samples of every channel.
  std::vector<std::vector<float>> history_;
  int filled_ = 0;
  double powerScale_ = 0.0;
  float floorMinimum_ = 0.0f;
  std::vector<float> window_;
  std::unique_ptr<Fft> fft_;
  int firstBin_ = 0, bins_ = 0;

  // Per bin: noise floor, reverberation left by earlier frames, this frame's weight and power.
  std::vector<float> noise_, tail_, previous_, w_, power_, smooth_, noiseLike_, reverb_;
  bool noiseStarted_ = false;
  float rise_ = 1.0f, tailDecay_ = 1.0f;
  std::vector<float> inverse_, magnitude_;  // [channel][bin]: 1 / magnitude, magnitude
  std::vector<float> unitRe_, unitIm_;      // [channel][bin]
  std::vector<float> noiseRe_, noiseIm_;    // [pair][bin]: the noise's cross-spectra
  std::vector<float> diffuse_;              // [pair][bin]: a diffuse field's coherence
  // Per slot (a candidate's, then the free bins'), the period's weighted PHAT cross-spectra less
  // the noise's, [slot][pair][bin], and the weight each bin brought, [slot][bin].
  std::vector<float> re_, im_, slotWeight_;
  std::vector<int> owner_;  // [bin]: this frame's slot of each bin
  // Candidates: directions and, per channel and bin, the phase that aligns them, [c][ch][bin].
  std::vector<ZRMicArray::Point> candidates_;
  std::vector<float> steerRe_, steerIm_;
  int slots_ = 1;
  std::vector<double> channelPower_;
  double speechPower_ = 0.0, weightSum_ = 0.0;
  int frames_ = 0;

  // Pair correlations over lags -L..L (steps of lagStep), and the single-source pattern.
  int lags_ = 0;
  std::vector<float> cosTable_, sinTable_;  // [bin][0..2L]
  std::vector<float> corr_;                 // [pair][2L+1], scratch
  std::vector<float> pattern_;              // [0..4L], centred at 2L
  std::vector<std::pair<double, float>> pairPeaks_;
  std::size_t activePairs_ = 0;

  // The search grid, with each direction's position in every pair's lag table.
  std::vector<Direction> grid_;
  std::vector<float> gridLag_;  // [direction][pair], fractional lag index
};

}  // namespace ZR
