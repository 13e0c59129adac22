// The listening half of the localizer: frames, their weights (noise floor, reverberation), each
// bin matched against the candidates and its pairs' weighted PHAT cross-spectra (less the
// noise's) added to the slot it was given, and the period's analysis, slot by slot (see
// localizersearch.cpp for the correlations and the steering).

#include "localizer.h"

#include <fftw3.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include "extractorutil.h"

namespace ZR {

namespace {

constexpr double kPi = 3.14159265358979323846;
using Point = ZRMicArray::Point;

float toDb(double power) {
  return power > 1e-12 ? static_cast<float>(10.0 * std::log10(power)) : -120.0f;
}

// Noise floor per bin: the mean of what is heard while it stays near the floor, rising by at
// most this much a second otherwise, so that speech, which comes and goes, is not taken for noise.
constexpr double kNoiseRiseDbPerSecond = 2.0;
constexpr float kNoiseSmoothing = 0.1f;
constexpr float kNearFloor = 2.0f;
// The lowest floor: white noise of this many 16-bit steps rms. Below it there is nothing a
// converter can tell, and digital silence must not hold the floor at 0.
constexpr double kFloorSteps = 2.0;
// A bin counts for localisation by how far it stands above that floor, judged with its
// neighbours on either side.
constexpr float kOverSubtraction = 3.0f;
constexpr int kSmoothBins = 2;
// Per 16 ms, what reverberation keeps of the power before (about 0.8 s of RT60).
constexpr double kTailDecay = 0.75;
// The tail counts this many times over against the frame: an onset must clear it well.
constexpr float kTailOver = 1.5f;
// Reverberation is a diffuse field: coherent between near mics at low frequencies, it pulls
// every direction towards zero delay (broadside, for a line). Its share of a bin (what the tail
// accounts for, counted this many times over) times the diffuse field's coherence between the
// pair's mics is taken out of the pair's cross-spectrum.
constexpr float kDiffuseOver = 1.0f;
// A bin goes to the candidate its phases fit best when they fit it at least this well (the
// mean phase agreement of its pairs once aligned on the candidate, -1/(M-1) to 1); otherwise it
// stays free for new sources.
constexpr float kAssignFit = 0.8f;
// A candidate's direction is looked for this far (degrees) from where it was.
constexpr double kCandidateReach = 12.0;

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
  for (auto* v : {&noise_, &tail_, &previous_, &w_, &power_, &smooth_, &noiseLike_, &reverb_})
    v->assign(bins_, 0.0f);
  tailDecay_ = static_cast<float>(std::pow(kTailDecay, settings_.hop / (0.016 * rate_)));
  rise_ = static_cast<float>(
      std::pow(10.0, kNoiseRiseDbPerSecond / 10.0 * settings_.hop / static_cast<double>(rate_)));
  const std::size_t perChannel = static_cast<std::size_t>(channels_) * bins_;
  unitRe_.assign(perChannel, 0.0f);
  unitIm_.assign(perChannel, 0.0f);
  inverse_.assign(perChannel, 0.0f);
  magnitude_.assign(perChannel, 0.0f);
  noiseRe_.assign(pairs_.size() * bins_, 0.0f);
  diffuse_.resize(pairs_.size() * bins_);
  for (std::size_t p = 0; p < pairs_.size(); ++p) {
    const Point& a = array_.mics()[pairs_[p][0]];
    const Point& b = array_.mics()[pairs_[p][1]];
    const double d = std::sqrt((a[0] - b[0]) * (a[0] - b[0]) + (a[1] - b[1]) * (a[1] - b[1]) +
                               (a[2] - b[2]) * (a[2] - b[2]));
    for (int k = 0; k < bins_; ++k) {
      const double x = 2.0 * kPi * (firstBin_ + k) * rate_ / n * d / ZRMicArray::kSpeedOfSound;
      diffuse_[p * bins_ + k] = static_cast<float>(x > 1e-9 ? std::sin(x) / x : 1.0);
    }
  }
  noiseIm_.assign(pairs_.size() * bins_, 0.0f);
  owner_.assign(bins_, 0);
  channelPower_.assign(channels_, 0.0);

