// The steered response of a microphone array, period by period: SNR-weighted PHAT cross-spectra
// of all pairs, their correlations over sub-sample delays, a grid search refined around each
// peak, and each found source's pattern taken out before the next one is looked for.

#include "localizer.h"

#include <fftw3.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include "extractorutil.h"

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
float toDb(double power) {
  return power > 1e-12 ? static_cast<float>(10.0 * std::log10(power)) : -120.0f;
}

// Noise floor: follows a falling level within a few frames, a rising one by this much a second,
// so that speech, which comes and goes, is not taken for noise.
constexpr double kNoiseRiseDbPerSecond = 3.0;
constexpr float kNoiseFall = 0.3f;
// A bin counts for localisation by how far it stands above that floor.
constexpr float kOverSubtraction = 3.0f;

}  // namespace

LocalizerSettings LocalizerSettings::forPrecision(float precision, int sampleRate) {
  const double p = std::clamp(static_cast<double>(precision), 0.0, 1.0);
  LocalizerSettings s;
  s.frameSize = 1 << static_cast<int>(std::lround(std::log2(0.032 * sampleRate)));
  s.hop = p < 0.25 ? s.frameSize : s.frameSize / 2;
  s.lagStep = p < 0.25 ? 0.25 : p < 0.75 ? 0.125 : 0.0625;
  s.coarseStep = 8.0 - 5.0 * p;
  s.fineStep = 2.0 * std::pow(2.0, -3.0 * p);
  s.maxFrequency = std::min(7000.0, 0.47 * sampleRate);
  return s;
}

struct Localizer::Fft {
  explicit Fft(int n) {
    in = fftwf_alloc_real(n);
    out = fftwf_alloc_complex(n / 2 + 1);
    std::lock_guard<std::mutex> lock(fftwPlanMutex());
    plan = fftwf_plan_dft_r2c_1d(n, in, out, FFTW_ESTIMATE);
  }
  ~Fft() {
    std::lock_guard<std::mutex> lock(fftwPlanMutex());
    fftwf_destroy_plan(plan);
    fftwf_free(in);
    fftwf_free(out);
  }
  float* in;
  fftwf_complex* out;
  fftwf_plan plan;
};

Localizer::Localizer(const ZRMicArray& array, int sampleRate, const LocalizerSettings& settings)
    : array_(array), rate_(sampleRate), settings_(settings), channels_(array.size()) {
  const int n = settings_.frameSize;
  for (int i = 0; i < channels_; ++i)
    for (int j = i + 1; j < channels_; ++j) {
      pairs_.push_back({i, j});
      const Point& a = array_.mics()[i];
      const Point& b = array_.mics()[j];
      const double s = -sampleRate / ZRMicArray::kSpeedOfSound;
      baselines_.push_back({(a[0] - b[0]) * s, (a[1] - b[1]) * s, (a[2] - b[2]) * s});
    }
  excluded_.assign(channels_, false);
  history_.assign(channels_, std::vector<float>(n, 0.0f));
  window_.resize(n);
  for (int i = 0; i < n; ++i)  // Hann, with the 16-bit scale folded in
    window_[i] = static_cast<float>(0.5 - 0.5 * std::cos(2.0 * kPi * i / n)) / 32768.0f;
  fft_ = std::make_unique<Fft>(n);
  // Bin powers to the mean square of a full-scale-relative signal (Parseval, one-sided).
  double windowEnergy = 0.0;
  for (float v : window_) windowEnergy += static_cast<double>(v) * v;
  powerScale_ = 2.0 / (n * windowEnergy) / (32768.0 * 32768.0);

  firstBin_ = std::max(1, static_cast<int>(std::ceil(settings_.minFrequency * n / rate_)));
  const int lastBin =
      std::min(n / 2 - 1, static_cast<int>(std::floor(settings_.maxFrequency * n / rate_)));
  bins_ = std::max(1, lastBin - firstBin_ + 1);
  noise_.assign(bins_, 0.0f);
  rise_ = static_cast<float>(
      std::pow(10.0, kNoiseRiseDbPerSecond / 10.0 * settings_.hop / static_cast<double>(rate_)));
  re_.assign(pairs_.size() * bins_, 0.0f);
  im_.assign(pairs_.size() * bins_, 0.0f);
  binWeight_.assign(bins_, 0.0f);
  unitRe_.assign(static_cast<std::size_t>(channels_) * bins_, 0.0f);
  unitIm_.assign(static_cast<std::size_t>(channels_) * bins_, 0.0f);
  channelPower_.assign(channels_, 0.0);

  // Lags cover the widest pair and a sample more, so that the channel check sees delays that do
  // not fit the geometry.
  const double widest = array_.aperture() * rate_ / ZRMicArray::kSpeedOfSound;
  lags_ = static_cast<int>(std::ceil((widest + 1.0) / settings_.lagStep));
  const int width = 2 * lags_ + 1;
  cosTable_.resize(static_cast<std::size_t>(bins_) * (2 * lags_ + 1));
  sinTable_.resize(static_cast<std::size_t>(bins_) * (lags_ + 1));
  for (int k = 0; k < bins_; ++k) {
    const double w = 2.0 * kPi * (firstBin_ + k) / n;
    for (int l = 0; l <= 2 * lags_; ++l)
      cosTable_[static_cast<std::size_t>(k) * width + l] =
          static_cast<float>(std::cos(w * l * settings_.lagStep));
    for (int l = 0; l <= lags_; ++l)
      sinTable_[static_cast<std::size_t>(k) * (lags_ + 1) + l] =
          static_cast<float>(std::sin(w * l * settings_.lagStep));
  }
  corr_.assign(pairs_.size() * width, 0.0f);
  pattern_.assign(width, 0.0f);
  buildGrid();
}

