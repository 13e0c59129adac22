#pragma once

#include <chrono>
#include <string>

namespace zr {

/// The progress bar line for `done` seconds of audio out of `total` (0: unknown, e.g. a live
/// input) after `elapsed` seconds of wall time, starting with "\r". The speed and the time left
/// appear only once some audio has been processed in a measurable time: never "0x real time".
std::string progressLine(double total, double done, double elapsed, bool final);

/// The closing line of a run: "zr: A s of audio in W s (Nx real time)[, interrupted]", without
/// the speed when it is unknown.
std::string summaryLine(double processed, double wall, bool interrupted);

/// Draws the progress bar on stderr, from the thread that runs the pipeline. Not thread-safe;
/// show() never blocks beyond writing one line.
class ProgressReporter {
 public:
  ProgressReporter(double total, bool enabled)
      : total_(total), enabled_(enabled), start_(std::chrono::steady_clock::now()) {}
  void show(double done, bool final = false) const;
  double elapsed() const;

 private:
  double total_;
  bool enabled_;
  std::chrono::steady_clock::time_point start_;
};

}  // namespace zr
