#pragma once

// Tracks of sound sources over periods: a direction seen again and again becomes a source with
// an id that it keeps while it moves; a source that falls silent ends after a short hold. Each
// track is a Kalman filter on its azimuth and angular speed, and its predicted direction is what
// the localizer matches the next period's sound against.

#include <array>
#include <vector>

namespace ZR {

/// A direction found in one period (see Localizer), as the tracker sees it.
struct SourceObservation {
  std::array<double, 3> direction{};  // unit vector
  double azimuth = 0.0;               // degrees
  double elevation = 0.0;             // degrees
  float coherence = 0.0f;             // share of the period's phase agreement it explains, 0 to 1
  float purity = 0.0f;                // agreement of the bins it was given, 0 to 1 (a track's)
  float energyDb = -120.0f;
  float reliability = 1.0f;  // 0 to 1: how much of the period's sound stood above the noise
  int track = -1;            // the candidate (see candidates()) it refines; -1 for a new one
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
  /// `folded`: azimuths live on [0, 180] (a line array along x) rather than on a circle.
  explicit SourceTracker(bool folded) : folded_(folded) {}

  /// Where the tracks are expected in the next period, confirmed ones first, at most `count`;
  /// observations refer to them by their index in this list (until the next update).
  std::vector<std::array<double, 3>> candidates(int count) const;
  /// One period of `seconds` with its observations; returns the sources to report, at most
  /// `maxSources`, strongest first.
  std::vector<TrackedSource> update(std::vector<SourceObservation> observations, double seconds,
                                    int maxSources);
  void clear() { tracks_.clear(); }

  // Tuned on the evaluation's tuning material (tools/loceval).
  /// Coherence a new direction needs to start a tentative track; the coherence a tentative track
  /// must gather to be confirmed (at once, from one direction this clear), and what it loses
  /// per period unheard; how long it may stay unheard.
  float birthCoherence = 0.2f;
  float confirmScore = 0.45f;
  float missPenalty = 0.5f;
  double tentativeHold = 0.15;
  /// What a track's own bins need to show to count as hearing it: their phase agreement, and
  /// the share of the period's phase agreement they explain.
  float keepPurity = 0.2f;
  float keepCoherence = 0.02f;
  /// Degrees a new direction may lie from a track's predicted direction to belong to it (for a
  /// line, on its track coordinate: see toTrack).
  double gate = 20.0;
  /// Seconds a track is still reported, and kept, after its last observation.
  double reportHold = 0.5;
  double keepHold = 2.0;

 private:
  struct Track {
    int id = 0;  // 0 while tentative
    double azimuth = 0.0, velocity = 0.0, elevation = 0.0;
    double p00 = 0.0, p01 = 0.0, p11 = 0.0;  // covariance of (azimuth, velocity)
    float energyDb = -120.0f;
    double silence = 0.0;  // seconds since the last observation
    int hits = 0, age = 0;
    float score = 0.0f;  // coherence gathered, less what was missed
    bool seen = false;   // observed in this period
  };
  // A line resolves the cosine of the angle from its axis evenly, not the angle: its tracks live
  // on 90 - cos(angle) in degrees, which is the angle itself near broadside.
  double toTrack(double azimuth) const;
  double fromTrack(double value) const;
  double difference(double a, double b) const;
  double wrap(double a) const;
  std::array<double, 3> direction(const Track& t) const;
  void predict(Track& t, double seconds) const;
  void correct(Track& t, const SourceObservation& o);
  Track born(const SourceObservation& o);

  bool folded_;
  std::vector<Track> tracks_;
  int nextId_ = 1;
};

}  // namespace ZR
