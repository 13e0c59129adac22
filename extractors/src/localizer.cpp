// The listening half of the localizer: frames, their weights (noise floor, reverberation), the
// pairs' weighted PHAT cross-spectra less the noise's, their correlations over sub-sample delays,
// and the order in which a period's directions are looked for (see localizersearch.cpp for the
// steering itself).

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
float toDb(double power) {
  return power > 1e-12 ? static_cast<float>(10.0 * std::log10(power)) : -120.0f;
}

// Noise floor per bin: the mean of what is heard while it stays near the floor, rising by at
// most this much a second otherwise, so that speech, which comes and goes, is not taken for noise.
constexpr double kNoiseRiseDbPerSecond = 2.0;
constexpr float kNoiseSmoothing = 0.1f;
constexpr float kNearFloor = 2.0f;
// A peak this close to a hint (cosine of the angle) is the hinted source; a hinted search may
// wander this far.
constexpr double kHintTaken = 0.966;  // 15 degrees
constexpr double kHintReach = 0.940;  // 20 degrees
// The lowest floor: white noise of this many 16-bit steps rms. Below it there is nothing a
// converter can tell, and digital silence must not hold the floor at 0.
constexpr double kFloorSteps = 2.0;
// A bin counts for localisation by how far it stands above that floor, judged with its
// neighbours on either side.
constexpr float kOverSubtraction = 3.0f;
constexpr int kSmoothBins = 2;
// Per 16 ms, what reverberation keeps of the power before (about 0.8 s of RT60).
constexpr double kTailDecay = 0.75;

}  // namespace

