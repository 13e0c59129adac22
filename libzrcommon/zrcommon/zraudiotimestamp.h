#pragma once

// The audio device's "timestamp" value: where a buffer sits in its stream and when it was
// captured. Written by the device, read by extractors, tools and the Python client
// (python/zr/_timestamp.py decodes the same layout). docs/timestamps.md describes it for users.
//
// The value is an array of 32-bit ints:
//   [0] seconds, [1] microseconds   from the stream's first sample to this buffer's first sample
//   [2] [3]  sample index           of the buffer's first sample in the stream (lost samples count)
//   [4] [5]  monotonic ns           host's monotonic clock when that sample was captured
//   [6] [7]  real-time ns           host's real-time clock then (nanoseconds since 1970)
//   [8] [9]  sequence               of the buffer in its stream, from 0, one per buffer produced
// Each 64-bit field is two ints: the high 32 bits (signed), then the low 32 bits as their bit
// pattern. The first two are those of every older timestamp, so readers of [seconds,
// microseconds] keep working; a reader accepts any longer array and ignores what follows.

#include <cstdint>

#include <zrvalue/zrvalue.h>

namespace ZR {

struct ZRAudioTimestamp {
  static constexpr int kSize = 10;

  int seconds = 0;
  int microseconds = 0;
  std::int64_t sample = 0;
  std::int64_t monotonicNs = 0;
  std::int64_t realtimeNs = 0;
  std::int64_t sequence = 0;

  /// Seconds from the stream's start as one number.
  double time() const { return seconds + microseconds * 1e-6; }

  /// The timestamp of sample `index` at `sampleRate` Hz; seconds and microseconds come from the
  /// index, so that they never accumulate rounding and lost samples move them too.
  static ZRAudioTimestamp at(std::int64_t index, int sampleRate) {
    ZRAudioTimestamp t;
    const std::int64_t us = sampleRate > 0 ? index * 1000000 / sampleRate : 0;
    t.seconds = static_cast<int>(us / 1000000);
    t.microseconds = static_cast<int>(us % 1000000);
    t.sample = index;
    return t;
  }

  ZRValue toValue() const {
    ZRValue v;
    v.arraySetSize(kSize);
    v[0] = seconds;
    v[1] = microseconds;
    put(v, 2, sample);
    put(v, 4, monotonicNs);
    put(v, 6, realtimeNs);
    put(v, 8, sequence);
    return v;
  }

  /// False (and `out` untouched) unless `v` holds at least [seconds, microseconds] as ints. An
  /// old two-element timestamp reads with the other fields 0 and `hasPosition` false.
  static bool read(const ZRValue& v, ZRAudioTimestamp& out, bool* hasPosition = nullptr) {
    if (!v.isArray() || v.getSize() < 2 || !v[0].isInt() || !v[1].isInt()) return false;
    ZRAudioTimestamp t;
    t.seconds = v[0].toInt();
    t.microseconds = v[1].toInt();
    bool full = v.getSize() >= kSize;
    for (int i = 2; full && i < kSize; ++i) full = v[i].isInt();
    if (full) {
      t.sample = get(v, 2);
      t.monotonicNs = get(v, 4);
      t.realtimeNs = get(v, 6);
      t.sequence = get(v, 8);
    }
    if (hasPosition) *hasPosition = full;
    out = t;
    return true;
  }

 private:
  static void put(ZRValue& v, int i, std::int64_t x) {
    const auto bits = static_cast<std::uint64_t>(x);
    v[i] = static_cast<int>(static_cast<std::int32_t>(bits >> 32));
    v[i + 1] = static_cast<int>(static_cast<std::int32_t>(static_cast<std::uint32_t>(bits)));
  }
  static std::int64_t get(const ZRValue& v, int i) {
    const auto high = static_cast<std::uint32_t>(v[i].toInt());
    const auto low = static_cast<std::uint32_t>(v[i + 1].toInt());
    return static_cast<std::int64_t>((static_cast<std::uint64_t>(high) << 32) | low);
  }
};

/// A stream position in a result record: an int while it fits 32 bits (37 hours at 16 kHz),
/// else [high, low] as in the timestamp.
inline ZRValue zrSampleValue(std::int64_t sample) {
  if (sample >= INT32_MIN && sample <= INT32_MAX) return ZRValue(static_cast<int>(sample));
  ZRValue v;
  v.arraySetSize(2);
  const auto bits = static_cast<std::uint64_t>(sample);
  v[0] = static_cast<int>(static_cast<std::int32_t>(bits >> 32));
  v[1] = static_cast<int>(static_cast<std::int32_t>(static_cast<std::uint32_t>(bits)));
  return v;
}

/// Reads what zrSampleValue wrote; false for anything else.
inline bool zrReadSample(const ZRValue& v, std::int64_t& out) {
  if (v.isInt()) {
    out = v.toInt();
    return true;
  }
  if (!v.isArray() || v.getSize() != 2 || !v[0].isInt() || !v[1].isInt()) return false;
  out = static_cast<std::int64_t>(
      (static_cast<std::uint64_t>(static_cast<std::uint32_t>(v[0].toInt())) << 32) |
      static_cast<std::uint32_t>(v[1].toInt()));
  return true;
}

}  // namespace ZR
