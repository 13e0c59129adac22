// The container's byte layout: field encoding and bounded decoding, CRC-32, and the zstd and
// lz4 (frame format) chunk codecs.

#include "mcapformat.h"

#include <lz4frame.h>
#include <zlib.h>
#include <zstd.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include <zrerror/zrerror.h>

namespace ZR::mcap {

std::uint32_t crc32(const void* data, std::size_t size, std::uint32_t crc) {
  const auto* p = static_cast<const Bytef*>(data);
  uLong c = crc;
  // zlib takes at most a uInt per call.
  while (size > 0) {
    const auto n = static_cast<uInt>(std::min<std::size_t>(size, 1u << 30));
    c = ::crc32(c, p, n);
    p += n;
    size -= n;
  }
  return static_cast<std::uint32_t>(c);
}

void Encoder::bytes(const void* data, std::size_t size) {
  const auto* p = static_cast<const std::uint8_t*>(data);
  out_.insert(out_.end(), p, p + size);
}

void Encoder::str(std::string_view s) {
  u32(static_cast<std::uint32_t>(s.size()));
  bytes(s.data(), s.size());
}

void Encoder::stringMap(const std::map<std::string, std::string>& m) {
  const std::size_t at = out_.size();
  u32(0);
  for (const auto& [k, v] : m) {
    str(k);
    str(v);
  }
  const auto n = static_cast<std::uint32_t>(out_.size() - at - 4);
  for (std::size_t i = 0; i < 4; ++i) out_[at + i] = static_cast<std::uint8_t>(n >> (8 * i));
}

std::size_t Encoder::begin(std::uint8_t opcode) {
  u8(opcode);
  const std::size_t at = out_.size();
  u64(0);
  return at;
}

void Encoder::end(std::size_t begun) {
  const std::uint64_t n = out_.size() - begun - 8;
  for (std::size_t i = 0; i < 8; ++i) out_[begun + i] = static_cast<std::uint8_t>(n >> (8 * i));
}

void encodeSchema(Encoder& e, const ZRMcapSchema& s) {
  const auto r = e.begin(kSchema);
  e.u16(s.id);
  e.str(s.name);
  e.str(s.encoding);
  e.str(s.data);
  e.end(r);
}

void encodeChannel(Encoder& e, const ZRMcapChannel& c) {
  const auto r = e.begin(kChannel);
  e.u16(c.id);
  e.u16(c.schemaId);
  e.str(c.topic);
  e.str(c.messageEncoding);
  e.stringMap(c.metadata);
  e.end(r);
}

std::uint64_t Decoder::le(int n) {
  if (failed_ || remaining() < static_cast<std::size_t>(n)) {
    failed_ = true;
    return 0;
  }
  std::uint64_t v = 0;
  for (int i = 0; i < n; ++i) v |= std::uint64_t{p_[i]} << (8 * i);
  p_ += n;
  return v;
}

std::string_view Decoder::take(std::size_t n) {
  if (failed_ || remaining() < n) {
    failed_ = true;
    return {};
  }
  std::string_view s(reinterpret_cast<const char*>(p_), n);
  p_ += n;
  return s;
}

std::string Decoder::str() {
  return std::string(lengthPrefixed32());
}
std::string_view Decoder::lengthPrefixed32() {
  return take(u32());
}

std::string_view Decoder::lengthPrefixed64() {
  const std::uint64_t n = u64();
  if (n > remaining()) {
    failed_ = true;
    return {};
  }
  return take(static_cast<std::size_t>(n));
}

std::map<std::string, std::string> Decoder::stringMap() {
  std::map<std::string, std::string> m;
  const std::string_view body = lengthPrefixed32();
  Decoder d(reinterpret_cast<const std::uint8_t*>(body.data()), body.size());
  while (!d.failed() && d.remaining() > 0) {
    std::string k = d.str();
    std::string v = d.str();
    if (!d.failed()) m.emplace(std::move(k), std::move(v));
  }
  if (d.failed()) failed_ = true;
  return m;
}

bool decodeSchema(Decoder& d, ZRMcapSchema& s) {
  s.id = d.u16();
  s.name = d.str();
  s.encoding = d.str();
  s.data = std::string(d.lengthPrefixed32());
  return !d.failed();
}

bool decodeChannel(Decoder& d, ZRMcapChannel& c) {
  c.id = d.u16();
  c.schemaId = d.u16();
  c.topic = d.str();
  c.messageEncoding = d.str();
  c.metadata = d.stringMap();
  return !d.failed();
}

bool decodeChunkHead(Decoder& d, ChunkHead& c) {
  c.startTime = d.u64();
  c.endTime = d.u64();
  c.uncompressedSize = d.u64();
  c.crc = d.u32();
  c.compression = d.str();
  const std::string_view records = d.lengthPrefixed64();
  c.records = reinterpret_cast<const std::uint8_t*>(records.data());
  c.recordsSize = records.size();
  return !d.failed();
}

const char* compressionName(ZRMcapCompression c) {
  switch (c) {
    case ZRMcapCompression::Zstd:
      return "zstd";
    case ZRMcapCompression::Lz4:
      return "lz4";
    case ZRMcapCompression::None:
      break;
  }
  return "";
}

namespace {

struct Lz4fCompression {
  LZ4F_cctx* ctx = nullptr;
  ~Lz4fCompression() { LZ4F_freeCompressionContext(ctx); }
};
struct Lz4fDecompression {
  LZ4F_dctx* ctx = nullptr;
  ~Lz4fDecompression() { LZ4F_freeDecompressionContext(ctx); }
};

void compressZstd(const std::vector<std::uint8_t>& in, std::vector<std::uint8_t>& out) {
  // Level 1: a recorder compresses as it captures; the higher levels cost more than they save on
  // sound.
  out.resize(ZSTD_compressBound(in.size()));
  const std::size_t n = ZSTD_compress(out.data(), out.size(), in.data(), in.size(), 1);
  if (ZSTD_isError(n)) {
    throw ZRError("ZRMcapWriter", "write", std::string("zstd: ") + ZSTD_getErrorName(n));
  }
  out.resize(n);
}

void compressLz4(const std::vector<std::uint8_t>& in, std::vector<std::uint8_t>& out) {
  LZ4F_preferences_t prefs{};
  prefs.frameInfo.contentSize = in.size();
  out.resize(LZ4F_compressFrameBound(in.size(), &prefs));
  const std::size_t n = LZ4F_compressFrame(out.data(), out.size(), in.data(), in.size(), &prefs);
  if (LZ4F_isError(n)) {
    throw ZRError("ZRMcapWriter", "write", std::string("lz4: ") + LZ4F_getErrorName(n));
  }
  out.resize(n);
}

std::string decompressLz4(const std::uint8_t* in, std::size_t inSize, std::uint8_t* out,
                          std::size_t size) {
  Lz4fDecompression d;
  if (LZ4F_isError(LZ4F_createDecompressionContext(&d.ctx, LZ4F_VERSION))) {
    return "lz4: no decompression context";
  }
  std::size_t done = 0, used = 0;
  while (used < inSize) {
    std::size_t outN = size - done, inN = inSize - used;
    const std::size_t r = LZ4F_decompress(d.ctx, out + done, &outN, in + used, &inN, nullptr);
    if (LZ4F_isError(r)) return std::string("lz4: ") + LZ4F_getErrorName(r);
    done += outN;
    used += inN;
    if (r == 0) {
      // One frame ended; another may follow.
      continue;
    }
    if (inN == 0 && outN == 0) return "lz4: the data ends inside a frame";
  }
  if (done != size) {
    return "lz4: " + std::to_string(done) + " bytes decompressed, " + std::to_string(size) +
           " declared";
  }
  // Bytes left in a frame that wants more output than declared.
  std::uint8_t probe = 0;
  std::size_t outN = 1, inN = 0;
  const std::size_t r = LZ4F_decompress(d.ctx, &probe, &outN, nullptr, &inN, nullptr);
  if (!LZ4F_isError(r) && outN > 0) return "lz4: more bytes than declared";
  return {};
}

}  // namespace

void compress(ZRMcapCompression c, const std::vector<std::uint8_t>& in,
              std::vector<std::uint8_t>& out) {
  switch (c) {
    case ZRMcapCompression::Zstd:
      compressZstd(in, out);
      return;
    case ZRMcapCompression::Lz4:
      compressLz4(in, out);
      return;
    case ZRMcapCompression::None:
      break;
  }
  out = in;
}

std::uint64_t maxUncompressed(const std::string& compression, std::size_t inSize) {
  // Past these ratios the codec cannot go: lz4 emits at most 255 bytes per length byte, zstd at
  // most a 128 KiB run-length block per 4 bytes. No writer makes chunks of a gigabyte.
  constexpr std::uint64_t kCeiling = std::uint64_t{1} << 30;
  std::uint64_t bound = inSize;
  if (compression == "lz4") bound = std::uint64_t{inSize} * 256 + 64;
  if (compression == "zstd") bound = std::uint64_t{inSize} * 32768 + 1024;
  return std::min(bound, kCeiling);
}

std::string decompress(const std::string& compression, const std::uint8_t* in, std::size_t inSize,
                       std::uint64_t size, std::vector<std::uint8_t>& out) {
  if (compression != "" && compression != "zstd" && compression != "lz4") {
    return "unknown compression \"" + compression + "\"";
  }
  if (size > maxUncompressed(compression, inSize)) {
    return "declares " + std::to_string(size) + " uncompressed bytes for " +
           std::to_string(inSize) + " compressed";
  }
  if (compression == "zstd") {
    // A frame says its size (as every writer we know makes it): a chunk that declares another is
    // damaged, whatever the ratio allows.
    const unsigned long long framed = ZSTD_getFrameContentSize(in, inSize);
    if (framed == ZSTD_CONTENTSIZE_ERROR) return "zstd: not a zstd frame";
    const bool alone = ZSTD_findFrameCompressedSize(in, inSize) == inSize;
    if (framed != ZSTD_CONTENTSIZE_UNKNOWN && (framed > size || (alone && framed != size))) {
      return "zstd: the frame holds " + std::to_string(framed) + " bytes, " + std::to_string(size) +
             " declared";
    }
  }
  out.resize(static_cast<std::size_t>(size));
  if (compression.empty()) {
    if (inSize != size) return "uncompressed records of a size other than declared";
    if (inSize > 0) std::memcpy(out.data(), in, inSize);
    return {};
  }
  if (compression == "lz4") return decompressLz4(in, inSize, out.data(), out.size());
  const std::size_t n = ZSTD_decompress(out.data(), out.size(), in, inSize);
  if (ZSTD_isError(n)) return std::string("zstd: ") + ZSTD_getErrorName(n);
  if (n != size) {
    return "zstd: " + std::to_string(n) + " bytes decompressed, " + std::to_string(size) +
           " declared";
  }
  return {};
}

}  // namespace ZR::mcap
