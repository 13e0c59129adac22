#pragma once

#include <string>
#include <utility>
#include <vector>

#include "output.h"

namespace zr {

/// gnuplot's terminal for a plot file, chosen by its extension (.png or .svg); empty for any
/// other name, which the command line refuses before the run.
std::string plotTerminal(const std::string& path);

/// Throws std::runtime_error, with what to do, unless a plot can be drawn to `path`: a .png or
/// .svg name, gnuplot installed, and a file that can be written (tried without truncating it).
/// Meant before a run, so that its results are not computed for nothing.
void checkPlotOutput(const std::string& path);

/// Text as one gnuplot single-quoted string: nothing in it is substituted or run.
std::string gnuplotQuoted(const std::string& text);

/// What --plot needs, gathered while results stream. Not thread-safe: the caller serialises add.
class PlotData {
 public:
  void add(const Result& r);
  /// Writes a PNG or SVG (by extension) through gnuplot, run without a shell: the data go
  /// through a file of ours, the picture comes back on gnuplot's standard output, and the title
  /// is quoted, so that no name from the user reaches a shell or gnuplot's substitutions.
  /// Blocks until gnuplot is done; throws std::runtime_error on failure, and then leaves `path`
  /// as it was.
  void render(const std::string& path, const std::string& title) const;
  bool empty() const {
    return levels_.empty() && segments_.empty() && directions_.empty() && gaps_.empty();
  }

 private:
  struct Level {
    double time;
    std::vector<float> rms;
  };
  std::vector<Level> levels_;
  std::vector<std::pair<double, double>> segments_;
  std::vector<std::pair<double, double>> gaps_;  // lost sound: start and length in seconds
  struct Direction {
    double time;
    int id;
    double azimuth;
  };
  std::vector<Direction> directions_;  // SoundLocalization's sources, drawn under the levels
  bool sawDirections_ = false;
};

}  // namespace zr
