// Source tracks: each track's own observation (the localizer's peak in the bins that fit it),
// new directions associated with the nearest track that went unheard or starting a tentative
// one, births that need confirmation, a Kalman filter per track on its azimuth and angular
// speed, and a hold after the last observation so that the pauses between words do not end a
// talker's track.

#include "sourcetracker.h"

#include <algorithm>
#include <cmath>

namespace ZR {

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kDeg = kPi / 180.0;
// The filter: talkers turn and walk (white acceleration of this density, deg^2/s^3), up to this
// speed; an observation's spread, for one as clear as they come, in degrees.
constexpr double kAcceleration = 400.0;
constexpr double kMaxSpeed = 120.0;  // degrees per second
constexpr double kInitialSpeed = 20.0;
constexpr double kSpread = 4.0;
// Two tracks this close are one source seen twice.
constexpr double kMergeDistance = 20.0;
// An observation explaining half of the period's phase agreement in a clear period is as clear
// as they come.
constexpr double kQualityScale = 2.0;

}  // namespace

double SourceTracker::toTrack(double azimuth) const {
  return folded_ ? 90.0 - std::cos(azimuth * kDeg) / kDeg : azimuth;
}

double SourceTracker::fromTrack(double value) const {
  return folded_ ? std::acos(std::clamp((90.0 - value) * kDeg, -1.0, 1.0)) / kDeg : value;
}

double SourceTracker::wrap(double a) const {
  if (folded_) return std::clamp(a, 90.0 - 1.0 / kDeg, 90.0 + 1.0 / kDeg);
  a = std::remainder(a, 360.0);
  return a <= -180.0 ? a + 360.0 : a;
}

double SourceTracker::difference(double a, double b) const {
  return folded_ ? a - b : std::remainder(a - b, 360.0);
}

std::array<double, 3> SourceTracker::direction(const Track& t) const {
  const double a = fromTrack(t.azimuth) * kDeg, e = t.elevation * kDeg;
  return {std::cos(e) * std::cos(a), std::cos(e) * std::sin(a), std::sin(e)};
}

std::vector<std::array<double, 3>> SourceTracker::candidates(int count) const {
  std::vector<std::array<double, 3>> out;
  for (const Track& t : tracks_) {
    if (static_cast<int>(out.size()) >= count) break;
    out.push_back(direction(t));
  }
  return out;
}

void SourceTracker::predict(Track& t, double dt) const {
  t.azimuth = wrap(t.azimuth + t.velocity * dt);
  const double q = kAcceleration;
  t.p00 += dt * (2.0 * t.p01 + dt * t.p11) + q * dt * dt * dt / 3.0;
  t.p01 += dt * t.p11 + q * dt * dt / 2.0;
  t.p11 += q * dt;
}

void SourceTracker::correct(Track& t, const SourceObservation& o) {
  // A period with little sound above the noise, or a source that explains little of it, is a
  // less certain observation.
  const double quality = std::clamp(kQualityScale * o.coherence * o.reliability, 0.05, 1.0);
  const double r = (kSpread / quality) * (kSpread / quality);
  const double s = t.p00 + r;
  const double k0 = t.p00 / s, k1 = t.p01 / s;
  const double e = difference(o.azimuth, t.azimuth);
  t.azimuth = wrap(t.azimuth + k0 * e);
  t.velocity = std::clamp(t.velocity + k1 * e, -kMaxSpeed, kMaxSpeed);
  const double p00 = t.p00, p01 = t.p01;
  t.p00 = (1.0 - k0) * p00;
  t.p01 = (1.0 - k0) * p01;
  t.p11 -= k1 * p01;
  t.elevation += 0.5 * (o.elevation - t.elevation);
  t.energyDb = o.energyDb;
  t.silence = 0.0;
  t.seen = true;
  ++t.hits;
  t.score += o.coherence;
  if (t.id == 0 && t.score >= confirmScore) t.id = nextId_++;
}

SourceTracker::Track SourceTracker::born(const SourceObservation& o) {
  Track t;
  t.azimuth = o.azimuth;
  t.elevation = o.elevation;
  t.energyDb = o.energyDb;
  t.p00 = kSpread * kSpread * 4.0;
  t.p11 = kInitialSpeed * kInitialSpeed;
  t.hits = 1;
  t.score = o.coherence;
  t.seen = true;
  if (t.score >= confirmScore) t.id = nextId_++;
  return t;
}