LocalizerSettings LocalizerSettings::forPrecision(float precision, int sampleRate) {
  const double p = std::clamp(static_cast<double>(precision), 0.0, 1.0);
  LocalizerSettings s;
  s.frameSize = 1 << static_cast<int>(std::lround(std::log2(0.032 * sampleRate)));
  s.hop = p < 0.25 ? s.frameSize : s.frameSize / 2;
  s.lagStep = p < 0.25 ? 0.25 : 0.125;  // interpolated by cubics: finer buys little
  s.coarseStep = 8.0 - 4.0 * p;
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
  floorMinimum_ = static_cast<float>(kFloorSteps * kFloorSteps * windowEnergy);

  firstBin_ = std::max(1, static_cast<int>(std::ceil(settings_.minFrequency * n / rate_)));
  const int lastBin =
      std::min(n / 2 - 1, static_cast<int>(std::floor(settings_.maxFrequency * n / rate_)));
  bins_ = std::max(1, lastBin - firstBin_ + 1);
  noise_.assign(bins_, 0.0f);
  tailDecay_ = static_cast<float>(std::pow(kTailDecay, settings_.hop / (0.016 * rate_)));
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
  noiseRe_.assign(pairs_.size() * bins_, 0.0f);
  noiseIm_.assign(pairs_.size() * bins_, 0.0f);
  inverse_.assign(static_cast<std::size_t>(channels_) * bins_, 0.0f);
  tail_.assign(bins_, 0.0f);
  previous_.assign(bins_, 0.0f);
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

void Localizer::push(const short* interleaved, int count) {
  const int n = settings_.frameSize;
  for (int s = 0; s < count; ++s) {
    const short* frame = interleaved + static_cast<std::size_t>(s) * channels_;
    for (int c = 0; c < channels_; ++c) history_[c][filled_] = frame[c];
    if (++filled_ == n) {
      analyseFrame();
      const int keep = n - settings_.hop;
      for (auto& h : history_)
        std::memmove(h.data(), h.data() + settings_.hop, keep * sizeof(float));
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
    float* inv_ = &inverse_[static_cast<std::size_t>(c) * bins_];
    double channelSum = 0.0;
    for (int k = 0; k < bins_; ++k) {
      const float xr = fft_->out[firstBin_ + k][0], xi = fft_->out[firstBin_ + k][1];
      const float p = xr * xr + xi * xi;
      channelSum += p;
      if (!excluded_[c]) power[k] += p;
      const float inv = p > 1e-20f ? 1.0f / std::sqrt(p) : 0.0f;
      ur[k] = xr * inv;
      ui[k] = xi * inv;
      inv_[k] = inv;
    }
    channelPower_[c] += channelSum;
    if (!excluded_[c]) ++active;
  }
  if (active < 2) return;
  double speech = 0.0, weights = 0.0;
  std::vector<float> w(bins_), noiseLike(bins_);
  // Neighbouring bins together: a single bin of noise (at low frequencies the channels hear the
  // same diffuse noise, so averaging them does not steady it) often peaks well above its floor.
  std::vector<float> smooth(bins_);
  for (int k = 0; k < bins_; ++k) {
    float sum = 0.0f;
    int count = 0;
    for (int j = std::max(0, k - kSmoothBins); j <= std::min(bins_ - 1, k + kSmoothBins); ++j)
      sum += power[j], ++count;
    smooth[k] = sum / static_cast<float>(count);
  }
  for (int k = 0; k < bins_; ++k) {
    const float p = smooth[k] / static_cast<float>(active);
    float& floor = noise_[k];
    if (!noiseStarted_)
      floor = p;
    else if (p < kNearFloor * floor)
      floor += kNoiseSmoothing * (p - floor);
    else
      floor *= rise_;
    floor = std::max(floor, floorMinimum_);  // nothing counts at the converter's own noise
    w[k] = p > 0.0f ? std::max(0.0f, 1.0f - kOverSubtraction * floor / p) : 0.0f;
    // Reverberation: what the earlier frames leave, decaying, is no direct sound. Onsets count
    // fully, steady sound in part, decaying sound not at all.
    float& tail = tail_[k];
    tail = std::max(tail, previous_[k]) * tailDecay_;
    previous_[k] = p;
    if (p > 0.0f) w[k] *= std::clamp(1.0f - tail / p, 0.0f, 1.0f);
    noiseLike[k] = !noiseStarted_ || p < kNearFloor * floor ? kNoiseSmoothing : 0.0f;
    if (!noiseStarted_) noiseLike[k] = 1.0f;
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
    const float* ia = &inverse_[static_cast<std::size_t>(i) * bins_];
    const float* ib = &inverse_[static_cast<std::size_t>(j) * bins_];
    float* nr = &noiseRe_[p * bins_];
    float* ni = &noiseIm_[p * bins_];
    for (int k = 0; k < bins_; ++k) {
      // The pair's cross-spectrum less that of the noise (tracked while the bin is near its
      // floor), over the magnitudes: diffuse noise, coherent at low frequencies, would otherwise
      // pull every direction towards zero delay.
      const float cr = ar[k] * br[k] + ai[k] * bi[k];
      const float ci = ai[k] * br[k] - ar[k] * bi[k];
      const float scale = ia[k] * ib[k];
      const float mag = scale > 0.0f ? 1.0f / scale : 0.0f;
      nr[k] += noiseLike[k] * (cr * mag - nr[k]);
      ni[k] += noiseLike[k] * (ci * mag - ni[k]);
      re[k] += w[k] * (cr - nr[k] * scale);
      im[k] += w[k] * (ci - ni[k] * scale);
    }
  }
  speechPower_ += speech * powerScale_;
  weightSum_ += weights / bins_;
  ++frames_;
}

LocalizedPeriod Localizer::analyse(int maxPeaks, const std::vector<Point>& hints) {
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

    // The strongest direction first; then, where a source was heard before and is not that
    // one, its trace in what the strongest left (a talker outspoken by another for a moment is
    // still there); then new directions, each found source's pattern taken out before the next.
    auto strongest = [&]() {
      std::size_t best = 0;
      float bestValue = -1e30f;
      for (std::size_t d = 0; d < grid_.size(); ++d) {
        const float r = responseAt(grid_[d], d);
        if (r > bestValue) bestValue = r, best = d;
      }
      return refine(grid_[best]);
    };
    auto near = [&](const Point& u) {
      for (const LocalizedPeak& p : out.peaks)
        if (dot(p.direction, u) > kHintTaken) return true;
      return false;
    };
    LocalizedPeak first = strongest();
    if (first.coherence > 0.0f) {
      out.peaks.push_back(first);
      removePeak(first, first.coherence);
      for (const Point& hint : hints) {
        if (static_cast<int>(out.peaks.size()) >= maxPeaks || near(hint)) continue;
        LocalizedPeak peak = refine(Direction{hint, 0.0, 0.0}, 0.5);
        if (dot(peak.direction, hint) < kHintReach || peak.coherence <= 0.0f ||
            near(peak.direction))
          continue;
        peak.hinted = true;
        out.peaks.push_back(peak);
        removePeak(peak, peak.coherence);
      }
      while (static_cast<int>(out.peaks.size()) < maxPeaks) {
        const LocalizedPeak peak = strongest();
        if (peak.coherence <= 0.0f) break;
        out.peaks.push_back(peak);
        removePeak(peak, peak.coherence);
      }
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