  // Lags cover the widest pair and a sample more, so that the channel check sees delays that do
  // not fit the geometry.
  const double widest = array_.aperture() * rate_ / ZRMicArray::kSpeedOfSound;
  lags_ = static_cast<int>(std::ceil((widest + 1.0) / settings_.lagStep));
  const int width = 2 * lags_ + 1;
  cosTable_.resize(static_cast<std::size_t>(bins_) * width);
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
  setCandidates({});
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

void Localizer::setCandidates(const std::vector<Point>& directions) {
  candidates_.assign(directions.begin(),
                     directions.begin() + std::min<std::size_t>(directions.size(), kMaxCandidates));
  // Slot 0 holds the free bins; a new slot count keeps what the slots before it gathered.
  slots_ = static_cast<int>(candidates_.size()) + 1;
  const std::size_t cross = pairs_.size() * bins_;
  re_.resize(slots_ * cross, 0.0f);
  im_.resize(slots_ * cross, 0.0f);
  slotWeight_.resize(static_cast<std::size_t>(slots_) * bins_, 0.0f);
  const std::size_t table = candidates_.size() * channels_ * bins_;
  steerRe_.resize(table);
  steerIm_.resize(table);
  const double n = settings_.frameSize;
  for (std::size_t c = 0; c < candidates_.size(); ++c)
    for (int i = 0; i < channels_; ++i) {
      // The arrival at mic i, in samples after the centre, taken back: e^{+j w d_i}, by a
      // recurrence over the bins.
      const Point& m = array_.mics()[i];
      const Point& u = candidates_[c];
      const double d =
          -(m[0] * u[0] + m[1] * u[1] + m[2] * u[2]) * rate_ / ZRMicArray::kSpeedOfSound;
      const double step = 2.0 * kPi * d / n;
      double zr = std::cos(step * firstBin_), zi = std::sin(step * firstBin_);
      const double rr = std::cos(step), ri = std::sin(step);
      float* sr = &steerRe_[(c * channels_ + i) * bins_];
      float* si = &steerIm_[(c * channels_ + i) * bins_];
      for (int k = 0; k < bins_; ++k) {
        sr[k] = static_cast<float>(zr);
        si[k] = static_cast<float>(zi);
        const double t = zr * rr - zi * ri;
        zi = zr * ri + zi * rr;
        zr = t;
      }
    }
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
  std::fill(power_.begin(), power_.end(), 0.0f);
  int active = 0;
  for (int c = 0; c < channels_; ++c) {
    const float* h = history_[c].data();
    for (int i = 0; i < n; ++i) fft_->in[i] = h[i] * window_[i];
    fftwf_execute(fft_->plan);
    float* ur = &unitRe_[static_cast<std::size_t>(c) * bins_];
    float* ui = &unitIm_[static_cast<std::size_t>(c) * bins_];
    float* inv = &inverse_[static_cast<std::size_t>(c) * bins_];
    float* mag = &magnitude_[static_cast<std::size_t>(c) * bins_];
    const fftwf_complex* x = fft_->out + firstBin_;
    double channelSum = 0.0;
    for (int k = 0; k < bins_; ++k) {
      const float p = x[k][0] * x[k][0] + x[k][1] * x[k][1];
      channelSum += p;
      const float m = p > 1e-20f ? std::sqrt(p) : 0.0f;
      const float r = p > 1e-20f ? 1.0f / m : 0.0f;
      ur[k] = x[k][0] * r;
      ui[k] = x[k][1] * r;
      inv[k] = r;
      mag[k] = m;
    }
    channelPower_[c] += channelSum;
    if (excluded_[c]) continue;
    ++active;
    for (int k = 0; k < bins_; ++k) power_[k] += x[k][0] * x[k][0] + x[k][1] * x[k][1];
  }
  if (active < 2) return;
  weighBins(power_.data(), active);
  assignBins(active);

  const std::size_t cross = pairs_.size() * bins_;
  float* dr = power_.data();  // free once the weights are made
  float* di = smooth_.data();
  for (std::size_t p = 0; p < pairs_.size(); ++p) {
    const int i = pairs_[p][0], j = pairs_[p][1];
    if (excluded_[i] || excluded_[j]) continue;
    const float* ar = &unitRe_[static_cast<std::size_t>(i) * bins_];
    const float* ai = &unitIm_[static_cast<std::size_t>(i) * bins_];
    const float* br = &unitRe_[static_cast<std::size_t>(j) * bins_];
    const float* bi = &unitIm_[static_cast<std::size_t>(j) * bins_];
    const float* ia = &inverse_[static_cast<std::size_t>(i) * bins_];
    const float* ib = &inverse_[static_cast<std::size_t>(j) * bins_];
    const float* ma = &magnitude_[static_cast<std::size_t>(i) * bins_];
    const float* mb = &magnitude_[static_cast<std::size_t>(j) * bins_];
    float* nr = &noiseRe_[p * bins_];
    float* ni = &noiseIm_[p * bins_];
    const float* diffuse = &diffuse_[p * bins_];
    for (int k = 0; k < bins_; ++k) {
      // The pair's cross-spectrum less that of the noise (tracked while the bin is near its
      // floor), over the magnitudes: diffuse noise, coherent at low frequencies, would otherwise
      // pull every direction towards zero delay.
      const float cr = ar[k] * br[k] + ai[k] * bi[k];
      const float ci = ai[k] * br[k] - ar[k] * bi[k];
      const float scale = ia[k] * ib[k];
      const float mag = ma[k] * mb[k];
      nr[k] += noiseLike_[k] * (cr * mag - nr[k]);
      ni[k] += noiseLike_[k] * (ci * mag - ni[k]);
      dr[k] = w_[k] * (cr - nr[k] * scale - reverb_[k] * diffuse[k]);
      di[k] = w_[k] * (ci - ni[k] * scale);
    }
    // Into each bin's slot, apart from the loop above, which so has no indirection.
    float* re = &re_[p * bins_];
    float* im = &im_[p * bins_];
    if (candidates_.empty()) {
      for (int k = 0; k < bins_; ++k) re[k] += dr[k], im[k] += di[k];
      continue;
    }
    for (int k = 0; k < bins_; ++k) {
      re[owner_[k] * cross + k] += dr[k];
      im[owner_[k] * cross + k] += di[k];
    }
  }
  double weights = 0.0;
  for (int k = 0; k < bins_; ++k) {
    slotWeight_[static_cast<std::size_t>(owner_[k]) * bins_ + k] += w_[k];
    weights += w_[k];
  }
  weightSum_ += weights / bins_;
  ++frames_;
}

void Localizer::weighBins(const float* power, int active) {
  // Neighbouring bins together: a single bin of noise (at low frequencies the channels hear the
  // same diffuse noise, so averaging them does not steady it) often peaks well above its floor.
  for (int k = 0; k < bins_; ++k) {
    float sum = 0.0f;
    int count = 0;
    for (int j = std::max(0, k - kSmoothBins); j <= std::min(bins_ - 1, k + kSmoothBins); ++j)
      sum += power[j], ++count;
    smooth_[k] = sum / static_cast<float>(count * active);
  }
  double speech = 0.0;
  for (int k = 0; k < bins_; ++k) {
    const float p = smooth_[k];
    float& floor = noise_[k];
    const bool nearFloor = !noiseStarted_ || p < kNearFloor * floor;
    if (!noiseStarted_)
      floor = p;
    else if (nearFloor)
      floor += kNoiseSmoothing * (p - floor);
    else
      floor *= rise_;
    floor = std::max(floor, floorMinimum_);  // nothing counts at the converter's own noise
    float w = p > 0.0f ? std::max(0.0f, 1.0f - kOverSubtraction * floor / p) : 0.0f;
    // Reverberation: what the earlier frames leave, decaying, is no direct sound. Onsets count
    // fully, steady sound in part, decaying sound not at all.
    float& tail = tail_[k];
    tail = std::max(tail, previous_[k]) * tailDecay_;
    previous_[k] = p;
    if (p > 0.0f) w *= std::clamp(1.0f - kTailOver * tail / p, 0.0f, 1.0f);
    // (the noise's own share is taken out with its cross-spectrum below)
    reverb_[k] = p > 0.0f ? kDiffuseOver * std::clamp((tail - floor) / p, 0.0f, 1.0f) : 0.0f;
    w_[k] = w;
    noiseLike_[k] = !noiseStarted_ ? 1.0f : nearFloor ? kNoiseSmoothing : 0.0f;
    speech += std::max(0.0f, p - floor);
  }
  noiseStarted_ = true;
  speechPower_ += speech * powerScale_;
}

void Localizer::assignBins(int active) {
  std::fill(owner_.begin(), owner_.end(), 0);
  if (candidates_.empty()) return;
  // Per bin, the candidate whose delays align the channels' phases best: |sum of aligned unit
  // phasors|^2 = M + 2 * (sum over pairs of their agreement).
  const float norm = 1.0f / static_cast<float>(active * (active - 1));
  std::vector<float>& best = smooth_;  // free once the weights are made
  std::fill(best.begin(), best.end(), kAssignFit);
  float sumRe[1024], sumIm[1024];
  for (int k0 = 0; k0 < bins_; k0 += 1024) {
    const int count = std::min(1024, bins_ - k0);
    for (std::size_t c = 0; c < candidates_.size(); ++c) {
      std::fill(sumRe, sumRe + count, 0.0f);
      std::fill(sumIm, sumIm + count, 0.0f);
      for (int i = 0; i < channels_; ++i) {
        if (excluded_[i]) continue;
        const std::size_t at = static_cast<std::size_t>(i) * bins_ + k0;
        const float* ur = &unitRe_[at];
        const float* ui = &unitIm_[at];
        const float* sr = &steerRe_[(c * channels_ + i) * bins_ + k0];
        const float* si = &steerIm_[(c * channels_ + i) * bins_ + k0];
        for (int k = 0; k < count; ++k) {
          sumRe[k] += ur[k] * sr[k] - ui[k] * si[k];
          sumIm[k] += ur[k] * si[k] + ui[k] * sr[k];
        }
      }
      for (int k = 0; k < count; ++k) {
        const float fit =
            (sumRe[k] * sumRe[k] + sumIm[k] * sumIm[k] - static_cast<float>(active)) * norm;
        if (fit > best[k0 + k]) best[k0 + k] = fit, owner_[k0 + k] = static_cast<int>(c) + 1;
      }
    }
  }
}

LocalizedPeriod Localizer::analyse(int maxNew) {
  LocalizedPeriod out;
  out.frames = frames_;
  out.channelDb.resize(channels_);
  for (int c = 0; c < channels_; ++c)
    out.channelDb[c] = toDb(frames_ ? channelPower_[c] * powerScale_ / frames_ : 0.0);
  if (frames_ > 0) {
    out.speechDb = toDb(speechPower_ / frames_);
    out.weight = static_cast<float>(weightSum_ / frames_);
  }
  activePairs_ = 0;
  for (const auto& pr : pairs_)
    if (!excluded_[pr[0]] && !excluded_[pr[1]]) ++activePairs_;
  pairPeaks_.assign(pairs_.size(), {0.0, 0.0f});
  std::vector<double> slotTotal(slots_, 0.0);
  double total = 0.0;
  for (int s = 0; s < slots_; ++s) {
    for (int k = 0; k < bins_; ++k)
      slotTotal[s] += slotWeight_[static_cast<std::size_t>(s) * bins_ + k];
    total += slotTotal[s];
  }
  out.tracked.resize(candidates_.size());
  const int width = 2 * lags_ + 1;
  if (total > 1e-6 && activePairs_ > 0) {
    std::vector<float> sum;
    if (measurePairs_) sum.assign(corr_.size(), 0.0f);
    const double reach = std::cos(kCandidateReach * kPi / 180.0);
    for (int s = slots_ - 1; s >= 0; --s) {
      if (slotTotal[s] <= 1e-6 && (s > 0 || !measurePairs_)) continue;
      correlate(s, static_cast<float>(total), corr_.data());
      if (measurePairs_)
        for (std::size_t i = 0; i < sum.size(); ++i) sum[i] += corr_[i];
      if (s > 0) {
        if (slotTotal[s] <= 1e-6) continue;
        LocalizedPeak peak = strongest(corr_.data(), &candidates_[s - 1], reach);
        peak.candidate = s - 1;
        peak.share = static_cast<float>(slotTotal[s] / total);
        peak.purity = peak.coherence / std::max(peak.share, 1e-6f);
        out.tracked[s - 1] = peak;
        continue;
      }
      if (measurePairs_) {
        for (std::size_t p = 0; p < pairs_.size(); ++p) {
          // The pair's own peak, to the sub-step, for the channel check.
          const float* c = &sum[p * width];
          const int best = static_cast<int>(std::max_element(c, c + width) - c);
          double offset = 0.0;
          if (best > 0 && best < width - 1) {
            const double d = c[best - 1] - 2.0 * c[best] + c[best + 1];
            if (d < 0.0) offset = 0.5 * (c[best - 1] - c[best + 1]) / d;
          }
          pairPeaks_[p] = {(best - lags_ + offset) * settings_.lagStep, c[best]};
        }
      }
      if (slotTotal[0] <= 1e-6) continue;
      // New directions in the free bins, each found source's pattern taken out before the next.
      for (int l = 0; l < width; ++l) {
        double v = 0.0;
        for (int k = 0; k < bins_; ++k)
          v += slotWeight_[k] * cosTable_[static_cast<std::size_t>(k) * width + l];
        pattern_[l] = static_cast<float>(v / total);
      }
      while (static_cast<int>(out.peaks.size()) < maxNew) {
        const LocalizedPeak peak = strongest(corr_.data(), nullptr, -1.0);
        if (peak.coherence <= 0.0f) break;
        out.peaks.push_back(peak);
        removePeak(corr_.data(), peak, peak.coherence);
      }
    }
  }

  std::fill(re_.begin(), re_.end(), 0.0f);
  std::fill(im_.begin(), im_.end(), 0.0f);
  std::fill(slotWeight_.begin(), slotWeight_.end(), 0.0f);
  std::fill(channelPower_.begin(), channelPower_.end(), 0.0);
  speechPower_ = weightSum_ = 0.0;
  frames_ = 0;
  return out;
}

}  // namespace ZR
