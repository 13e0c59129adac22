#include "timeorder.h"

namespace zr {

TimeOrder::TimeOrder(const std::vector<std::string>& extractors, Sink sink)
    : sink_(std::move(sink)) {
  for (const std::string& e : extractors) streams_[e];
}

void TimeOrder::add(Result r) {
  // A stream not named at the start (the device's gaps) is ordered but holds nobody back: it
  // may never speak again.
  const auto [it, fresh] = streams_.try_emplace(r.extractor);
  Stream& s = it->second;
  if (fresh) s.holdsBack = false;
  const std::optional<double> time = resultTime(r);
  if (!time) {
    s.untimedOnly = !s.timed;
    sink_(r);
    return;
  }
  s.timed = true;
  s.untimedOnly = false;
  s.latest = *time;
  s.waiting.emplace_back(*time, std::move(r));
  ++held_;
  release(false);
}

void TimeOrder::flush(double before) {
  release(true, before);
  for (auto& [name, s] : streams_) {
    held_ -= s.waiting.size();
    s.waiting.clear();
  }
}

void TimeOrder::release(bool all, double before) {
  for (;;) {
    Stream* first = nullptr;
    for (auto& [name, s] : streams_)
      if (!s.waiting.empty() && (!first || s.waiting.front().first < first->waiting.front().first))
        first = &s;
    if (!first) return;
    const double time = first->waiting.front().first;
    if (all && time >= before) return;
    if (!all)
      for (const auto& [name, s] : streams_)
        if (&s != first && s.holdsBack && s.waiting.empty() && !s.untimedOnly &&
            (!s.timed || s.latest < time))
          return;  // it may still send something earlier
    const Result r = std::move(first->waiting.front().second);
    first->waiting.pop_front();
    --held_;
    sink_(r);
  }
}

}  // namespace zr
