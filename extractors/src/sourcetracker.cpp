// Source tracks: association of each period's directions with the tracks predicted from the last
// ones (an alpha-beta filter on the azimuth), births that need confirmation, and a hold after
// the last observation so that the pauses between words do not end a talker's track.

#include "sourcetracker.h"

#include <algorithm>
#include <cmath>

namespace ZR {

namespace {

// How much of an observation's offset from the prediction the track takes, in direction and in
// angular speed.
constexpr double kAlpha = 0.55;
constexpr double kBeta = 0.02;
constexpr double kMaxSpeed = 120.0;  // degrees per second
// Two tracks this close are one source seen twice.
constexpr double kMergeDistance = 10.0;

}  // namespace

double SourceTracker::wrap(double a) const {
  if (folded_) return std::clamp(a, 0.0, 180.0);
  while (a > 180.0) a -= 360.0;
  while (a <= -180.0) a += 360.0;
  return a;
}

double SourceTracker::distance(double a, double b) const {
  const double d = folded_ ? a - b : std::remainder(a - b, 360.0);
  return std::fabs(d);
}

std::vector<std::array<double, 3>> SourceTracker::hints() const {
  std::vector<std::array<double, 3>> out;
  for (const Track& t : tracks_)
    if (t.id != 0) out.push_back(t.direction);
  return out;
}

std::vector<TrackedSource> SourceTracker::update(const std::vector<SourceObservation>& observations,
                                                 double seconds, int maxSources) {
  for (Track& t : tracks_) {
    t.azimuth = wrap(t.azimuth + t.velocity * seconds);
    t.silence += seconds;
    ++t.age;
  }
  std::vector<bool> matched(tracks_.size(), false);
  std::vector<Track> born;
  for (const SourceObservation& o : observations) {
    if (o.coherence < keepCoherence) continue;
    // Confirmed tracks first, then the nearest.
    int best = -1;
    double bestDistance = 0.0;
    bool nearAny = false;
    for (std::size_t i = 0; i < tracks_.size(); ++i) {
      const double d = distance(o.azimuth, tracks_[i].azimuth);
      if (d < gate) nearAny = true;
      if (matched[i] || d >= gate) continue;
      const bool better = best < 0 || (tracks_[i].id != 0) > (tracks_[best].id != 0) ||
                          ((tracks_[i].id != 0) == (tracks_[best].id != 0) && d < bestDistance);
      if (better) best = static_cast<int>(i), bestDistance = d;
    }
    if (best >= 0) {
      Track& t = tracks_[best];
      matched[best] = true;
      const double e =
          folded_ ? o.azimuth - t.azimuth : std::remainder(o.azimuth - t.azimuth, 360.0);
      // A period with little sound above the noise moves a track less than a clear one.
      const double r = std::clamp(static_cast<double>(o.reliability), 0.05, 1.0);
      t.azimuth = wrap(t.azimuth + kAlpha * r * e);
      if (seconds > 0.0)
        t.velocity = std::clamp(t.velocity + kBeta * r * e / seconds, -kMaxSpeed, kMaxSpeed);
      t.elevation += kAlpha * (o.elevation - t.elevation);
      t.energyDb = o.energyDb;
      t.silence = 0.0;
      t.direction = o.direction;
      ++t.hits;
      if (t.id == 0 && t.hits >= 2) t.id = nextId_++;
    } else if (!nearAny && o.coherence >= birthCoherence) {
      Track t;
      t.azimuth = o.azimuth;
      t.elevation = o.elevation;
      t.energyDb = o.energyDb;
      t.hits = 1;
      t.direction = o.direction;
      if (o.coherence >= instantBirthCoherence) t.id = nextId_++;
      born.push_back(t);
    }
  }
  // Tentative tracks that missed a period were chance; confirmed ones end after the hold.
  tracks_.erase(
      std::remove_if(tracks_.begin(), tracks_.end(),
                     [this](const Track& t) { return t.silence > (t.id == 0 ? 0.0 : keepHold); }),
      tracks_.end());
  // Of two tracks on one source, the older stays.
  std::sort(tracks_.begin(), tracks_.end(),
            [](const Track& a, const Track& b) { return a.age > b.age; });
  for (std::size_t i = 0; i < tracks_.size(); ++i)
    for (std::size_t j = i + 1; j < tracks_.size();)
      if (distance(tracks_[i].azimuth, tracks_[j].azimuth) < kMergeDistance)
        tracks_.erase(tracks_.begin() + static_cast<long>(j));
      else
        ++j;
  tracks_.insert(tracks_.end(), born.begin(), born.end());

  std::vector<const Track*> shown;
  for (const Track& t : tracks_)
    if (t.id != 0 && t.silence <= reportHold + 1e-9) shown.push_back(&t);
  std::sort(shown.begin(), shown.end(), [](const Track* a, const Track* b) {
    if ((a->silence == 0.0) != (b->silence == 0.0)) return a->silence == 0.0;
    return a->energyDb > b->energyDb;
  });
  std::vector<TrackedSource> out;
  for (const Track* t : shown) {
    if (static_cast<int>(out.size()) >= maxSources) break;
    out.push_back({t->id, t->azimuth, t->elevation, t->energyDb});
  }
  return out;
}

}  // namespace ZR
