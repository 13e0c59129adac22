#pragma once

// The container's byte layout shared by the writer and the reader: opcodes, little-endian
// encoding into a growing buffer, bounded decoding of a record body, CRC-32 and the chunk codecs.

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include <zrmcap/zrmcap.h>

namespace ZR::mcap {

inline constexpr std::uint8_t kMagic[8] = {0x89, 'M', 'C', 'A', 'P', '0', '\r', '\n'};
inline constexpr std::size_t kRecordHeader = 9;  // opcode + uint64 body length
inline constexpr std::size_t kFooterBody = 20;

enum Opcode : std::uint8_t {
  kHeader = 0x01,
  kFooter = 0x02,
  kSchema = 0x03,
  kChannel = 0x04,
  kMessage = 0x05,
  kChunk = 0x06,
  kMessageIndex = 0x07,
  kChunkIndex = 0x08,
  kAttachment = 0x09,
  kAttachmentIndex = 0x0a,
  kStatistics = 0x0b,
  kMetadata = 0x0c,
  kMetadataIndex = 0x0d,
  kSummaryOffset = 0x0e,
  kDataEnd = 0x0f,
};

/// A message record's fixed fields before its data.
inline constexpr std::size_t kMessagePrefix = 2 + 4 + 8 + 8;

std::uint32_t crc32(const void* data, std::size_t size, std::uint32_t crc = 0);

/// Appends little-endian fields to a byte buffer; record() back-fills the body length.
class Encoder {
 public:
  explicit Encoder(std::vector<std::uint8_t>& out) : out_(out) {}
  void u8(std::uint8_t v) { out_.push_back(v); }
  void u16(std::uint16_t v) { le(v, 2); }
  void u32(std::uint32_t v) { le(v, 4); }
  void u64(std::uint64_t v) { le(v, 8); }
  void bytes(const void* data, std::size_t size);
  void str(std::string_view s);  // uint32 length + bytes
  void stringMap(const std::map<std::string, std::string>& m);
  /// Starts a record: opcode and a length to fill in by end().
  std::size_t begin(std::uint8_t opcode);
  void end(std::size_t begun);
  std::size_t size() const { return out_.size(); }

 private:
  void le(std::uint64_t v, int n) {
    for (int i = 0; i < n; ++i) out_.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
  }
  std::vector<std::uint8_t>& out_;
};

void encodeSchema(Encoder& e, const ZRMcapSchema& s);
void encodeChannel(Encoder& e, const ZRMcapChannel& c);

/// Reads fields from one record body; any read past its end sets failed() and yields zeros, so
/// a parser checks once at the end instead of at every field.
class Decoder {
 public:
  Decoder(const std::uint8_t* data, std::size_t size) : p_(data), end_(data + size) {}
  std::uint8_t u8() { return static_cast<std::uint8_t>(le(1)); }
  std::uint16_t u16() { return static_cast<std::uint16_t>(le(2)); }
  std::uint32_t u32() { return static_cast<std::uint32_t>(le(4)); }
  std::uint64_t u64() { return le(8); }
  std::string str();
  /// A uint32-length-prefixed byte run, borrowed.
  std::string_view lengthPrefixed32();
  std::string_view lengthPrefixed64();
  std::map<std::string, std::string> stringMap();
  std::size_t remaining() const { return static_cast<std::size_t>(end_ - p_); }
  const std::uint8_t* here() const { return p_; }
  bool failed() const { return failed_; }
  void fail() { failed_ = true; }

 private:
  std::uint64_t le(int n);
  std::string_view take(std::size_t n);
  const std::uint8_t* p_;
  const std::uint8_t* end_;
  bool failed_ = false;
};

/// The records decoded by both the summary and the data walk; false when the body is too short.
bool decodeSchema(Decoder& d, ZRMcapSchema& s);
bool decodeChannel(Decoder& d, ZRMcapChannel& c);

struct ChunkHead {
  std::uint64_t startTime = 0, endTime = 0, uncompressedSize = 0;
  std::uint32_t crc = 0;
  std::string compression;
  const std::uint8_t* records = nullptr;
  std::size_t recordsSize = 0;
};
bool decodeChunkHead(Decoder& d, ChunkHead& c);

/// The name a chunk carries for `c` ("" for none).
const char* compressionName(ZRMcapCompression c);
void compress(ZRMcapCompression c, const std::vector<std::uint8_t>& in,
              std::vector<std::uint8_t>& out);
/// Fills `out` with exactly `size` bytes from `in`; returns an empty string on success, else why
/// not (unknown compression, corrupt data, wrong size).
std::string decompress(const std::string& compression, const std::uint8_t* in, std::size_t inSize,
                       std::uint64_t size, std::vector<std::uint8_t>& out);
/// The largest uncompressed size `inSize` compressed bytes can honestly claim.
std::uint64_t maxUncompressed(const std::string& compression, std::size_t inSize);

}  // namespace ZR::mcap
