// Damaged recordings: cut short anywhere, bytes flipped, impossible lengths, not a recording at
// all, and a file that cannot be written. The reader keeps what precedes the damage and says
// where it is; it never crashes.

#include <signal.h>
#include <sys/resource.h>

#include <zrerror/zrerror.h>
#include <zrtest.h>

#include "mcapformat.h"
#include "mcaptest.h"

using namespace mcaptest;
using ZR::ZRMcapCompression;
using ZR::ZRMcapReader;
using ZR::ZRMcapWriter;

namespace {

class McapDamageTest : public ScratchTest {
 protected:
  // A recording of many small chunks.
  std::string record(ZRMcapCompression compression, const std::vector<Message>& messages) {
    ZRMcapWriter::Options options;
    options.compression = compression;
    options.chunkSize = 4096;
    const auto file = path("whole.mcap");
    writeRecording(file, options, messages, 2);
    return slurp(file);
  }
};

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// Where the chunk records of an intact file start.
std::vector<std::size_t> chunkOffsets(const std::string& file) {
  std::vector<std::size_t> out;
  for (std::size_t at = 8; at + ZR::mcap::kRecordHeader <= file.size();) {
    ZR::mcap::Decoder d(reinterpret_cast<const std::uint8_t*>(file.data()) + at, 9);
    const auto op = d.u8();
    if (op == ZR::mcap::kChunk) out.push_back(at);
    if (op == ZR::mcap::kDataEnd) break;
    at += ZR::mcap::kRecordHeader + d.u64();
  }
  return out;
}

TEST_F(McapDamageTest, CutShortAnywhereKeepsTheCompleteChunksBefore) {
  const auto messages = sampleMessages(800, 2);
  for (const auto compression : {ZRMcapCompression::Zstd, ZRMcapCompression::None}) {
    const std::string whole = record(compression, messages);
    std::uint64_t lastCount = 0;
    for (int tenth = 1; tenth <= 10; ++tenth) {
      const std::size_t cut = tenth == 10 ? whole.size() - 1 : whole.size() * tenth / 10;
      SCOPED_TRACE("cut at " + std::to_string(cut) + " of " + std::to_string(whole.size()));
      spit(path("cut.mcap"), whole.substr(0, cut));
      ZRMcapReader r(path("cut.mcap"));
      const auto& s = r.summary();
      EXPECT_FALSE(s.complete);
      const auto read = readAll(r);
      EXPECT_EQ(read.size(), s.messageCount);
      ASSERT_LE(read.size(), messages.size());
      EXPECT_TRUE(std::equal(read.begin(), read.end(), messages.begin()));
      EXPECT_GE(s.messageCount, lastCount);
      lastCount = s.messageCount;
      EXPECT_EQ(s.channels.size(), 2u);
      if (tenth < 10) {
        EXPECT_TRUE(contains(s.damage, "truncated at byte " + std::to_string(cut) + ": "))
            << s.damage;
        EXPECT_TRUE(contains(s.damage, "complete chunks before it are read")) << s.damage;
        EXPECT_GT(static_cast<int>(s.messageCount), (tenth - 1) * 80 - 40);
      } else {
        // Only the footer's last byte is gone: every chunk is there.
        EXPECT_EQ(read, messages);
        EXPECT_TRUE(contains(s.damage, "no footer; the data before it is whole")) << s.damage;
      }
    }
  }
  // Cut within the header: not a recording one can read.
  const std::string whole = slurp(path("whole.mcap"));
  for (std::size_t cut : {0, 5, 8, 12}) {
    spit(path("cut.mcap"), whole.substr(0, cut));
    const auto e = zrtest::errorOf([&] { ZRMcapReader r(path("cut.mcap")); });
    EXPECT_EQ(e.getModuleName(), path("cut.mcap"));
    EXPECT_EQ(e.getMethodName(), "read");
  }
}

TEST_F(McapDamageTest, FlippedBytesAreCaughtWithTheirOffset) {
  const auto messages = sampleMessages(400, 2);
  for (const auto compression : {ZRMcapCompression::None, ZRMcapCompression::Lz4}) {
    const std::string whole = record(compression, messages);
    ZRMcapReader intact(path("whole.mcap"));
    const std::size_t second = chunkOffsets(whole).at(1);
    // A byte in the middle of the second chunk's records.
    std::string bad = whole;
    const std::size_t flip = second + 200;
    bad[flip] = static_cast<char>(bad[flip] ^ 0x10);
    spit(path("bad.mcap"), bad);
    ZRMcapReader r(path("bad.mcap"));
    EXPECT_TRUE(r.summary().complete);
    std::size_t visited = 0;
    const auto e = zrtest::errorOf(
        [&] { r.forEachMessage([&](const ZR::ZRMcapMessage&) { return ++visited > 0; }); });
    EXPECT_EQ(e.getModuleName(), path("bad.mcap"));
    // Whichever the codec, the chunk is named where it starts.
    EXPECT_TRUE(contains(e.getDescription(), "chunk at byte ")) << e.what();
    if (compression == ZRMcapCompression::None) {
      EXPECT_TRUE(contains(e.getDescription(), "fails its CRC")) << e.what();
    }
    EXPECT_GT(visited, 0u);
    EXPECT_LT(visited, messages.size());

    // A byte of the summary: the data is read through instead, all of it.
    bad = whole;
    bad[whole.size() - 60] ^= 0x01;
    spit(path("bad.mcap"), bad);
    ZRMcapReader s(path("bad.mcap"));
    EXPECT_FALSE(s.summary().complete);
    EXPECT_TRUE(contains(s.summary().damage, "fails its CRC")) << s.summary().damage;
    EXPECT_EQ(readAll(s), messages);

    // Every 13th byte in turn: a clear error or a correct read, never a crash or a wrong message.
    for (std::size_t at = 8; at < whole.size(); at += 13) {
      bad = whole;
      bad[at] = static_cast<char>(~bad[at]);
      try {
        ZRMcapReader each(bad.data(), bad.size(), "flipped");
        for (const auto& m : readAll(each)) {
          ASSERT_LT(m.channel, 3u);
          ASSERT_LT(m.sequence, messages.size());
        }
      } catch (const ZR::ZRError& error) {
        EXPECT_TRUE(contains(error.what(), "byte")) << error.what();
      }
    }
  }
}

// Crafted records that claim what the file cannot hold.
TEST_F(McapDamageTest, ImpossibleLengthsAndUnknownCompressionAreErrors) {
  using namespace ZR::mcap;
  const auto withChunk = [&](const std::string& compression, std::uint64_t size,
                             std::uint64_t recordLength,
                             const std::string& records = "0123456789abcdef") {
    std::vector<std::uint8_t> b(kMagic, kMagic + 8);
    Encoder e(b);
    auto r = e.begin(kHeader);
    e.str("");
    e.str("");
    e.end(r);
    r = e.begin(kChunk);
    e.u64(0);
    e.u64(0);
    e.u64(size);
    e.u32(0);
    e.str(compression);
    e.u64(records.size());
    e.bytes(records.data(), records.size());
    e.end(r);
    if (recordLength != 0) {
      for (int i = 0; i < 8; ++i) b[26 + i] = static_cast<std::uint8_t>(recordLength >> (8 * i));
    }
    spit(path("crafted.mcap"), std::string(b.begin(), b.end()));
    ZRMcapReader reader(path("crafted.mcap"));
    EXPECT_FALSE(reader.summary().complete);
    return reader.summary().damage;
  };
  EXPECT_TRUE(contains(withChunk("zstd", std::uint64_t{1} << 40, 0),
                       "the chunk at byte 25: declares 1099511627776 uncompressed bytes for 16 "
                       "compressed; nothing before it is read"));
  EXPECT_TRUE(contains(withChunk("brotli", 16, 0), "unknown compression \"brotli\""));
  EXPECT_TRUE(contains(withChunk("lz4", 16, 0), "the chunk at byte 25: lz4: "));
  EXPECT_TRUE(contains(withChunk("", 15, 0), "the chunk at byte 25: uncompressed records"));
  EXPECT_TRUE(contains(withChunk("", 16, ~std::uint64_t{0}),
                       "truncated at byte 90: a chunk of 18446744073709551615 bytes at byte 25 "
                       "was cut short"));
  // A frame that holds other than the chunk declares, within what the ratio allows.
  std::vector<std::uint8_t> frame;
  compress(ZRMcapCompression::Zstd, std::vector<std::uint8_t>(5000, 'a'), frame);
  EXPECT_TRUE(contains(withChunk("zstd", 4000, 0, std::string(frame.begin(), frame.end())),
                       "zstd: the frame holds 5000 bytes, 4000 declared"));
  // A chunk whose records length overruns its own record.
  EXPECT_TRUE(contains(withChunk("", 16, 40), "the chunk at byte 25 is malformed"));

  // The same damage met by forEachMessage is an error, not an end.
  withChunk("brotli", 16, 0);
  ZRMcapReader r(path("crafted.mcap"));
  const auto e = zrtest::errorOf([&] { readAll(r); });
  EXPECT_TRUE(contains(e.getDescription(), "the chunk at byte 25: unknown compression"))
      << e.what();
}

TEST_F(McapDamageTest, WhatIsNotARecordingIsAnError) {
  const auto check = [&](const std::string& bytes, const std::string& says) {
    spit(path("not.mcap"), bytes);
    const auto e = zrtest::errorOf([&] { ZRMcapReader r(path("not.mcap")); });
    EXPECT_EQ(e.getModuleName(), path("not.mcap"));
    EXPECT_TRUE(contains(e.getDescription(), says)) << e.what();
  };
  check("", "not an MCAP file: 0 bytes long");
  check("{\"a\": 1}\n", "not an MCAP file: no magic at byte 0");
  check(std::string("\x89MCAP0\r\n", 8), "the header at byte 8 is cut short");
  check(std::string("\x89MCAP0\r\n\x05", 9) + std::string(8, '\0') + "x",
        "header at byte 8 is missing");
  const auto e = zrtest::errorOf([&] { ZRMcapReader r(path("absent.mcap")); });
  EXPECT_TRUE(contains(e.getDescription(), "cannot open")) << e.what();
  EXPECT_THROW(ZRMcapReader r(dir_.string()), ZR::ZRError);
  EXPECT_THROW(ZRMcapReader r("/dev/null"), ZR::ZRError);

  // Garbage after a good start: the start is kept, the rest named.
  const std::string start = std::string("\x89MCAP0\r\n\x01", 9) +
                            std::string("\x08\0\0\0\0\0\0\0", 8) + std::string(8, '\0');
  spit(path("garbage.mcap"), start + std::string(100, '\0'));
  ZRMcapReader r(path("garbage.mcap"));
  EXPECT_TRUE(contains(r.summary().damage, "garbage at byte 25")) << r.summary().damage;
  EXPECT_THROW(readAll(r), ZR::ZRError);
}

TEST_F(McapDamageTest, AFileThatCannotBeWrittenIsAnErrorAndKeepsItsChunks) {
  auto e = zrtest::errorOf([] { ZRMcapWriter w("/dev/full", {}); });
  EXPECT_EQ(e.getModuleName(), "/dev/full");
  EXPECT_EQ(e.getMethodName(), "write");
  EXPECT_TRUE(contains(e.getDescription(), "cannot write")) << e.what();
  EXPECT_TRUE(contains(e.getDescription(), "at byte 0")) << e.what();

  // A file size limit stands for a full disk: the write that crosses it fails part way.
  const auto file = path("full.mcap");
  const auto messages = sampleMessages(4000, 2);
  const rlim_t limit = 50'000;
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
  auto* previous = signal(SIGXFSZ, SIG_IGN);
  rlimit low = before;
  low.rlim_cur = limit;
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &low), 0);
  std::size_t written = 0;
  std::uint64_t bytes = 0;
  {
    ZRMcapWriter::Options options;
    options.compression = ZRMcapCompression::None;
    options.chunkSize = 8000;
    ZRMcapWriter w(file, options);
    const auto schema = w.addSchema("test.Thing", "jsonschema", "{}");
    w.addChannel(schema, "A/B", "json");
    w.addChannel(schema, "C/D", "json");
    e = zrtest::errorOf([&] {
      for (const auto& m : messages) {
        w.write(m.channel, m.logTime, m.publishTime, m.data.data(), m.data.size());
        ++written;
      }
    });
    bytes = w.bytesWritten();
    EXPECT_EQ(std::filesystem::file_size(file), bytes);
    // The chunk that failed is gone; the summary is small enough to fit still.
    w.close();
  }
  setrlimit(RLIMIT_FSIZE, &before);
  signal(SIGXFSZ, previous);
  EXPECT_EQ(e.getModuleName(), file);
  EXPECT_TRUE(contains(e.getDescription(), "at byte " + std::to_string(bytes))) << e.what();
  EXPECT_LT(written, messages.size());
  EXPECT_LE(bytes, limit);

  ZRMcapReader r(file);
  EXPECT_TRUE(r.summary().complete) << r.summary().damage;
  const auto read = readAll(r);
  EXPECT_EQ(read.size(), r.summary().messageCount);
  EXPECT_GT(read.size(), 0u);
  EXPECT_LT(read.size(), written);
  EXPECT_TRUE(std::equal(read.begin(), read.end(), messages.begin()));
}

}  // namespace
