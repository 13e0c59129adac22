#pragma once

// Puts the results of an offline run in time order, whatever each extractor's latency.

#include <cstdint>
#include <deque>
#include <functional>
#include <limits>
#include <map>
#include <string>
#include <vector>

#include "output.h"

namespace zr {

/// Merges the extractors' result streams by audio time (resultTime: a segment where it ended, a
/// level window where it started). Each extractor's results are taken to come in its own time
/// order; a result is passed on once every other extractor has either sent a result at least as
/// late or has results waiting, so an extractor that reports late (speech found only once it
/// has ended) holds the others back rather than printing behind them. Results without a time
/// pass at once; an extractor that has sent only such results holds nobody back. flush() passes
/// on what is held, in order, at the end of the input or when the run stops early (up to where
/// it stopped).
///
/// Not thread-safe: the caller serialises add and flush. The sink is called from inside them.
class TimeOrder {
 public:
  using Sink = std::function<void(const Result&)>;
  /// `extractors`: every extractor of the run, so that one that has said nothing yet holds back.
  TimeOrder(const std::vector<std::string>& extractors, Sink sink);
  void add(Result r);
  /// Passes on what is held from before `before` seconds, in order; drops the rest.
  void flush(double before = std::numeric_limits<double>::infinity());
  /// Results held now.
  std::size_t held() const { return held_; }

 private:
  struct Stream {
    std::deque<std::pair<double, Result>> waiting;  // by arrival, with their times
    double latest = 0.0;                            // time of its latest timed result
    bool timed = false;                             // it has sent a timed result
    bool untimedOnly = false;                       // it has sent only results without a time
    bool holdsBack = true;                          // others wait for it
  };
  /// Passes on the earliest waiting result while nobody can still send an earlier one (with
  /// `all`: every one from before `before`, dropping the rest).
  void release(bool all, double before = std::numeric_limits<double>::infinity());

  std::map<std::string, Stream> streams_;
  Sink sink_;
  std::size_t held_ = 0;
};

}  // namespace zr
