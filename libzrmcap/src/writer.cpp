// The recording writer: messages gathered into a chunk in memory, each closed chunk compressed
// and handed to the file with its message indexes in one write, and the summary at close.

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>

#include <zrerror/zrerror.h>
#include <zrmcap/zrmcap.h>

#include "mcapformat.h"

namespace ZR {

using namespace mcap;

ZRMcapCompression zrMcapCompressionFromName(const std::string& name) {
  if (name == "zstd") return ZRMcapCompression::Zstd;
  if (name == "lz4") return ZRMcapCompression::Lz4;
  if (name == "none" || name.empty()) return ZRMcapCompression::None;
  throw ZRError("ZRMcap", "compression",
                "unknown compression \"" + name + "\" (zstd, lz4 or none)");
}

namespace {

struct ChunkIndexEntry {
  std::uint64_t startTime, endTime, offset, length;
  std::map<std::uint16_t, std::uint64_t> messageIndexOffsets;
  std::uint64_t messageIndexLength, compressedSize, uncompressedSize;
};

}  // namespace

struct ZRMcapWriter::Impl {
  std::string path;
  Options options;
  int fd = -1;
  bool closed = false;
  std::uint64_t offset = 0;  // bytes in the file, all of them complete records
  std::uint32_t dataCrc = 0;
  std::uint64_t messageBytes = 0;

  std::vector<ZRMcapSchema> schemas;
  std::vector<ZRMcapChannel> channels;
  std::vector<std::uint32_t> sequences;  // per channel, index id - 1
  // Definitions not yet in the file: they precede the next chunk.
  std::vector<std::uint8_t> pending;

  // The open chunk.
  std::vector<std::uint8_t> records;
  std::map<std::uint16_t, std::vector<std::pair<std::uint64_t, std::uint64_t>>> index;
  std::map<std::uint16_t, std::uint64_t> chunkCounts;
  std::uint64_t chunkStart = 0, chunkEnd = 0, chunkMessageBytes = 0;

  // What the file holds, for the summary.
  std::map<std::uint16_t, std::uint64_t> counts;
  std::uint64_t messageCount = 0, startTime = 0, endTime = 0;
  std::vector<ChunkIndexEntry> chunkIndexes;

  std::vector<std::uint8_t> compressed, out;

  ZRError error(const std::string& what) const {
    return ZRError(path, "write", what + " at byte " + std::to_string(offset));
  }

  // Hands `buf` to the file whole, or leaves the file as it was (a partial write is cut off, so
  // what precedes stays readable) and throws.
  void append(const std::vector<std::uint8_t>& buf, bool inDataSection = true) {
    if (fd < 0) throw error("the file is closed");
    std::size_t done = 0;
    while (done < buf.size()) {
      const ssize_t n = ::write(fd, buf.data() + done, buf.size() - done);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) {
        const std::string why = n < 0 ? std::strerror(errno) : "nothing written";
        if (done > 0 && ::ftruncate(fd, static_cast<off_t>(offset)) == 0) {
          ::lseek(fd, static_cast<off_t>(offset), SEEK_SET);
        }
        throw error("cannot write " + std::to_string(buf.size()) + " bytes (" + why + ")");
      }
      done += static_cast<std::size_t>(n);
    }
    if (inDataSection) dataCrc = crc32(buf.data(), buf.size(), dataCrc);
    offset += buf.size();
  }

