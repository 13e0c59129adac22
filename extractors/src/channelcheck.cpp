// The channel check: a dead channel is far below the others over a few seconds; swapped or
// mislabelled channels show as pair delays that no direction explains with the geometry, but one
// does once the suspects are exchanged or left out.

#include "channelcheck.h"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <sstream>

namespace ZR {

namespace {

// A channel this far below the median of the others for a few seconds is dead.
constexpr double kDeadBelowDb = 30.0;
constexpr int kLevelPeriods = 20;
// Strong directional sound: most bins above the noise, and pairs that agree on one delay.
constexpr float kStrongWeight = 0.05f;
constexpr float kStrongPairHeight = 0.5f;
constexpr float kWeakestPairHeight = 0.2f;
// Delays (in samples, rms over pairs) that a direction explains this badly do not fit; mics a few
// millimetres off their nominal place, and near sources, stay well below.
constexpr double kMisfit = 0.6;

using Point = ZRMicArray::Point;

// Solves the 3x3 system a x = b (a symmetric, positive definite after regularisation).
Point solve(double a[3][3], const Point& b) {
  double m[3][4];
  for (int i = 0; i < 3; ++i) {
    for (int j = 0; j < 3; ++j) m[i][j] = a[i][j];
    m[i][3] = b[i];
  }
  for (int c = 0; c < 3; ++c) {
    int pivot = c;
    for (int r = c + 1; r < 3; ++r)
      if (std::fabs(m[r][c]) > std::fabs(m[pivot][c])) pivot = r;
    for (int j = 0; j < 4; ++j) std::swap(m[c][j], m[pivot][j]);
    if (std::fabs(m[c][c]) < 1e-12) continue;
    for (int r = 0; r < 3; ++r) {
      if (r == c) continue;
      const double f = m[r][c] / m[c][c];
      for (int j = 0; j < 4; ++j) m[r][j] -= f * m[c][j];
    }
  }
  Point x{};
  for (int i = 0; i < 3; ++i) x[i] = std::fabs(m[i][i]) < 1e-12 ? 0.0 : m[i][3] / m[i][i];
  return x;
}

double median(std::vector<double> v) {
  if (v.empty()) return 0.0;
  std::nth_element(v.begin(), v.begin() + static_cast<long>(v.size() / 2), v.end());
  return v[v.size() / 2];
}

std::string channelList(const std::vector<int>& channels) {
  std::ostringstream s;
  for (std::size_t i = 0; i < channels.size(); ++i)
    s << (i == 0 ? "" : i + 1 == channels.size() ? " and " : ", ") << channels[i];
  return s.str();
}

}  // namespace

ChannelCheck::ChannelCheck(const ZRMicArray& array) : array_(array) {
  const int n = array_.size();
  for (int i = 0; i < n; ++i)
    for (int j = i + 1; j < n; ++j) pairs_.push_back({i, j});
  levelSum_.assign(n, 0.0);
}

double ChannelCheck::residual(const std::vector<double>& delays, const std::vector<int>& order,
                              int leftOut) const {
  // Least squares: the delays are baseline . v for some v (a direction scaled by rate / c);
  // `order` says which mic each channel really is.
  auto baseline = [&](std::size_t p) {
    const Point& a = array_.mics()[order[pairs_[p][0]]];
    const Point& b = array_.mics()[order[pairs_[p][1]]];
    return Point{b[0] - a[0], b[1] - a[1], b[2] - a[2]};
  };
  double m[3][3] = {};
  Point rhs{};
  int used = 0;
  for (std::size_t p = 0; p < pairs_.size(); ++p) {
    if (pairs_[p][0] == leftOut || pairs_[p][1] == leftOut) continue;
    const Point b = baseline(p);
    for (int i = 0; i < 3; ++i) {
      for (int j = 0; j < 3; ++j) m[i][j] += b[i] * b[j];
      rhs[i] += b[i] * delays[p];
    }
    ++used;
  }
  const double trace = m[0][0] + m[1][1] + m[2][2];
  for (int i = 0; i < 3; ++i) m[i][i] += 1e-9 * trace + 1e-15;
  const Point v = solve(m, rhs);
  double sum = 0.0;
  for (std::size_t p = 0; p < pairs_.size(); ++p) {
    if (pairs_[p][0] == leftOut || pairs_[p][1] == leftOut) continue;
    const Point b = baseline(p);
    const double e = delays[p] - (b[0] * v[0] + b[1] * v[1] + b[2] * v[2]);
    sum += e * e;
  }
  return used > 0 ? std::sqrt(sum / used) : 0.0;
}

std::vector<std::string> ChannelCheck::update(const LocalizedPeriod& period,
                                              const Localizer& localizer) {
  std::vector<std::string> warnings;
  const int n = array_.size();
  if (period.frames > 0 && static_cast<int>(period.channelDb.size()) == n) {
    for (int c = 0; c < n; ++c) levelSum_[c] += period.channelDb[c];
    if (++levelPeriods_ >= kLevelPeriods) {
      std::vector<double> mean(n);
      for (int c = 0; c < n; ++c) mean[c] = levelSum_[c] / levelPeriods_;
      const double typical = median(mean);
      for (int c = 0; c < n; ++c)
        if (mean[c] < typical - kDeadBelowDb &&
            std::find(dead_.begin(), dead_.end(), c) == dead_.end()) {
          dead_.push_back(c);
          std::ostringstream s;
          s.precision(3);
          s << "channel " << c << " looks dead (" << typical - mean[c]
            << " dB below the others): check its microphone; it is left out of the localisation";
          warnings.push_back(s.str());
        }
      std::fill(levelSum_.begin(), levelSum_.end(), 0.0);
      levelPeriods_ = 0;
    }
  }
  if (delaysJudged_ || period.weight < kStrongWeight) return warnings;
  const auto& peaks = localizer.pairPeaks();
  std::vector<double> heights, delays;
  for (std::size_t p = 0; p < pairs_.size() && p < peaks.size(); ++p) {
    if (std::find(dead_.begin(), dead_.end(), pairs_[p][0]) != dead_.end() ||
        std::find(dead_.begin(), dead_.end(), pairs_[p][1]) != dead_.end())
      return warnings;  // judged without a dead channel's noise only once it is left out
    heights.push_back(peaks[p].second);
    delays.push_back(peaks[p].first);
  }
  // Every pair must hear the source: a silent channel's pairs have no delay to tell.
  if (delays.size() != pairs_.size() || median(heights) < kStrongPairHeight ||
      *std::min_element(heights.begin(), heights.end()) < kWeakestPairHeight)
    return warnings;
  strong_.push_back(delays);
  if (static_cast<int>(strong_.size()) >= kStrongPeriods) {
    for (std::string& w : judgeDelays()) warnings.push_back(std::move(w));
    delaysJudged_ = true;
  }
  return warnings;
}

std::vector<std::string> ChannelCheck::judgeDelays() {
  const int n = array_.size();
  std::vector<int> identity(n);
  std::iota(identity.begin(), identity.end(), 0);
  auto misfit = [&](const std::vector<int>& order, int leftOut) {
    std::vector<double> r;
    for (const auto& d : strong_) r.push_back(residual(d, order, leftOut));
    return median(r);
  };
  const double base = misfit(identity, -1);
  if (base < kMisfit) return {};
  const std::string intro = "the delays between channels do not fit the array \"" + array_.name() +
                            "\" (" + std::to_string(base).substr(0, 4) + " samples off): ";
  // Two channels swapped?
  double bestSwap = base;
  int sa = -1, sb = -1;
  for (int a = 0; a < n; ++a)
    for (int b = a + 1; b < n; ++b) {
      std::vector<int> order = identity;
      std::swap(order[a], order[b]);
      const double r = misfit(order, -1);
      if (r < bestSwap) bestSwap = r, sa = a, sb = b;
    }
  if (sa >= 0 && bestSwap < kMisfit && bestSwap < 0.5 * base)
    return {intro + "channels " + std::to_string(sa) + " and " + std::to_string(sb) +
            " look swapped (check the channel order)"};
  // One channel elsewhere than the geometry says?
  double bestOut = base;
  int out = -1;
  if (n >= 4)
    for (int c = 0; c < n; ++c) {
      const double r = misfit(identity, c);
      if (r < bestOut) bestOut = r, out = c;
    }
  if (out >= 0 && bestOut < kMisfit && bestOut < 0.5 * base)
    return {intro + "channel " + std::to_string(out) +
            " is not where the geometry puts it (mislabelled or wired to another mic?)"};
  // Nothing simple explains it: name the channels whose pairs are furthest off.
  std::vector<double> blame(n, 0.0);
  for (int c = 0; c < n; ++c) blame[c] = base - misfit(identity, c);
  const double typical = median(blame);
  std::vector<int> suspects;
  for (int c = 0; c < n; ++c)
    if (blame[c] > typical + 0.25 * base) suspects.push_back(c);
  return {intro + (suspects.empty()
                       ? std::string("check the channel order, the spacing and its units")
                       : "suspect channels " + channelList(suspects) +
                             "; check the channel order, the spacing and its units")};
}

}  // namespace ZR
