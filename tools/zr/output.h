#pragma once

#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <zrvalue/zrvalue.h>

namespace zr {

/// One published result, as the tool received it.
struct Result {
  std::string extractor;  // module that produced it
  std::string event;      // event name without the extractor's prefix
  ZR::ZRValue value;
};

/// Renders results as they come: an aligned table for people, CSV or JSON lines for programs.
class ResultWriter {
 public:
  virtual ~ResultWriter() = default;
  virtual void begin() {}
  virtual void write(const Result& r) = 0;
  virtual void end() {}

  /// "table", "csv" or "jsonl"; `out` stays owned by the caller.
  static std::unique_ptr<ResultWriter> create(const std::string& format, std::FILE* out);
};

/// What --plot needs, gathered while results stream.
class PlotData {
 public:
  void add(const Result& r);
  /// Writes a PNG or SVG (by extension) through gnuplot; throws std::runtime_error on failure.
  void render(const std::string& path, const std::string& title) const;
  bool empty() const { return levels_.empty() && segments_.empty(); }

 private:
  struct Level {
    double time;
    std::vector<float> rms;
  };
  std::vector<Level> levels_;
  std::vector<std::pair<double, double>> segments_;
};

}  // namespace zr
