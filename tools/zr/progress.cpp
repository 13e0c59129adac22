#include "progress.h"

#include <algorithm>
#include <cstdio>

namespace zr {

namespace {

// Below this, a speed would be noise (and at 0, a division by zero).
constexpr double kMinMeasurable = 1e-3;

}  // namespace

std::string progressLine(double total, double done, double elapsed, bool final) {
  const bool known = done > 0 && elapsed >= kMinMeasurable;
  const double speed = known ? done / elapsed : 0.0;
  char line[160];
  if (total > 0) {
    const double pct = std::min(100.0, 100.0 * done / total);
    const int width = 30, filled = static_cast<int>(pct / 100.0 * width);
    std::string bar(static_cast<std::size_t>(filled), '#');
    bar.resize(width, '-');
    if (known)
      std::snprintf(line, sizeof line, "\r[%s] %5.1f%%  %7.1fx real time  %5.1f s left ",
                    bar.c_str(), pct, speed, final ? 0.0 : (total - done) / speed);
    else
      std::snprintf(line, sizeof line, "\r[%s] %5.1f%% ", bar.c_str(), pct);
  } else if (known) {
    std::snprintf(line, sizeof line, "\r%8.1f s of audio  %7.1fx real time ", done, speed);
  } else {
    std::snprintf(line, sizeof line, "\r%8.1f s of audio ", done);
  }
  return line;
}

std::string summaryLine(double processed, double wall, bool interrupted) {
  char line[160];
  if (processed > 0 && wall >= kMinMeasurable)
    std::snprintf(line, sizeof line, "zr: %.2f s of audio in %.2f s (%.0fx real time)%s", processed,
                  wall, processed / wall, interrupted ? ", interrupted" : "");
  else
    std::snprintf(line, sizeof line, "zr: %.2f s of audio in %.2f s%s", processed, wall,
                  interrupted ? ", interrupted" : "");
  return line;
}

double ProgressReporter::elapsed() const {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
}

void ProgressReporter::show(double done, bool final) const {
  if (!enabled_) return;
  std::fputs(progressLine(total_, done, elapsed(), final).c_str(), stderr);
  if (final) std::fputs("\n", stderr);
  std::fflush(stderr);
}

}  // namespace zr
