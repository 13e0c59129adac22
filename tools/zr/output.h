#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include <zrvalue/zrvalue.h>

namespace zr {

/// One published result, as the tool received it.
struct Result {
  std::string extractor;  // module that produced it
  std::string event;      // event name without the extractor's prefix
  ZR::ZRValue value;
  std::string file{};  // the input it came from, when a run has several; else empty
  int sampleRate = 0;  // of the device, when known: gives a result without "sample" its position
  std::int64_t captureNs = 0;  // of the sound it was made from (monotonic clock), when known
  std::string fullName{};      // the event's name as raised ("SoundLevel/Levels")
};

/// A value as JSON: a record as an object of its fields, a float as the shortest text that reads
/// back as the same 32-bit float, binary data as its size.
nlohmann::ordered_json valueJson(const ZR::ZRValue& v);
/// A stream position, whether an int or [high, low] past 32 bits, as one integer.
nlohmann::ordered_json sampleJson(const ZR::ZRValue& v);

/// The result as one flat object: the input file (when a run has several), extractor, event,
/// then the record's fields (or "value"), and "sample", where its window starts in the stream.
nlohmann::ordered_json resultJson(const Result& r);
/// resultJson(r) as one line of JSON (without its line feed), written straight from the record.
std::string jsonLine(const Result& r);

/// A float as the JSON text of the double that prints as its shortest exact text.
void appendFloat(std::string& out, float f);

/// True for the device's announcement of lost samples ("ZRAudioDevice/Gap").
bool isGap(const Result& r);

/// The audio time a result stands at: its "end" (a finished segment), else its "time"; none for
/// a result that carries neither.
std::optional<double> resultTime(const Result& r);

/// Renders results as they come: an aligned table for people (rounded), CSV or JSON lines for
/// programs (every float in the shortest text that reads back as the same 32-bit float).
/// Not thread-safe (the caller serialises calls); each call blocks for its write to `out`.
class ResultWriter {
 public:
  explicit ResultWriter(std::FILE* out) : out_(out) {}
  virtual ~ResultWriter() = default;
  virtual void begin() {}
  virtual void write(const Result& r) = 0;
  virtual void end() {}
  /// False once a write to the output has failed (a full disk, say); call it after each call
  /// above, so that error() is the failed write's errno. What was written before stays written.
  bool check();
  /// Pushes what is buffered to the output, then check().
  bool flush();
  /// errno of the first failed write, 0 while none failed.
  int error() const { return error_; }

  /// "table", "csv" or "jsonl"; `out` stays owned by the caller. With `files`, CSV has a first
  /// column "file" (JSON lines and the table show a result's file whenever it has one).
  static std::unique_ptr<ResultWriter> create(const std::string& format, std::FILE* out,
                                              bool files = false);

 protected:
  std::FILE* out_;

 private:
  int error_ = 0;
};

}  // namespace zr
