#pragma once

// Checks that the channels are what the geometry says: none dead, and the delays between them,
// on strong sound from one direction, those of a plane wave reaching the mics where the geometry
// puts them (not with two channels swapped or one mislabelled).

#include <string>
#include <vector>

#include "localizer.h"

namespace ZR {

/// Not thread-safe: one owner feeds it once per period.
class ChannelCheck {
 public:
  explicit ChannelCheck(const ZRMicArray& array);

  /// Looks at one analysed period (and the localizer's pair peaks for it); returns the warnings
  /// it has to give now, each given once in the check's life.
  std::vector<std::string> update(const LocalizedPeriod& period, const Localizer& localizer);
  /// Whether it still needs the localizer's pair peaks (until it has judged the delays).
  bool judging() const { return !delaysJudged_; }
  /// Channels found dead so far.
  const std::vector<int>& deadChannels() const { return dead_; }

  /// Periods of strong directional sound needed before the delays are judged.
  static constexpr int kStrongPeriods = 12;

 private:
  double residual(const std::vector<double>& delays, const std::vector<int>& order,
                  int leftOut) const;
  std::vector<std::string> judgeDelays();

  ZRMicArray array_;
  std::vector<std::array<int, 2>> pairs_;
  std::vector<double> levelSum_;
  int levelPeriods_ = 0;
  std::vector<int> dead_;
  std::vector<std::vector<double>> strong_;  // pair delays of strong periods
  bool delaysJudged_ = false;
};

}  // namespace ZR
