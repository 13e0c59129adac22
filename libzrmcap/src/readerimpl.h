#pragma once

// The recording reader's state, shared by the reader (reader.cpp) and its cursor (cursor.cpp):
// the summary through the footer when it is intact, else a walk through the data that keeps
// every complete record before a cut; messages by a walk through the data.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>

#include <zrerror/zrerror.h>
#include <zrmcap/zrmcap.h>

#include "mcapformat.h"

namespace ZR {

using namespace mcap;

namespace mcap {

inline const char* recordName(std::uint8_t opcode) {
  switch (opcode) {
    case kChunk:
      return "chunk";
    case kMessage:
      return "message";
    case kSchema:
      return "schema";
    case kChannel:
      return "channel";
    case kMessageIndex:
      return "message index";
    case kDataEnd:
      return "data end";
    default:
      return "record";
  }
}

inline std::string plural(std::uint64_t n, const char* what) {
  return std::to_string(n) + " " + what + (n == 1 ? "" : "s");
}

// Where a walk through the data stopped short of its end, and why.
struct Stop {
  std::uint64_t offset = 0;
  std::string why;
  bool truncated = false;  // the file ends there: what precedes is all there is
};

}  // namespace mcap

struct ZRMcapReader::Impl {
  std::string name;
  int fd = -1;
  std::vector<std::uint8_t> memory;
  std::uint64_t size = 0;

  ZRMcapSummary summary;
  std::uint64_t dataStart = 0, dataLimit = 0;
  std::optional<Stop> stop;  // met by the scan at dataLimit
  std::map<std::uint64_t, std::vector<std::uint16_t>> chunkChannels;  // by chunk offset

  std::vector<std::uint8_t> body, records;
  bool done = false;  // the visitor wants no more
  bool sawDataEnd = false;

  ~Impl() {
    if (fd >= 0) ::close(fd);
  }

  ZRError error(const std::string& what) const { return ZRError(name, "read", what); }

  void read(std::uint64_t at, std::size_t n, std::uint8_t* out) {
    if (fd < 0) {
      std::memcpy(out, memory.data() + at, n);
      return;
    }
    std::size_t got = 0;
    while (got < n) {
      const ssize_t r = ::pread(fd, out + got, n - got, static_cast<off_t>(at + got));
      if (r < 0 && errno == EINTR) continue;
      if (r <= 0) {
        throw error("cannot read at byte " + std::to_string(at + got) + " (" +
                    (r < 0 ? std::strerror(errno) : "the file shrank") + ")");
      }
      got += static_cast<std::size_t>(r);
    }
  }
  void read(std::uint64_t at, std::size_t n, std::vector<std::uint8_t>& out) {
    out.resize(n);
    read(at, n, out.data());
  }

  void open() {
    if (size < sizeof kMagic) throw error("not an MCAP file: " + plural(size, "byte") + " long");
    std::uint8_t head[sizeof kMagic + kRecordHeader];
    const std::size_t n = std::min<std::uint64_t>(sizeof head, size);
    read(0, n, head);
    if (std::memcmp(head, kMagic, sizeof kMagic) != 0) {
      throw error("not an MCAP file: no magic at byte 0");
    }
    if (n < sizeof head || head[8] != kHeader) {
      throw error("the header at byte 8 is " +
                  std::string(n < sizeof head ? "cut short" : "missing"));
    }
    Decoder d(head + 9, 8);
    const std::uint64_t length = d.u64();
    if (length > size - sizeof head) throw error("the header at byte 8 is cut short");
    read(sizeof head, static_cast<std::size_t>(length), body);
    Decoder h(body.data(), body.size());
    summary.profile = h.str();
    summary.library = h.str();
    if (h.failed()) throw error("the header at byte 8 is malformed");
    dataStart = sizeof head + length;
    dataLimit = size;

    std::string why;
    if (readSummary(why)) return;
    // Without a usable summary everything comes from the data itself.
    ZRMcapSummary fresh;
    fresh.profile = std::move(summary.profile);
    fresh.library = std::move(summary.library);
    summary = std::move(fresh);
    chunkChannels.clear();
    summary.complete = why.empty();
    scan(why);
  }