  void closeChunk() {
    if (index.empty()) return;
    out = pending;
    Encoder e(out);
    compress(options.compression, records, compressed);
    const std::uint64_t chunkOffset = offset + out.size();
    const auto r = e.begin(kChunk);
    e.u64(chunkStart);
    e.u64(chunkEnd);
    e.u64(records.size());
    e.u32(crc32(records.data(), records.size()));
    e.str(compressionName(options.compression));
    e.u64(compressed.size());
    e.bytes(compressed.data(), compressed.size());
    e.end(r);
    ChunkIndexEntry entry{
        chunkStart, chunkEnd, chunkOffset,       out.size() - (chunkOffset - offset),
        {},         0,        compressed.size(), records.size()};
    const std::size_t indexStart = out.size();
    for (const auto& [channel, entries] : index) {
      entry.messageIndexOffsets[channel] = offset + out.size();
      const auto m = e.begin(kMessageIndex);
      e.u16(channel);
      e.u32(static_cast<std::uint32_t>(entries.size() * 16));
      for (const auto& [time, at] : entries) {
        e.u64(time);
        e.u64(at);
      }
      e.end(m);
    }
    entry.messageIndexLength = out.size() - indexStart;
    // Whatever happens to the file, this chunk's messages are done with.
    records.clear();
    auto chunkIndex = std::move(index);
    auto chunkMessages = std::move(chunkCounts);
    index.clear();
    chunkCounts.clear();
    const std::uint64_t bytes = chunkMessageBytes;
    chunkMessageBytes = 0;

    append(out);
    pending.clear();
    for (const auto& [channel, n] : chunkMessages) {
      counts[channel] += n;
      messageCount += n;
    }
    startTime = chunkIndexes.empty() ? entry.startTime : std::min(startTime, entry.startTime);
    endTime = chunkIndexes.empty() ? entry.endTime : std::max(endTime, entry.endTime);
    chunkIndexes.push_back(std::move(entry));
    messageBytes += bytes;
  }

  void writeSummary() {
    out.clear();
    Encoder e(out);
    if (!pending.empty()) {
      out = pending;
      pending.clear();
    }
    const auto d = e.begin(kDataEnd);
    e.u32(crc32(out.data(), out.size() - kRecordHeader, dataCrc));
    e.end(d);

    const std::uint64_t summaryStart = offset + out.size();
    struct Group {
      std::uint8_t opcode;
      std::uint64_t start, length;
    };
    std::vector<Group> groups;
    auto group = [&](std::uint8_t opcode, std::size_t begun) {
      if (out.size() > begun) groups.push_back({opcode, offset + begun, out.size() - begun});
    };
    std::size_t at = out.size();
    for (const auto& s : schemas) encodeSchema(e, s);
    group(kSchema, at);
    at = out.size();
    for (const auto& c : channels) encodeChannel(e, c);
    group(kChannel, at);
    at = out.size();
    const auto s = e.begin(kStatistics);
    e.u64(messageCount);
    e.u16(static_cast<std::uint16_t>(schemas.size()));
    e.u32(static_cast<std::uint32_t>(channels.size()));
    e.u32(0);  // attachments
    e.u32(0);  // metadata
    e.u32(static_cast<std::uint32_t>(chunkIndexes.size()));
    e.u64(startTime);
    e.u64(endTime);
    e.u32(static_cast<std::uint32_t>(counts.size() * 10));
    for (const auto& [channel, n] : counts) {
      e.u16(channel);
      e.u64(n);
    }
    e.end(s);
    group(kStatistics, at);
    at = out.size();
    for (const auto& c : chunkIndexes) {
      const auto r = e.begin(kChunkIndex);
      e.u64(c.startTime);
      e.u64(c.endTime);
      e.u64(c.offset);
      e.u64(c.length);
      e.u32(static_cast<std::uint32_t>(c.messageIndexOffsets.size() * 10));
      for (const auto& [channel, where] : c.messageIndexOffsets) {
        e.u16(channel);
        e.u64(where);
      }
      e.u64(c.messageIndexLength);
      e.str(compressionName(options.compression));
      e.u64(c.compressedSize);
      e.u64(c.uncompressedSize);
      e.end(r);
    }
    group(kChunkIndex, at);
    const std::uint64_t summaryOffsetStart = offset + out.size();
    for (const auto& g : groups) {
      const auto r = e.begin(kSummaryOffset);
      e.u8(g.opcode);
      e.u64(g.start);
      e.u64(g.length);
      e.end(r);
    }
    const std::size_t summaryInBuffer = static_cast<std::size_t>(summaryStart - offset);
    e.u8(kFooter);
    e.u64(kFooterBody);
    e.u64(summaryStart);
    e.u64(summaryOffsetStart);
    e.u32(crc32(out.data() + summaryInBuffer, out.size() - summaryInBuffer));
    e.bytes(kMagic, sizeof kMagic);
    append(out, false);
  }
};

