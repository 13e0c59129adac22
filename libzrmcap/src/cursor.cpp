// The reader's cursor: the messages of a recording one at a time, a chunk in memory at once.

#include "readerimpl.h"

#include <algorithm>

namespace ZR {

using namespace mcap;

struct ZRMcapReader::Cursor::State {
  Impl* reader = nullptr;
  std::vector<std::uint16_t> channels;
  std::uint64_t at = 0;  // the next record of the data section
  std::vector<std::uint8_t> body, records;
  std::size_t inChunk = 0;  // the next record in `records`
  std::uint64_t chunkAt = 0;
  bool ended = false;

  // The next wanted message among the records of the chunk in hand; false when it has none left.
  bool fromChunk(ZRMcapMessage& out) {
    while (inChunk < records.size()) {
      Decoder r(records.data() + inChunk, records.size() - inChunk);
      const std::uint8_t op = r.u8();
      const std::uint64_t n = r.u64();
      const std::string where = "the chunk at byte " + std::to_string(chunkAt);
      if (r.failed() || n > r.remaining())
        throw reader->error(where + ": a record inside it at " + std::to_string(inChunk) +
                            " overruns it");
      const std::uint8_t* p = r.here();
      inChunk += kRecordHeader + static_cast<std::size_t>(n);
      if (op == kMessage && message(p, static_cast<std::size_t>(n), out)) return true;
    }
    return false;
  }

  bool message(const std::uint8_t* p, std::size_t n, ZRMcapMessage& out) const {
    Decoder d(p, n);
    ZRMcapMessage m;
    m.channelId = d.u16();
    m.sequence = d.u32();
    m.logTime = d.u64();
    m.publishTime = d.u64();
    if (d.failed()) throw reader->error("a message record is malformed");
    if (!reader->wanted(channels, m.channelId)) return false;
    m.data = d.here();
    m.size = d.remaining();
    out = m;
    return true;
  }

  bool next(ZRMcapMessage& out) {
    if (fromChunk(out)) return true;
    Impl& r = *reader;
    std::uint8_t head[kRecordHeader];
    while (!ended && at < r.dataLimit) {
      const std::uint64_t left = r.dataLimit - at;
      if (left < kRecordHeader) break;  // a cut: what precedes is all there is
      r.read(at, kRecordHeader, head);
      Decoder h(head, kRecordHeader);
      const std::uint8_t op = h.u8();
      const std::uint64_t length = h.u64();
      if (op == 0)
        throw r.error("garbage at byte " + std::to_string(at) + " (no record starts there)");
      if (length > left - kRecordHeader) {
        if (r.dataLimit == r.size) break;
        throw r.error(std::string("a ") + recordName(op) + " at byte " + std::to_string(at) +
                      " was cut short");
      }
      const std::uint64_t here = at;
      at += kRecordHeader + length;
      if (op == kDataEnd || op == kFooter) break;
      if (op == kMessage) {
        r.read(here + kRecordHeader, static_cast<std::size_t>(length), body);
        if (message(body.data(), body.size(), out)) return true;
      } else if (op == kChunk) {
        const auto it = r.chunkChannels.find(here);
        if (!channels.empty() && it != r.chunkChannels.end() &&
            std::none_of(it->second.begin(), it->second.end(),
                         [&](std::uint16_t c) { return r.wanted(channels, c); }))
          continue;
        r.read(here + kRecordHeader, static_cast<std::size_t>(length), body);
        const std::string where = "the chunk at byte " + std::to_string(here);
        Decoder d(body.data(), body.size());
        ChunkHead c;
        if (!decodeChunkHead(d, c)) throw r.error(where + " is malformed");
        const std::string bad =
            decompress(c.compression, c.records, c.recordsSize, c.uncompressedSize, records);
        if (!bad.empty()) throw r.error(where + ": " + bad);
        if (c.crc != 0 && mcap::crc32(records.data(), records.size()) != c.crc)
          throw r.error(where + " fails its CRC (damaged data)");
        chunkAt = here;
        inChunk = 0;
        if (fromChunk(out)) return true;
      }
    }
    ended = true;
    if (r.stop && !r.stop->truncated) throw r.error(r.stop->why);
    return false;
  }
};

ZRMcapReader::Cursor::Cursor() = default;
ZRMcapReader::Cursor::Cursor(Cursor&&) noexcept = default;
ZRMcapReader::Cursor& ZRMcapReader::Cursor::operator=(Cursor&&) noexcept = default;
ZRMcapReader::Cursor::~Cursor() = default;

bool ZRMcapReader::Cursor::next(ZRMcapMessage& out) {
  return state_ && state_->next(out);
}

ZRMcapReader::Cursor ZRMcapReader::messages(const std::vector<std::uint16_t>& channels) {
  Cursor c;
  c.state_ = std::make_unique<Cursor::State>();
  c.state_->reader = impl_.get();
  c.state_->channels = channels;
  c.state_->at = impl_->dataStart;
  return c;
}

}  // namespace ZR
