#pragma once

// The directions sound comes from, period by period: SNR-weighted GCC-PHAT of every mic pair,
// summed into a steered response over a grid of directions, peaks picked one by one with the
// found source's pattern taken out before the next (so its side lobes are not taken for sources).

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
  float coherence = 0.0f;  // share of the weighted phase agreement it explains, 0 to 1
  bool hinted = false;     // found near a hint, not by the search of all directions
};

/// What a period held: its peaks, strongest first, and what the channel check and the gate
/// need.
struct LocalizedPeriod {
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
  /// The period since the last call: up to `maxPeaks` directions, strongest first, then one near
  /// each of `hints` (directions heard before) that none of those is near, if any is there.
  LocalizedPeriod analyse(int maxPeaks, const std::vector<ZRMicArray::Point>& hints = {});
  /// Frames analysed since the last period.
  int pendingFrames() const { return frames_; }
  /// Channels left out of the pairs (dead ones); the others go on.
  void excludeChannel(int channel);

  /// Delay of mic i against mic j, in samples, for a plane wave from `direction`.
  double pairDelay(int i, int j, const ZRMicArray::Point& direction) const;
  /// The peak of each pair's correlation in the last analysed period (before any peak was taken
  /// out), in samples, with its height; pairs in the order (0,1), (0,2), ..., (1,2), ...
  const std::vector<std::pair<double, float>>& pairPeaks() const { return pairPeaks_; }
  const LocalizerSettings& settings() const { return settings_; }
  /// Reported azimuth and elevation of a direction (see SoundLocalization's conventions).
  void label(const ZRMicArray::Point& u, double& azimuth, double& elevation) const;

 private:
  struct Fft;
  struct Direction {
    ZRMicArray::Point u;
    double a, b;  // grid coordinates: azimuth and elevation, or the angle from a line's axis
  };

  void analyseFrame();
  void buildGrid();
  ZRMicArray::Point directionAt(double a, double b) const;
  /// The array's own axes: along its line or in its plane first, then its normal.
  void frame(ZRMicArray::Point& e1, ZRMicArray::Point& e2, ZRMicArray::Point& n) const;
  float response(const ZRMicArray::Point& u) const;
  float responseAt(const Direction& d, std::size_t index) const;
  LocalizedPeak refine(const Direction& start, double span = 1.0) const;
  void removePeak(const LocalizedPeak& peak, float amount);

  ZRMicArray array_;
  int rate_;
  LocalizerSettings settings_;
  int channels_;
  std::vector<std::array<int, 2>> pairs_;
  std::vector<ZRMicArray::Point> baselines_;  // (r_i - r_j) * rate / c per pair
  std::vector<bool> excluded_;

  // Sound in: the last frameSize samples of every channel.
  std::vector<std::vector<float>> history_;
  int filled_ = 0;
  double powerScale_ = 0.0;
  float floorMinimum_ = 0.0f;
  std::vector<float> window_;
  std::unique_ptr<Fft> fft_;
  int firstBin_ = 0, bins_ = 0;

  // Per bin, noise floor; per pair and bin, the period's weighted PHAT cross-spectrum.
  std::vector<float> noise_;
  bool noiseStarted_ = false;
  float rise_ = 1.0f, tailDecay_ = 1.0f;
  std::vector<float> re_, im_;  // [pair][bin]
  std::vector<float> binWeight_;
  std::vector<float> noiseRe_, noiseIm_;  // [pair][bin]: the noise's cross-spectra
  std::vector<float> tail_, previous_;    // [bin]: reverberation left by earlier frames
  std::vector<float> inverse_;            // [channel][bin]: 1 / magnitude
  std::vector<float> unitRe_, unitIm_;    // [channel][bin]
  std::vector<double> channelPower_;
  double speechPower_ = 0.0, weightSum_ = 0.0;
  int frames_ = 0;

  // Pair correlations over lags -L..L (steps of lagStep), and the single-source pattern.
  int lags_ = 0;
  std::vector<float> cosTable_, sinTable_;  // [bin][0..2L]
  std::vector<float> corr_;                 // [pair][2L+1]
  std::vector<float> pattern_;              // [0..4L], centred at 2L
  std::vector<std::pair<double, float>> pairPeaks_;
  std::size_t activePairs_ = 0;

  // The search grid, with each direction's position in every pair's lag table.
  std::vector<Direction> grid_;
  std::vector<float> gridLag_;  // [direction][pair], fractional lag index
};

}  // namespace ZR