ZRMcapWriter::ZRMcapWriter(const std::string& path, Options options)
    : impl_(std::make_unique<Impl>()) {
  impl_->path = path;
  impl_->options = std::move(options);
  impl_->fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (impl_->fd < 0)
    throw impl_->error(std::string("cannot create (") + std::strerror(errno) + ")");
  std::vector<std::uint8_t> start(kMagic, kMagic + sizeof kMagic);
  Encoder e(start);
  const auto h = e.begin(kHeader);
  e.str(impl_->options.profile);
  e.str(impl_->options.library);
  e.end(h);
  try {
    impl_->append(start);
  } catch (...) {
    ::close(impl_->fd);
    throw;
  }
}

ZRMcapWriter::~ZRMcapWriter() {
  try {
    close();
  } catch (const std::exception& e) {
    std::cerr << e.what() << '\n';
  }
}

std::uint16_t ZRMcapWriter::addSchema(const std::string& name, const std::string& encoding,
                                      const std::string& data) {
  if (impl_->schemas.size() >= 0xffff) throw impl_->error("too many schemas");
  ZRMcapSchema s{static_cast<std::uint16_t>(impl_->schemas.size() + 1), name, encoding, data};
  Encoder e(impl_->pending);
  encodeSchema(e, s);
  impl_->schemas.push_back(std::move(s));
  return impl_->schemas.back().id;
}

std::uint16_t ZRMcapWriter::addChannel(std::uint16_t schemaId, const std::string& topic,
                                       const std::string& messageEncoding,
                                       const std::map<std::string, std::string>& metadata) {
  if (schemaId > impl_->schemas.size()) {
    throw impl_->error("channel \"" + topic + "\" names unknown schema " +
                       std::to_string(schemaId));
  }
  if (impl_->channels.size() >= 0xffff) throw impl_->error("too many channels");
  ZRMcapChannel c{static_cast<std::uint16_t>(impl_->channels.size() + 1), schemaId, topic,
                  messageEncoding, metadata};
  Encoder e(impl_->pending);
  encodeChannel(e, c);
  impl_->channels.push_back(std::move(c));
  impl_->sequences.push_back(0);
  return impl_->channels.back().id;
}

void ZRMcapWriter::write(std::uint16_t channel, std::uint64_t logTime, std::uint64_t publishTime,
                         const void* data, std::size_t size) {
  Impl& w = *impl_;
  if (w.closed) throw w.error("the file is closed");
  if (channel == 0 || channel > w.channels.size()) {
    throw w.error("unknown channel " + std::to_string(channel));
  }
  if (!w.index.empty() && w.options.chunkDuration > 0) {
    const std::uint64_t lo = std::min(w.chunkStart, logTime);
    const std::uint64_t hi = std::max(w.chunkEnd, logTime);
    if (hi - lo >= w.options.chunkDuration) w.closeChunk();
  }
  if (w.index.empty()) {
    w.chunkStart = w.chunkEnd = logTime;
  } else {
    w.chunkStart = std::min(w.chunkStart, logTime);
    w.chunkEnd = std::max(w.chunkEnd, logTime);
  }
  w.index[channel].emplace_back(logTime, w.records.size());
  ++w.chunkCounts[channel];
  w.chunkMessageBytes += size;
  Encoder e(w.records);
  e.u8(kMessage);
  e.u64(kMessagePrefix + size);
  e.u16(channel);
  e.u32(w.sequences[channel - 1]++);
  e.u64(logTime);
  e.u64(publishTime);
  e.bytes(data, size);
  if (w.records.size() >= w.options.chunkSize) w.closeChunk();
}

void ZRMcapWriter::flush() {
  if (impl_->closed) return;
  impl_->closeChunk();
}

void ZRMcapWriter::close() {
  Impl& w = *impl_;
  if (w.closed) return;
  w.closed = true;
  std::exception_ptr failure;
  try {
    w.closeChunk();
  } catch (const ZRError&) {
    failure = std::current_exception();
  }
  try {
    w.writeSummary();
  } catch (const ZRError&) {
    if (!failure) failure = std::current_exception();
  }
  if (::close(w.fd) != 0 && !failure) {
    failure = std::make_exception_ptr(w.error(std::string("close: ") + std::strerror(errno)));
  }
  w.fd = -1;
  if (failure) std::rethrow_exception(failure);
}

std::uint64_t ZRMcapWriter::bytesWritten() const {
  return impl_->offset;
}
std::uint64_t ZRMcapWriter::messageBytes() const {
  return impl_->messageBytes;
}

}  // namespace ZR
