// The steering half of the localizer: the grid of directions and their labels, the steered
// response at any direction from the pair correlations, the refinement of a peak, and taking a
// found source's pattern out of the correlations.

#include <algorithm>
#include <cmath>

#include "localizer.h"

namespace ZR {

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kDeg = kPi / 180.0;
using Point = ZRMicArray::Point;

double dot(const Point& a, const Point& b) {
  return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}
Point cross(const Point& a, const Point& b) {
  return {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
}
Point unit(const Point& a) {
  const double n = std::sqrt(dot(a, a));
  return {a[0] / n, a[1] / n, a[2] / n};
}

}  // namespace

Point Localizer::directionAt(double a, double b) const {
  Point e1, e2, n;
  frame(e1, e2, n);
  const double ca = std::cos(a * kDeg), sa = std::sin(a * kDeg);
  if (array_.kind() == ZRMicArray::Kind::Linear)  // a: the angle from the axis
    return {ca * e1[0] + sa * e2[0], ca * e1[1] + sa * e2[1], ca * e1[2] + sa * e2[2]};
  const double cb = std::cos(b * kDeg), sb = std::sin(b * kDeg);
  return {cb * (ca * e1[0] + sa * e2[0]) + sb * n[0], cb * (ca * e1[1] + sa * e2[1]) + sb * n[1],
          cb * (ca * e1[2] + sa * e2[2]) + sb * n[2]};
}

void Localizer::label(const Point& u, double& azimuth, double& elevation) const {
  azimuth = std::atan2(u[1], u[0]) / kDeg;
  if (azimuth <= -180.0) azimuth += 360.0;
  elevation = std::asin(std::clamp(u[2], -1.0, 1.0)) / kDeg;
  if (array_.kind() == ZRMicArray::Kind::Linear) {
    elevation = 0.0;  // only the angle from the axis is known
    if (array_.axis()[0] > 0.999) azimuth = std::acos(std::clamp(u[0], -1.0, 1.0)) / kDeg;
  } else if (array_.kind() == ZRMicArray::Kind::Planar && array_.axis()[2] > 0.999) {
    elevation = std::fabs(elevation);  // up and down sound alike to a horizontal plane
  }
}

void Localizer::buildGrid() {
  // Delays scale with the cosine of the elevation (for a plane), so elevations are spread
  // evenly in that cosine, and each ring gets azimuths in proportion to its size.
  const double step = settings_.coarseStep;
  grid_.clear();
  if (array_.kind() == ZRMicArray::Kind::Linear) {
    for (double a = 0.0; a <= 180.0 + 1e-9; a += step) grid_.push_back({directionAt(a, 0), a, 0});
  } else {
    std::vector<double> elevations;
    const double dRho = step * kDeg;
    for (double rho = 1.0; rho > 0.0; rho -= dRho) elevations.push_back(std::acos(rho) / kDeg);
    elevations.push_back(90.0);
    if (array_.kind() == ZRMicArray::Kind::Volumetric) {
      const std::size_t up = elevations.size();
      for (std::size_t i = 1; i < up; ++i) elevations.push_back(-elevations[i]);
    }
    for (double b : elevations) {
      const int count = std::max(1, static_cast<int>(std::ceil(360.0 / step * std::cos(b * kDeg))));
      for (int i = 0; i < count; ++i) {
        const double a = 360.0 * i / count;
        grid_.push_back({directionAt(a, b), a, b});
      }
    }
  }
  gridLag_.resize(grid_.size() * pairs_.size());
  for (std::size_t d = 0; d < grid_.size(); ++d)
    for (std::size_t p = 0; p < pairs_.size(); ++p)
      gridLag_[d * pairs_.size() + p] =
          static_cast<float>(dot(baselines_[p], grid_[d].u) / settings_.lagStep + lags_);
}

namespace {

// A pair's correlation between its lags, by a cubic (Catmull-Rom) through the four around `x`:
// a straight line between neighbours would pull peaks towards the lags by up to a sixteenth of a
// sample, a degree or more on a small array.
inline float interpolate(const float* c, int width, double x) {
  const int i = std::clamp(static_cast<int>(x), 1, width - 3);
  const float t = static_cast<float>(x - i);
  const float a = c[i - 1], b = c[i], d = c[i + 1], e = c[i + 2];
  return b + 0.5f * t *
                 (d - a + t * (2.0f * a - 5.0f * b + 4.0f * d - e + t * (3.0f * (b - d) + e - a)));
}

}  // namespace

void Localizer::correlate(int slot, float total, float* corr) const {
  // Each pair's correlation over its lags: the real part of the cross-spectrum steered by every
  // lag, split in its even and odd parts so that one table of cosines and one of sines do.
  const int width = 2 * lags_ + 1;
  const float norm = 1.0f / total;
  const std::size_t cross = pairs_.size() * bins_;
  const float* weight = &slotWeight_[static_cast<std::size_t>(slot) * bins_];
  std::vector<float> even(lags_ + 1), odd(lags_ + 1);
  for (std::size_t p = 0; p < pairs_.size(); ++p) {
    float* c = corr + p * width;
    if (excluded_[pairs_[p][0]] || excluded_[pairs_[p][1]]) {
      std::fill(c, c + width, 0.0f);
      continue;
    }
    std::fill(even.begin(), even.end(), 0.0f);
    std::fill(odd.begin(), odd.end(), 0.0f);
    const float* re = &re_[slot * cross + p * bins_];
    const float* im = &im_[slot * cross + p * bins_];
    for (int k = 0; k < bins_; ++k) {
      if (weight[k] <= 0.0f) continue;  // nothing of this slot in the bin
      const float gr = re[k], gi = im[k];
      const float* ct = &cosTable_[static_cast<std::size_t>(k) * width];
      const float* st = &sinTable_[static_cast<std::size_t>(k) * (lags_ + 1)];
      for (int l = 0; l <= lags_; ++l) {
        even[l] += gr * ct[l];
        odd[l] += gi * st[l];
      }
    }
    for (int l = 0; l <= lags_; ++l) {
      c[lags_ + l] = (even[l] - odd[l]) * norm;
      c[lags_ - l] = (even[l] + odd[l]) * norm;
    }
  }
}

float Localizer::gridResponse(const float* corr, std::size_t index) const {
  // The coarse search only has to land on the right lobe: straight lines between lags do.
  const int width = 2 * lags_ + 1;
  const float* lag = &gridLag_[index * pairs_.size()];
  float sum = 0.0f;
  for (std::size_t p = 0; p < pairs_.size(); ++p) {
    const float x = lag[p];
    const int i = std::min(static_cast<int>(x), width - 2);
    const float* c = &corr[p * width + i];
    sum += c[0] + (x - static_cast<float>(i)) * (c[1] - c[0]);
  }
  return sum;
}

float Localizer::response(const float* corr, const Point& u) const {
  const int width = 2 * lags_ + 1;
  float sum = 0.0f;
  for (std::size_t p = 0; p < pairs_.size(); ++p)
    sum += interpolate(&corr[p * width], width, dot(baselines_[p], u) / settings_.lagStep + lags_);
  return sum;
}

LocalizedPeak Localizer::strongest(const float* corr, const Point* near, double cone) const {
  // Near a candidate, the cone is on the angle the array tells best: the azimuth in a plane's
  // own frame, the angle from a line's axis; a volume's directions by their angle in space.
  Point e1, e2, n;
  frame(e1, e2, n);
  const ZRMicArray::Kind kind = array_.kind();
  double centre = 0.0, reach = 180.0;
  if (near) {
    reach = std::acos(std::clamp(cone, -1.0, 1.0)) / kDeg;
    centre = kind == ZRMicArray::Kind::Linear
                 ? std::acos(std::clamp(dot(*near, e1), -1.0, 1.0)) / kDeg
                 : std::atan2(dot(*near, e2), dot(*near, e1)) / kDeg;
  }
  auto inside = [&](const Direction& d) {
    if (!near) return true;
    if (kind == ZRMicArray::Kind::Volumetric) return dot(d.u, *near) >= cone;
    const double off =
        kind == ZRMicArray::Kind::Linear ? d.a - centre : std::remainder(d.a - centre, 360.0);
    return std::fabs(off) <= reach;
  };
  std::size_t best = grid_.size();
  float bestValue = -1e30f;
  for (std::size_t d = 0; d < grid_.size(); ++d) {
    if (!inside(grid_[d])) continue;
    const float r = gridResponse(corr, d);
    if (r > bestValue) bestValue = r, best = d;
  }
  if (best == grid_.size()) return refine(corr, Direction{*near, 0.0, 0.0}, 0.5);
  return refine(corr, grid_[best], 1.0);
}

void Localizer::frame(Point& e1, Point& e2, Point& n) const {
  const Point& axis = array_.axis();
  if (array_.kind() == ZRMicArray::Kind::Linear) {
    e1 = axis;
    e2 = unit(cross({0.0, 0.0, 1.0}, axis));  // horizontal, counter-clockwise of the axis
    n = cross(e1, e2);
    return;
  }
  e1 = {1.0, 0.0, 0.0}, e2 = {0.0, 1.0, 0.0}, n = {0.0, 0.0, 1.0};
  if (array_.kind() == ZRMicArray::Kind::Planar && std::fabs(axis[2]) < 0.999) {
    // A tilted plane: its own frame, e1 as close to +x as the plane allows.
    n = axis;
    const Point ref = std::fabs(n[0]) < 0.9 ? Point{1.0, 0.0, 0.0} : Point{0.0, 1.0, 0.0};
    e2 = unit(cross(n, ref));
    e1 = cross(e2, n);
  }
}

LocalizedPeak Localizer::refine(const float* corr, const Direction& start, double span) const {
  // Pattern search around the coarse peak in coordinates in which every delay is linear: the
  // direction's projection on the line, or on the plane, of the array (a volume's: the vector
  // itself, normalised). The azimuth then does not hang on a poorly known elevation.
  Point e1, e2, n;
  frame(e1, e2, n);
  const ZRMicArray::Kind kind = array_.kind();
  const int dims = kind == ZRMicArray::Kind::Linear ? 1 : kind == ZRMicArray::Kind::Planar ? 2 : 3;
  auto toDirection = [&](const double* q) -> Point {
    if (dims == 3) return unit({q[0], q[1], q[2]});
    const double r2 = dims == 1 ? q[0] * q[0] : q[0] * q[0] + q[1] * q[1];
    const double up = std::sqrt(std::max(0.0, 1.0 - r2));
    if (dims == 1)
      return {q[0] * e1[0] + up * e2[0], q[0] * e1[1] + up * e2[1], q[0] * e1[2] + up * e2[2]};
    return {q[0] * e1[0] + q[1] * e2[0] + up * n[0], q[0] * e1[1] + q[1] * e2[1] + up * n[1],
            q[0] * e1[2] + q[1] * e2[2] + up * n[2]};
  };
  auto clampInside = [&](double* q) {
    if (dims == 3) return;
    const double r = dims == 1 ? std::fabs(q[0]) : std::hypot(q[0], q[1]);
    if (r > 1.0)
      for (int i = 0; i < dims; ++i) q[i] /= r;
  };
  double q[3] = {dot(start.u, e1), dot(start.u, e2), dot(start.u, n)};
  if (dims == 3) q[0] = start.u[0], q[1] = start.u[1], q[2] = start.u[2];
  float best = response(corr, toDirection(q));
  double h = span * settings_.coarseStep * kDeg;
  const double stop = 0.25 * settings_.fineStep * kDeg;
  for (int guard = 0; h > stop && guard < 200; ++guard) {
    bool moved = false;
    double bestQ[3] = {q[0], q[1], q[2]};
    for (int d = 0; d < (dims == 1 ? 2 : dims == 2 ? 8 : 6); ++d) {
      double t[3] = {q[0], q[1], q[2]};
      if (dims == 2) {
        static const int kSteps[8][2] = {{1, 0}, {-1, 0}, {0, 1},  {0, -1},
                                         {1, 1}, {1, -1}, {-1, 1}, {-1, -1}};
        t[0] += h * kSteps[d][0];
        t[1] += h * kSteps[d][1];
      } else {
        t[d / 2] += d % 2 ? -h : h;
      }
      clampInside(t);
      const float r = response(corr, toDirection(t));
      if (r > best) best = r, moved = true, bestQ[0] = t[0], bestQ[1] = t[1], bestQ[2] = t[2];
    }
    if (moved)
      q[0] = bestQ[0], q[1] = bestQ[1], q[2] = bestQ[2];
    else
      h *= 0.5;
  }
  LocalizedPeak peak;
  peak.direction = toDirection(q);
  label(peak.direction, peak.azimuth, peak.elevation);
  peak.coherence = best / static_cast<float>(std::max<std::size_t>(1, activePairs_));
  return peak;
}

void Localizer::removePeak(float* corr, const LocalizedPeak& peak, float amount) const {
  const int width = 2 * lags_ + 1;
  for (std::size_t p = 0; p < pairs_.size(); ++p) {
    const double centre = dot(baselines_[p], peak.direction) / settings_.lagStep;
    float* c = &corr[p * width];
    for (int l = 0; l < width; ++l) {
      const double x = std::min(std::fabs(l - lags_ - centre), 2.0 * lags_ - 1.0);
      const int i = static_cast<int>(x);
      const float f = static_cast<float>(x - i);
      c[l] -= amount * (pattern_[i] + f * (pattern_[i + 1] - pattern_[i]));
    }
  }
}

}  // namespace ZR
