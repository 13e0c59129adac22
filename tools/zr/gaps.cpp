// Gap warnings of zr run and the subscription that brings the gaps.

#include "gaps.h"

#include <algorithm>

#include <zrcommon/zraudiotimestamp.h>
#include <zrcommon/zrservicenames.h>
#include <zrextractors/zrrecord.h>

namespace zr {

void subscribeToGaps(ZR::ZRMemoryProxy& memory, const std::string& client,
                     std::vector<std::string>& subscribed) {
  const std::vector<std::string> events = memory.getEventList();
  if (std::find(events.begin(), events.end(), ZR::kGapEvent) == events.end()) return;
  memory.subscribeToEvent(ZR::kGapEvent, client, "onEvent");
  subscribed.push_back(ZR::kGapEvent);
}

GapWarnings::GapWarnings(std::FILE* out, std::chrono::milliseconds interval, Clock clock)
    : out_(out), interval_(interval), clock_(std::move(clock)) {}

std::chrono::steady_clock::time_point GapWarnings::now() const {
  return clock_ ? clock_() : std::chrono::steady_clock::now();
}

void GapWarnings::add(const Result& gap) {
  std::int64_t start = 0;
  const ZR::ZRValue* s = ZR::recordField(gap.value, "start");
  const ZR::ZRValue* n = ZR::recordField(gap.value, "samples");
  const ZR::ZRValue* cause = ZR::recordField(gap.value, "cause");
  const ZR::ZRValue* reason = ZR::recordField(gap.value, "reason");
  const ZR::ZRValue* time = ZR::recordField(gap.value, "time");
  if (!s || !ZR::zrReadSample(*s, start) || !n || !n->isInt()) return;
  const auto t = now();
  if (any_ && t - last_ < interval_) {
    ++heldGaps_;
    heldSamples_ += n->toInt();
    return;
  }
  std::string more;
  if (heldGaps_ > 0)
    more = "; " + std::to_string(heldGaps_) + " more gap(s) of " + std::to_string(heldSamples_) +
           " samples before it";
  const std::string who = cause && cause->isString() ? cause->toStringRef() : "?";
  std::fprintf(out_, "zr: warning: %d samples lost at sample %lld (%.3f s), %s%s%s%s\n", n->toInt(),
               static_cast<long long>(start),
               time && time->isFloat() ? static_cast<double>(time->toFloat()) : 0.0,
               who == "capture" ? "at capture" : ("for " + who).c_str(),
               reason && reason->isString() ? (": " + reason->toStringRef()).c_str() : "",
               gap.file.empty() ? "" : (" in " + gap.file).c_str(), more.c_str());
  any_ = true;
  last_ = t;
  heldGaps_ = heldSamples_ = 0;
}

void GapWarnings::finish() {
  if (heldGaps_ > 0)
    std::fprintf(out_, "zr: warning: %lld more gap(s) of %lld samples\n",
                 static_cast<long long>(heldGaps_), static_cast<long long>(heldSamples_));
  heldGaps_ = heldSamples_ = 0;
}

}  // namespace zr