  // True when the footer and summary say all; else `why` they are not usable ("" when the file
  // is intact but has no summary worth reading).
  bool readSummary(std::string& why) {
    constexpr std::size_t kTail = kRecordHeader + kFooterBody + sizeof kMagic;
    if (size < dataStart + kTail) {
      why = "no footer";
      return false;
    }
    const std::uint64_t footerAt = size - kTail;
    std::uint8_t tail[kTail];
    read(footerAt, kTail, tail);
    Decoder f(tail, kTail);
    const std::uint8_t opcode = f.u8();
    const std::uint64_t length = f.u64();
    const std::uint64_t summaryStart = f.u64();
    const std::uint64_t summaryOffsetStart = f.u64();
    const std::uint32_t crc = f.u32();
    if (opcode != kFooter || length != kFooterBody ||
        std::memcmp(tail + kTail - sizeof kMagic, kMagic, sizeof kMagic) != 0) {
      why = "no footer";
      return false;
    }
    if (summaryStart == 0) return false;  // intact, summary-less: the data says all
    if (summaryStart < dataStart || summaryStart > footerAt ||
        (summaryOffsetStart != 0 &&
         (summaryOffsetStart < summaryStart || summaryOffsetStart > footerAt))) {
      why = "the footer at byte " + std::to_string(footerAt) + " points outside the file";
      return false;
    }
    std::vector<std::uint8_t> s;
    read(summaryStart, static_cast<std::size_t>(footerAt - summaryStart), s);
    if (crc != 0) {
      std::uint32_t c = mcap::crc32(s.data(), s.size());
      c = mcap::crc32(tail, kRecordHeader + 16, c);
      if (c != crc) {
        why = "the summary at byte " + std::to_string(summaryStart) + " fails its CRC";
        return false;
      }
    }
    dataLimit = summaryStart;
    bool statistics = false;
    std::uint32_t channelCount = 0;
    for (std::size_t at = 0; at < s.size();) {
      Decoder r(s.data() + at, s.size() - at);
      const std::uint8_t op = r.u8();
      const std::uint64_t n = r.u64();
      if (r.failed() || n > r.remaining()) {
        why = "the summary record at byte " + std::to_string(summaryStart + at) + " is cut short";
        return false;
      }
      Decoder d(r.here(), static_cast<std::size_t>(n));
      at += kRecordHeader + static_cast<std::size_t>(n);
      if (op == kSchema) {
        ZRMcapSchema x;
        if (decodeSchema(d, x)) summary.schemas[x.id] = std::move(x);
      } else if (op == kChannel) {
        ZRMcapChannel x;
        if (decodeChannel(d, x)) summary.channels[x.id] = std::move(x);
      } else if (op == kStatistics) {
        summary.messageCount = d.u64();
        d.u16();
        channelCount = d.u32();
        d.u32();
        d.u32();
        summary.chunkCount = d.u32();
        summary.messageStartTime = d.u64();
        summary.messageEndTime = d.u64();
        const std::string_view counts = d.lengthPrefixed32();
        Decoder c(reinterpret_cast<const std::uint8_t*>(counts.data()), counts.size());
        while (c.remaining() >= 10) {
          const std::uint16_t channel = c.u16();
          summary.messageCounts[channel] = c.u64();
        }
        statistics = !d.failed();
      } else if (op == kChunkIndex) {
        d.u64();
        d.u64();
        const std::uint64_t chunkAt = d.u64();
        d.u64();
        const std::string_view offsets = d.lengthPrefixed32();
        Decoder c(reinterpret_cast<const std::uint8_t*>(offsets.data()), offsets.size());
        auto& channels = chunkChannels[chunkAt];
        while (c.remaining() >= 10) {
          channels.push_back(c.u16());
          c.u64();
        }
        d.u64();
        d.str();
        summary.compressedBytes += d.u64();
        summary.uncompressedBytes += d.u64();
      }
    }
    // Another writer's summary may not say all: then the data is counted instead.
    return statistics && summary.channels.size() >= channelCount;
  }

  // Reads the data for the summary; a file cut short or damaged keeps what precedes the damage.
  void scan(const std::string& summaryDamage) {
    auto& s = summary;
    const auto counted = [&s](const ZRMcapMessage& m) {
      if (s.messageCount == 0 || m.logTime < s.messageStartTime) s.messageStartTime = m.logTime;
      if (s.messageCount == 0 || m.logTime > s.messageEndTime) s.messageEndTime = m.logTime;
      ++s.messageCount;
      ++s.messageCounts[m.channelId];
      return true;
    };
    std::optional<Stop> met = walk(counted, {}, true);
    // Files of other writers may hold messages outside chunks: those are counted instead.
    const std::uint64_t n = s.chunkCount > 0 ? s.chunkCount : s.messageCount;
    const std::string read =
        n == 0 ? std::string("; nothing before it is read")
               : "; the " + plural(n, s.chunkCount > 0 ? "complete chunk" : "message") +
                     " before it " + (n == 1 ? "is" : "are") + " read";
    if (met) {
      dataLimit = met->offset;
      stop = met;
      s.complete = false;
      s.damage = (met->truncated ? "truncated at byte " + std::to_string(size) + ": " : "") +
                 met->why + read;
    } else if (!sawDataEnd && !s.complete) {
      s.damage = "truncated at byte " + std::to_string(size) + ": the file ends after " +
                 plural(s.chunkCount, "complete chunk") + ", without its summary";
    } else if (!s.complete) {
      s.damage = summaryDamage + "; the data before it is whole (" + plural(s.chunkCount, "chunk") +
                 " read)";
    }
  }

  bool wanted(const std::vector<std::uint16_t>& channels, std::uint16_t id) const {
    return channels.empty() || std::find(channels.begin(), channels.end(), id) != channels.end();
  }

