#pragma once

// Recordings in MCAP: the open container for timestamped messages of many channels that the
// field's tools read. A writer that appends chunked, compressed, indexed messages and a summary,
// so readers seek without a full scan; and a reader that reads such files, ours or anyone's,
// and recovers the complete chunks of one that was cut short (a recorder killed mid-chunk).
//
// Every failure is a ZRError whose module is the file's path, whose method is "write" or
// "read", and whose description says what went wrong and at which byte offset.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace ZR {

enum class ZRMcapCompression { None, Zstd, Lz4 };

/// "zstd", "lz4" or "none" (as the file's chunks name them: "" for none); throws ZRError for
/// anything else.
ZRMcapCompression zrMcapCompressionFromName(const std::string& name);

struct ZRMcapSchema {
  std::uint16_t id = 0;
  std::string name;      ///< e.g. "foxglove.RawAudio"
  std::string encoding;  ///< e.g. "jsonschema"
  std::string data;      ///< the schema itself
};

struct ZRMcapChannel {
  std::uint16_t id = 0;
  std::uint16_t schemaId = 0;  ///< 0: none
  std::string topic;
  std::string messageEncoding;  ///< e.g. "json"
  std::map<std::string, std::string> metadata;
};

struct ZRMcapMessage {
  std::uint16_t channelId = 0;
  std::uint32_t sequence = 0;
  std::uint64_t logTime = 0;           ///< ns
  std::uint64_t publishTime = 0;       ///< ns
  const std::uint8_t* data = nullptr;  ///< valid during the callback only
  std::size_t size = 0;
};

/// Appends a recording to a new file. Messages go into chunks, each closed (compressed, with the
/// CRC-32 of its uncompressed bytes, then its message indexes) once it holds `chunkSize`
/// uncompressed bytes or spans `chunkDuration` ns of log time, and handed to the file at once:
/// a writer killed mid-run loses at most the chunk it was filling. close() writes the data end,
/// the summary (schemas, channels, statistics, chunk indexes), its offsets and the footer.
///
/// Concurrency: one thread at a time (the owner serialises). Blocking: write() blocks for the
/// file when it closes a chunk.
class ZRMcapWriter {
 public:
  struct Options {
    ZRMcapCompression compression = ZRMcapCompression::Zstd;
    std::size_t chunkSize = std::size_t{1} << 20;
    std::uint64_t chunkDuration = 1000000000;  ///< ns of log time
    std::string profile;                       ///< the header's profile ("" for none)
    std::string library;                       ///< the header's library, e.g. "zr 1.4.0"
  };

  /// Creates (or truncates) `path` and writes the magic and header; throws ZRError.
  ZRMcapWriter(const std::string& path, Options options);
  /// Closes the file if close() was not called; errors are then only logged to stderr.
  ~ZRMcapWriter();
  ZRMcapWriter(const ZRMcapWriter&) = delete;
  ZRMcapWriter& operator=(const ZRMcapWriter&) = delete;

  /// Ids from 1, in order of addition.
  std::uint16_t addSchema(const std::string& name, const std::string& encoding,
                          const std::string& data);
  std::uint16_t addChannel(std::uint16_t schemaId, const std::string& topic,
                           const std::string& messageEncoding,
                           const std::map<std::string, std::string>& metadata = {});
  /// One message on `channel`, its sequence the channel's count of messages so far. Throws
  /// ZRError for an unknown channel, or when the file cannot be written (disk full: the file
  /// keeps every chunk closed before, and close() still tries to end it).
  void write(std::uint16_t channel, std::uint64_t logTime, std::uint64_t publishTime,
             const void* data, std::size_t size);
  /// Closes the open chunk now (a recorder whose messages pause bounds what a kill would lose);
  /// throws ZRError as write() does.
  void flush();
  /// Ends the file; throws ZRError when it cannot be written. Idempotent.
  void close();

  /// Bytes handed to the file so far, and the uncompressed bytes of the messages written.
  std::uint64_t bytesWritten() const;
  std::uint64_t messageBytes() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

/// What a reader found about a file as a whole.
struct ZRMcapSummary {
  std::string profile, library;
  std::map<std::uint16_t, ZRMcapSchema> schemas;
  std::map<std::uint16_t, ZRMcapChannel> channels;
  std::map<std::uint16_t, std::uint64_t> messageCounts;  ///< per channel
  std::uint64_t messageCount = 0;
  std::uint64_t messageStartTime = 0, messageEndTime = 0;  ///< log times; 0, 0 when empty
  std::uint64_t chunkCount = 0;
  std::uint64_t compressedBytes = 0, uncompressedBytes = 0;  ///< of the chunks' records
  /// False when the file has no valid summary and footer (cut short): what it says was gathered
  /// by reading through the data.
  bool complete = true;
  /// Empty for a complete file; else why and where reading stopped, e.g. "truncated at byte
  /// 81920: a chunk of 65536 bytes was cut short; the 12 complete chunks before it are read".
  std::string damage;
};

/// Reads an MCAP file. Opening it checks the magic and reads the summary through the footer; a
/// file without a valid footer (cut short) is read through from the start instead, and every
/// complete record before the cut counts. A chunk whose CRC does not match, or a record that
/// cannot be what it says, is an error naming the file and the offset (never a crash).
///
/// Concurrency: one thread at a time.
class ZRMcapReader {
 public:
  /// Throws ZRError: the file cannot be opened, is not MCAP, or its start is damaged.
  explicit ZRMcapReader(const std::string& path);
  /// Reads `size` bytes held in memory (copied); `name` stands for the path in errors.
  ZRMcapReader(const void* data, std::size_t size, const std::string& name);
  ~ZRMcapReader();
  ZRMcapReader(const ZRMcapReader&) = delete;
  ZRMcapReader& operator=(const ZRMcapReader&) = delete;

  const ZRMcapSummary& summary() const;
  /// Every message in file order (chunks in order, messages within each in order), or only those
  /// of `channels` when it is not empty, until `visit` returns false. Throws ZRError for damage
  /// met on the way (the messages before it were visited).
  void forEachMessage(const std::function<bool(const ZRMcapMessage&)>& visit,
                      const std::vector<std::uint16_t>& channels = {});

  /// The same messages one at a time, a chunk in memory at once: a replay goes through a long
  /// recording without holding it. Valid while the reader lives.
  class Cursor {
   public:
    Cursor();
    Cursor(Cursor&&) noexcept;
    Cursor& operator=(Cursor&&) noexcept;
    ~Cursor();
    /// The next message (its data valid until the next call); false at the end. Throws ZRError
    /// for damage met on the way.
    bool next(ZRMcapMessage& out);

   private:
    friend class ZRMcapReader;
    struct State;
    std::unique_ptr<State> state_;
  };
  Cursor messages(const std::vector<std::uint16_t>& channels = {});

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace ZR