Localizer::~Localizer() = default;

void Localizer::excludeChannel(int channel) {
  if (channel >= 0 && channel < channels_) excluded_[channel] = true;
}

double Localizer::pairDelay(int i, int j, const Point& u) const {
  const double s = -rate_ / ZRMicArray::kSpeedOfSound;
  const Point& a = array_.mics()[i];
  const Point& b = array_.mics()[j];
  return ((a[0] - b[0]) * u[0] + (a[1] - b[1]) * u[1] + (a[2] - b[2]) * u[2]) * s;
}

Point Localizer::directionAt(double a, double b) const {
  const Point& axis = array_.axis();
  if (array_.kind() == ZRMicArray::Kind::Linear) {
    // a: angle from the axis, through the horizontal perpendicular counter-clockwise of it.
    const Point perp = unit(cross({0.0, 0.0, 1.0}, axis));
    const double c = std::cos(a * kDeg), s = std::sin(a * kDeg);
    return {c * axis[0] + s * perp[0], c * axis[1] + s * perp[1], c * axis[2] + s * perp[2]};
  }
  Point e1{1.0, 0.0, 0.0}, e2{0.0, 1.0, 0.0}, n{0.0, 0.0, 1.0};
  if (array_.kind() == ZRMicArray::Kind::Planar && std::fabs(axis[2]) < 0.999) {
    // A tilted plane: its own frame, e1 as close to +x as the plane allows.
    n = axis;
    const Point ref = std::fabs(n[0]) < 0.9 ? Point{1.0, 0.0, 0.0} : Point{0.0, 1.0, 0.0};
    e2 = unit(cross(n, ref));
    e1 = cross(e2, n);
  }
  const double ca = std::cos(a * kDeg), sa = std::sin(a * kDeg);
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

void Localizer::push(const short* interleaved, int count) {
  const int n = settings_.frameSize;
  for (int s = 0; s < count; ++s) {
    const short* frame = interleaved + static_cast<std::size_t>(s) * channels_;
    for (int c = 0; c < channels_; ++c) history_[c][filled_] = frame[c];
    if (++filled_ == n) {
      analyseFrame();
      const int keep = n - settings_.hop;
      for (auto& h : history_) std::memmove(h.data(), h.data() + settings_.hop, keep * sizeof(float));
      filled_ = keep;
    }
  }
}

void Localizer::analyseFrame() {
  const int n = settings_.frameSize;
  std::vector<float> power(bins_, 0.0f);
  int active = 0;
  for (int c = 0; c < channels_; ++c) {
    const float* h = history_[c].data();
    for (int i = 0; i < n; ++i) fft_->in[i] = h[i] * window_[i];
    fftwf_execute(fft_->plan);
    float* ur = &unitRe_[static_cast<std::size_t>(c) * bins_];
    float* ui = &unitIm_[static_cast<std::size_t>(c) * bins_];
    double channelSum = 0.0;
    for (int k = 0; k < bins_; ++k) {
      const float xr = fft_->out[firstBin_ + k][0], xi = fft_->out[firstBin_ + k][1];
      const float p = xr * xr + xi * xi;
      channelSum += p;
      if (!excluded_[c]) power[k] += p;
      const float inv = p > 1e-20f ? 1.0f / std::sqrt(p) : 0.0f;
      ur[k] = xr * inv;
      ui[k] = xi * inv;
    }
    channelPower_[c] += channelSum;
    if (!excluded_[c]) ++active;
  }
  if (active < 2) return;
  double speech = 0.0, weights = 0.0;
  std::vector<float> w(bins_);
  for (int k = 0; k < bins_; ++k) {
    const float p = power[k] / static_cast<float>(active);
    float& floor = noise_[k];
    if (!noiseStarted_)
      floor = p;
    else if (p < floor)
      floor += kNoiseFall * (p - floor);
    else
      floor *= rise_;
    w[k] = p > 0.0f ? std::max(0.0f, 1.0f - kOverSubtraction * floor / p) : 0.0f;
    speech += std::max(0.0f, p - floor);
    weights += w[k];
    binWeight_[k] += w[k];
  }
  noiseStarted_ = true;
  for (std::size_t p = 0; p < pairs_.size(); ++p) {
    const int i = pairs_[p][0], j = pairs_[p][1];
    if (excluded_[i] || excluded_[j]) continue;
    const float* ar = &unitRe_[static_cast<std::size_t>(i) * bins_];
    const float* ai = &unitIm_[static_cast<std::size_t>(i) * bins_];
    const float* br = &unitRe_[static_cast<std::size_t>(j) * bins_];
    const float* bi = &unitIm_[static_cast<std::size_t>(j) * bins_];
    float* re = &re_[p * bins_];
    float* im = &im_[p * bins_];
    for (int k = 0; k < bins_; ++k) {
      re[k] += w[k] * (ar[k] * br[k] + ai[k] * bi[k]);
      im[k] += w[k] * (ai[k] * br[k] - ar[k] * bi[k]);
    }
  }
  speechPower_ += speech * powerScale_;
  weightSum_ += weights / bins_;
  ++frames_;
}

float Localizer::responseAt(const Direction& /*d*/, std::size_t index) const {
  const int width = 2 * lags_ + 1;
  const float* lag = &gridLag_[index * pairs_.size()];
  float sum = 0.0f;
  for (std::size_t p = 0; p < pairs_.size(); ++p) {
    const float x = lag[p];
    const int i = std::min(static_cast<int>(x), width - 2);
    const float f = x - static_cast<float>(i);
    const float* c = &corr_[p * width + i];
    sum += c[0] + f * (c[1] - c[0]);
  }
  return sum;
}

float Localizer::response(const Point& u) const {
  const int width = 2 * lags_ + 1;
  float sum = 0.0f;
  for (std::size_t p = 0; p < pairs_.size(); ++p) {
    const double x = std::clamp(dot(baselines_[p], u) / settings_.lagStep + lags_, 0.0,
                                static_cast<double>(width - 1));
    const int i = std::min(static_cast<int>(x), width - 2);
    const float f = static_cast<float>(x - i);
    const float* c = &corr_[p * width + i];
    sum += c[0] + f * (c[1] - c[0]);
  }
  return sum;
}

LocalizedPeak Localizer::refine(const Direction& start) const {
  // Coordinate ascent on a fine grid around the coarse peak: azimuth (or the angle from a
  // line's axis), then elevation, twice.
  double a = start.a, b = start.b;
  float best = response(start.u);
  const double span = settings_.coarseStep, fine = settings_.fineStep;
  const bool linear = array_.kind() == ZRMicArray::Kind::Linear;
  const double bLow = array_.kind() == ZRMicArray::Kind::Volumetric ? -90.0 : 0.0;
  for (int round = 0; round < 2; ++round) {
    for (int axis = 0; axis < (linear ? 1 : 2); ++axis) {
      const double centre = axis == 0 ? a : b;
      // An elevation step moves the delays least near the horizon: search it wider there.
      const double reach = axis == 0 ? span : std::max(2.0 * span, 25.0 * (1.0 - b / 90.0));
      for (double x = centre - reach; x <= centre + reach + 1e-9; x += fine) {
        double ta = axis == 0 ? x : a, tb = axis == 0 ? b : x;
        if (linear && (ta < 0.0 || ta > 180.0)) continue;
        if (!linear && (tb < bLow || tb > 90.0)) continue;
        const float r = response(directionAt(ta, tb));
        if (r > best) best = r, a = ta, b = tb;
      }
    }
  }
  LocalizedPeak peak;
  peak.direction = directionAt(a, b);
  label(peak.direction, peak.azimuth, peak.elevation);
  peak.coherence = best / static_cast<float>(std::max<std::size_t>(1, activePairs_));
  return peak;
}

void Localizer::removePeak(const LocalizedPeak& peak) {
  const int width = 2 * lags_ + 1;
  const float amount = peak.coherence;
  for (std::size_t p = 0; p < pairs_.size(); ++p) {
    const double centre = dot(baselines_[p], peak.direction) / settings_.lagStep;
    float* c = &corr_[p * width];
    for (int l = 0; l < width; ++l) {
      const double x = std::min(std::fabs(l - lags_ - centre), 2.0 * lags_ - 1.0);
      const int i = static_cast<int>(x);
      const float f = static_cast<float>(x - i);
      c[l] -= amount * (pattern_[i] + f * (pattern_[i + 1] - pattern_[i]));
    }
  }
}

LocalizedPeriod Localizer::analyse(int maxPeaks) {
  LocalizedPeriod out;
  out.frames = frames_;
  out.channelDb.resize(channels_);
  for (int c = 0; c < channels_; ++c)
    out.channelDb[c] = toDb(frames_ ? channelPower_[c] * powerScale_ / frames_ : 0.0);
  double total = 0.0;
  for (float w : binWeight_) total += w;
  if (frames_ > 0) {
    out.speechDb = toDb(speechPower_ / frames_);
    out.weight = static_cast<float>(weightSum_ / frames_);
  }
  activePairs_ = 0;
  for (const auto& pr : pairs_)
    if (!excluded_[pr[0]] && !excluded_[pr[1]]) ++activePairs_;
  pairPeaks_.assign(pairs_.size(), {0.0, 0.0f});

  if (total > 1e-6 && activePairs_ > 0) {
    const int width = 2 * lags_ + 1;
    const float norm = static_cast<float>(1.0 / total);
    std::vector<float> even(lags_ + 1), odd(lags_ + 1);
    for (std::size_t p = 0; p < pairs_.size(); ++p) {
      float* c = &corr_[p * width];
      std::fill(even.begin(), even.end(), 0.0f);
      std::fill(odd.begin(), odd.end(), 0.0f);
      const float* re = &re_[p * bins_];
      const float* im = &im_[p * bins_];
      for (int k = 0; k < bins_; ++k) {
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
      // The pair's own peak, to the sub-step, for the channel check.
      const int best = static_cast<int>(std::max_element(c, c + width) - c);
      double offset = 0.0;
      if (best > 0 && best < width - 1) {
        const double d = c[best - 1] - 2.0 * c[best] + c[best + 1];
        if (d < 0.0) offset = 0.5 * (c[best - 1] - c[best + 1]) / d;
      }
      pairPeaks_[p] = {(best - lags_ + offset) * settings_.lagStep, c[best]};
    }
    for (int l = 0; l < width; ++l) {
      double s = 0.0;
      for (int k = 0; k < bins_; ++k)
        s += binWeight_[k] * cosTable_[static_cast<std::size_t>(k) * width + l];
      pattern_[l] = static_cast<float>(s / total);
    }
    for (std::size_t p = 0; p < pairs_.size(); ++p)
      if (excluded_[pairs_[p][0]] || excluded_[pairs_[p][1]])
        std::fill(&corr_[p * width], &corr_[p * width] + width, 0.0f);

    for (int found = 0; found < maxPeaks; ++found) {
      std::size_t best = 0;
      float bestValue = -1e30f;
      for (std::size_t d = 0; d < grid_.size(); ++d) {
        const float r = responseAt(grid_[d], d);
        if (r > bestValue) bestValue = r, best = d;
      }
      const LocalizedPeak peak = refine(grid_[best]);
      if (peak.coherence <= 0.0f) break;
      out.peaks.push_back(peak);
      if (found + 1 < maxPeaks) removePeak(peak);
    }
  }

  std::fill(re_.begin(), re_.end(), 0.0f);
  std::fill(im_.begin(), im_.end(), 0.0f);
  std::fill(binWeight_.begin(), binWeight_.end(), 0.0f);
  std::fill(channelPower_.begin(), channelPower_.end(), 0.0);
  speechPower_ = weightSum_ = 0.0;
  frames_ = 0;
  return out;
}

}  // namespace ZR