std::vector<TrackedSource> SourceTracker::update(std::vector<SourceObservation> observations,
                                                 double seconds, int maxSources) {
  for (SourceObservation& o : observations) o.azimuth = toTrack(o.azimuth);
  for (Track& t : tracks_) {
    predict(t, seconds);
    t.silence += seconds;
    t.seen = false;
    ++t.age;
  }
  // Each track's own bins first: they were matched against it.
  for (const SourceObservation& o : observations) {
    if (o.track < 0 || o.track >= static_cast<int>(tracks_.size())) continue;
    Track& t = tracks_[o.track];
    if (o.purity < keepPurity || o.coherence < keepCoherence) continue;
    if (std::fabs(difference(o.azimuth, t.azimuth)) > gate + 10.0) continue;
    correct(t, o);
  }
  // Then new directions: a track's that went unheard, a duplicate of one heard, or a birth.
  std::vector<Track> births;
  for (const SourceObservation& o : observations) {
    if (o.track >= 0 || o.coherence < keepCoherence) continue;
    int best = -1;
    double bestDistance = gate;
    bool duplicate = false;
    for (std::size_t i = 0; i < tracks_.size(); ++i) {
      const double d = std::fabs(difference(o.azimuth, tracks_[i].azimuth));
      if (d >= gate) continue;
      if (tracks_[i].seen) {
        duplicate = true;
        continue;
      }
      if (d < bestDistance) best = static_cast<int>(i), bestDistance = d;
    }
    if (best >= 0) {
      correct(tracks_[best], o);
    } else if (!duplicate && o.coherence >= birthCoherence) {
      bool near = false;
      for (const Track& b : births)
        near = near || std::fabs(difference(o.azimuth, b.azimuth)) < gate;
      if (!near) births.push_back(born(o));
    }
  }
  // A tentative track loses score while unheard, and ends when it has none left or after a
  // short hold; confirmed ones end after the long hold.
  for (Track& t : tracks_)
    if (t.id == 0 && !t.seen) t.score -= missPenalty;
  tracks_.erase(std::remove_if(tracks_.begin(), tracks_.end(),
                               [this](const Track& t) {
                                 return t.id == 0 ? t.score <= 0.0f || t.silence > tentativeHold
                                                  : t.silence > keepHold;
                               }),
                tracks_.end());
  // Of two tracks on one source, the confirmed, then the older, stays.
  std::stable_sort(tracks_.begin(), tracks_.end(), [](const Track& a, const Track& b) {
    if ((a.id != 0) != (b.id != 0)) return a.id != 0;
    return a.age > b.age;
  });
  for (std::size_t i = 0; i < tracks_.size(); ++i)
    for (std::size_t j = i + 1; j < tracks_.size();)
      if (std::fabs(difference(tracks_[i].azimuth, tracks_[j].azimuth)) < kMergeDistance)
        tracks_.erase(tracks_.begin() + static_cast<long>(j));
      else
        ++j;
  tracks_.insert(tracks_.end(), births.begin(), births.end());
  // The order of the next candidates: confirmed tracks, the ones heard last first, then the rest.
  std::stable_sort(tracks_.begin(), tracks_.end(), [](const Track& a, const Track& b) {
    if ((a.id != 0) != (b.id != 0)) return a.id != 0;
    return a.silence < b.silence;
  });

  std::vector<const Track*> shown;
  for (const Track& t : tracks_)
    if (t.id != 0 && t.silence <= reportHold + 1e-9) shown.push_back(&t);
  std::stable_sort(shown.begin(), shown.end(), [](const Track* a, const Track* b) {
    if (a->seen != b->seen) return a->seen;
    return a->energyDb > b->energyDb;
  });
  std::vector<TrackedSource> out;
  for (const Track* t : shown) {
    if (static_cast<int>(out.size()) >= maxSources) break;
    out.push_back({t->id, fromTrack(t->azimuth), t->elevation, t->energyDb});
  }
  return out;
}

}  // namespace ZR
