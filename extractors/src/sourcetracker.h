#pragma once

// Tracks of sound sources over periods: a direction seen again and again becomes a source with
// an id that it keeps while it moves; a source that falls silent ends after a short hold.

#include <array>
#include <vector>

namespace ZR {

/// A direction found in one period (see Localizer), as the tracker sees it.
struct SourceObservation {
  std::array<double, 3> direction{};  // unit vector
  double azimuth = 0.0;               // degrees
  double elevation = 0.0;             // degrees
  float coherence = 0.0f;             // 0 to 1
  float energyDb = -120.0f;
  float reliability = 1.0f;  // 0 to 1: how much of the period's sound stood above the noise
};

/// A source as reported.
struct TrackedSource {
  int id = 0;
  double azimuth = 0.0;
  double elevation = 0.0;
  float energyDb = -120.0f;
};

/// Not thread-safe: one owner updates it once per period.
class SourceTracker {
 public:
  /// `folded`: azimuths live on [0, 180] (a line array) rather than on a circle.
  explicit SourceTracker(bool folded) : folded_(folded) {}

  /// One period of `seconds` with its observations (strongest first); returns the sources to
  /// report, at most `maxSources`, strongest first.
  std::vector<TrackedSource> update(const std::vector<SourceObservation>& observations,
                                    double seconds, int maxSources);
  void clear() { tracks_.clear(); }
  /// Where the tracks still held were last heard: where to look for them in the next period.
  std::vector<std::array<double, 3>> hints() const;

  // Tuned on the evaluation's tuning material (tools/loceval).
  /// Coherence an observation needs to start a track, and to start one at once.
  float birthCoherence = 0.25f;
  float instantBirthCoherence = 0.45f;
  /// Coherence an observation needs to keep a track going.
  float keepCoherence = 0.04f;
  /// Degrees an observation may lie from a track's predicted direction to belong to it.
  double gate = 20.0;
  /// Seconds a track is still reported, and kept, after its last observation.
  double reportHold = 0.45;
  double keepHold = 1.0;

 private:
  struct Track {
    int id = 0;  // 0 while tentative
    double azimuth = 0.0, velocity = 0.0, elevation = 0.0;
    float energyDb = -120.0f;
    double silence = 0.0;  // seconds since the last observation
    std::array<double, 3> direction{};
    int hits = 0, age = 0;
  };
  double distance(double a, double b) const;
  double wrap(double a) const;

  bool folded_;
  std::vector<Track> tracks_;
  int nextId_ = 1;
};

}  // namespace ZR