  // Walks the data section from its start to dataLimit: definitions into the summary (when
  // `gather`), messages of `channels` to `visit` until it returns false. Returns where it met
  // damage, if it did.
  template <class Visit>
  std::optional<Stop> walk(Visit&& visit, const std::vector<std::uint16_t>& channels, bool gather) {
    std::uint64_t at = dataStart;
    std::uint8_t head[kRecordHeader];
    done = false;
    while (at < dataLimit) {
      const std::uint64_t left = dataLimit - at;
      if (left < kRecordHeader) {
        return Stop{at, "a record at byte " + std::to_string(at) + " was cut short", true};
      }
      read(at, kRecordHeader, head);
      Decoder h(head, kRecordHeader);
      const std::uint8_t op = h.u8();
      const std::uint64_t length = h.u64();
      if (op == 0) {
        return Stop{at, "garbage at byte " + std::to_string(at) + " (no record starts there)"};
      }
      if (length > left - kRecordHeader) {
        return Stop{at,
                    std::string("a ") + recordName(op) + " of " + plural(length, "byte") +
                        " at byte " + std::to_string(at) + " was cut short",
                    dataLimit == size};
      }
      const std::uint64_t next = at + kRecordHeader + length;
      if (op == kDataEnd || op == kFooter) {
        if (gather && op == kDataEnd) {
          dataLimit = next;
          sawDataEnd = true;
        }
        return std::nullopt;
      }
      if (op == kChunk) {
        const auto it = chunkChannels.find(at);
        const bool skip = !channels.empty() && it != chunkChannels.end() &&
                          std::none_of(it->second.begin(), it->second.end(),
                                       [&](std::uint16_t c) { return wanted(channels, c); });
        if (!skip) {
          read(at + kRecordHeader, static_cast<std::size_t>(length), body);
          if (auto bad = chunk(at, visit, channels, gather)) return bad;
        }
      } else if (op == kSchema || op == kChannel || op == kMessage) {
        read(at + kRecordHeader, static_cast<std::size_t>(length), body);
        if (!record(op, body.data(), body.size(), visit, channels, gather)) {
          return Stop{at, std::string("the ") + recordName(op) + " at byte " + std::to_string(at) +
                              " is malformed"};
        }
      }
      if (done) return std::nullopt;
      at = next;
    }
    return std::nullopt;
  }

  // False when malformed; sets `done` when the visitor wants no more.
  template <class Visit>
  bool record(std::uint8_t op, const std::uint8_t* p, std::size_t n, Visit&& visit,
              const std::vector<std::uint16_t>& channels, bool gather) {
    Decoder d(p, n);
    if (op == kMessage) {
      ZRMcapMessage m;
      m.channelId = d.u16();
      m.sequence = d.u32();
      m.logTime = d.u64();
      m.publishTime = d.u64();
      if (d.failed()) return false;
      m.data = d.here();
      m.size = d.remaining();
      if (wanted(channels, m.channelId) && !visit(m)) done = true;
      return true;
    }
    if (op == kSchema) {
      ZRMcapSchema s;
      if (!decodeSchema(d, s)) return false;
      if (gather) summary.schemas[s.id] = std::move(s);
    } else if (op == kChannel) {
      ZRMcapChannel c;
      if (!decodeChannel(d, c)) return false;
      if (gather) summary.channels[c.id] = std::move(c);
    }
    return true;
  }

  // The chunk in `body` at file offset `at`: checked, decompressed, its records walked.
  template <class Visit>
  std::optional<Stop> chunk(std::uint64_t at, Visit&& visit,
                            const std::vector<std::uint16_t>& channels, bool gather) {
    const std::string where = "the chunk at byte " + std::to_string(at);
    Decoder d(body.data(), body.size());
    ChunkHead c;
    if (!decodeChunkHead(d, c)) return Stop{at, where + " is malformed"};
    const std::string bad =
        decompress(c.compression, c.records, c.recordsSize, c.uncompressedSize, records);
    if (!bad.empty()) return Stop{at, where + ": " + bad};
    if (c.crc != 0 && mcap::crc32(records.data(), records.size()) != c.crc) {
      return Stop{at, where + " fails its CRC (damaged data)"};
    }
    std::size_t i = 0;
    while (i < records.size()) {
      Decoder r(records.data() + i, records.size() - i);
      const std::uint8_t op = r.u8();
      const std::uint64_t n = r.u64();
      if (r.failed() || n > r.remaining()) {
        return Stop{at, where + ": a record inside it at " + std::to_string(i) + " overruns it"};
      }
      if (!record(op, r.here(), static_cast<std::size_t>(n), visit, channels, gather)) {
        return Stop{at, where + ": the " + recordName(op) + " inside it at " + std::to_string(i) +
                            " is malformed"};
      }
      if (done) return std::nullopt;
      i += kRecordHeader + static_cast<std::size_t>(n);
    }
    if (gather) {
      ++summary.chunkCount;
      summary.compressedBytes += c.recordsSize;
      summary.uncompressedBytes += c.uncompressedSize;
    }
    return std::nullopt;
  }
};

}  // namespace ZR
