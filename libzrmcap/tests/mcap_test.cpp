// Round trips through the recording writer and reader: every codec, many channels, chunks
// closed by size and by time, files of other writers (messages outside chunks, unknown records).

#include <algorithm>

#include <zrerror/zrerror.h>
#include <zrtest.h>

#include "mcapformat.h"
#include "mcaptest.h"

using namespace mcaptest;
using ZR::ZRMcapCompression;
using ZR::ZRMcapReader;
using ZR::ZRMcapWriter;

namespace {

class McapTest : public ScratchTest {};

TEST_F(McapTest, RoundTripWithEachCompression) {
  const auto messages = sampleMessages(3000, 3);
  std::uint64_t payload = 0;
  for (const auto& m : messages) payload += m.data.size();
  for (const auto compression :
       {ZRMcapCompression::Zstd, ZRMcapCompression::Lz4, ZRMcapCompression::None}) {
    SCOPED_TRACE(static_cast<int>(compression));
    const auto file = path("round.mcap");
    ZRMcapWriter::Options options;
    options.compression = compression;
    options.chunkSize = 64 * 1024;
    options.profile = "zr";
    options.library = "zr 1.2.3";
    writeRecording(file, options, messages, 3);

    ZRMcapReader r(file);
    const auto& s = r.summary();
    EXPECT_TRUE(s.complete);
    EXPECT_EQ(s.damage, "");
    EXPECT_EQ(s.profile, "zr");
    EXPECT_EQ(s.library, "zr 1.2.3");
    ASSERT_EQ(s.schemas.size(), 1u);
    EXPECT_EQ(s.schemas.at(1).name, "test.Thing");
    EXPECT_EQ(s.schemas.at(1).encoding, "jsonschema");
    EXPECT_EQ(s.schemas.at(1).data, R"({"type":"object"})");
    ASSERT_EQ(s.channels.size(), 3u);
    EXPECT_EQ(s.channels.at(2).topic, "Module2/Events");
    EXPECT_EQ(s.channels.at(2).schemaId, 1);
    EXPECT_EQ(s.channels.at(2).messageEncoding, "json");
    EXPECT_EQ(s.channels.at(2).metadata,
              (std::map<std::string, std::string>{{"zr.kind", "event"}, {"zr.index", "2"}}));
    EXPECT_EQ(s.messageCount, 3000u);
    EXPECT_EQ(s.messageCounts,
              (std::map<std::uint16_t, std::uint64_t>{{1, 1000}, {2, 1000}, {3, 1000}}));
    EXPECT_EQ(s.messageStartTime, messages.front().logTime);
    EXPECT_EQ(s.messageEndTime, messages.back().logTime);
    EXPECT_GT(s.chunkCount, 5u);
    EXPECT_GT(s.uncompressedBytes, payload);
    if (compression == ZRMcapCompression::None) {
      EXPECT_EQ(s.compressedBytes, s.uncompressedBytes);
    } else {
      EXPECT_LT(s.compressedBytes, s.uncompressedBytes / 2);
    }
    EXPECT_EQ(readAll(r), messages);

    // One channel alone, and a visitor that stops.
    std::vector<Message> second;
    std::copy_if(messages.begin(), messages.end(), std::back_inserter(second),
                 [](const Message& m) { return m.channel == 2; });
    EXPECT_EQ(readAll(r, {2}), second);
    int seen = 0;
    r.forEachMessage([&](const ZR::ZRMcapMessage&) { return ++seen < 10; });
    EXPECT_EQ(seen, 10);
  }
}

TEST_F(McapTest, ManyChannelsKeepTheirIdsTopicsAndSequences) {
  const int channels = 300;
  const auto messages = sampleMessages(channels * 4, channels);
  ZRMcapWriter::Options options;
  options.chunkSize = 8 * 1024;
  writeRecording(path("many.mcap"), options, messages, channels);
  ZRMcapReader r(path("many.mcap"));
  ASSERT_EQ(r.summary().channels.size(), static_cast<std::size_t>(channels));
  for (const auto& [id, c] : r.summary().channels) {
    EXPECT_EQ(c.topic, "Module" + std::to_string(id) + "/Events");
    EXPECT_EQ(r.summary().messageCounts.at(id), 4u);
  }
  const auto read = readAll(r);
  EXPECT_EQ(read, messages);
  EXPECT_EQ(read.back().sequence, 3u);
  EXPECT_EQ(readAll(r, {7, 299}).size(), 8u);
}

TEST_F(McapTest, ChunksCloseBySizeByTimeAndOnFlush) {
  const std::string data(1000, 'x');
  // A message record is 9 + 22 + 1000 bytes: four of them fill 4096.
  {
    ZRMcapWriter::Options options;
    options.chunkSize = 4096;
    ZRMcapWriter w(path("size.mcap"), options);
    const auto ch = w.addChannel(0, "A/B", "json");
    for (int i = 0; i < 40; ++i)
      w.write(ch, static_cast<std::uint64_t>(i), 0, data.data(), data.size());
    w.close();
    EXPECT_EQ(ZRMcapReader(path("size.mcap")).summary().chunkCount, 10u);
  }
  {
    // 50 messages 0.1 s apart: a chunk spans less than a second, so 10 messages each.
    ZRMcapWriter::Options options;
    options.chunkSize = 1u << 30;
    options.chunkDuration = 1'000'000'000;
    ZRMcapWriter w(path("time.mcap"), options);
    const auto ch = w.addChannel(0, "A/B", "json");
    for (int i = 0; i < 50; ++i) {
      w.write(ch, 5'000'000'000ull + i * 100'000'000ull, 0, data.data(), data.size());
    }
    w.close();
    ZRMcapReader r(path("time.mcap"));
    EXPECT_EQ(r.summary().chunkCount, 5u);
    EXPECT_EQ(r.summary().messageEndTime - r.summary().messageStartTime, 4'900'000'000u);
  }
  {
    // What a writer killed now leaves: the chunks it closed, read without a summary.
    ZRMcapWriter::Options options;
    options.library = "zr test";
    ZRMcapWriter w(path("open.mcap"), options);
    const auto schema = w.addSchema("s", "jsonschema", "{}");
    const auto ch = w.addChannel(schema, "A/B", "json", {{"k", "v"}});
    for (int i = 0; i < 3; ++i) w.write(ch, 10u + i, 20u + i, data.data(), data.size());
    const auto before = w.bytesWritten();
    w.flush();
    EXPECT_GT(w.bytesWritten(), before);
    EXPECT_EQ(w.messageBytes(), 3000u);
    w.write(ch, 99, 99, data.data(), data.size());  // open, not in the file yet

    ZRMcapReader r(path("open.mcap"));
    const auto& s = r.summary();
    EXPECT_FALSE(s.complete);
    EXPECT_EQ(s.damage, "truncated at byte " + std::to_string(w.bytesWritten()) +
                            ": the file ends after 1 complete chunk, without its summary");
    EXPECT_EQ(s.library, "zr test");
    EXPECT_EQ(s.channels.at(ch).metadata.at("k"), "v");
    EXPECT_EQ(s.schemas.at(schema).name, "s");
    EXPECT_EQ(s.messageCount, 3u);
    EXPECT_EQ(s.messageStartTime, 10u);
    EXPECT_EQ(s.messageEndTime, 12u);
    const auto read = readAll(r);
    ASSERT_EQ(read.size(), 3u);
    EXPECT_EQ(read[2], (Message{ch, 2, 12, 22, data}));
  }
}

// A file as another writer may make it: no chunks, an extension record, no summary.
TEST_F(McapTest, ReadsMessagesOutsideChunksAndSkipsUnknownRecords) {
  using namespace ZR::mcap;
  std::vector<std::uint8_t> b(kMagic, kMagic + 8);
  Encoder e(b);
  auto r = e.begin(kHeader);
  e.str("");
  e.str("other");
  e.end(r);
  encodeSchema(e, {5, "S", "jsonschema", "{}"});
  encodeChannel(e, {9, 5, "X/Y", "json", {{"a", "b"}}});
  r = e.begin(0x80);
  e.str("an extension's record");
  e.end(r);
  for (std::uint32_t i = 0; i < 3; ++i) {
    r = e.begin(kMessage);
    e.u16(9);
    e.u32(i);
    e.u64(100 + i);
    e.u64(200 + i);
    e.bytes("hey", 3);
    e.end(r);
  }
  r = e.begin(kDataEnd);
  e.u32(0);
  e.end(r);
  e.u8(kFooter);
  e.u64(kFooterBody);
  e.u64(0);
  e.u64(0);
  e.u32(0);
  e.bytes(kMagic, 8);
  spit(path("other.mcap"), std::string(b.begin(), b.end()));

  const std::string whole(b.begin(), b.end());
  spit(path("cut.mcap"), whole.substr(0, whole.size() - 60));
  EXPECT_EQ(ZRMcapReader(path("cut.mcap")).summary().damage,
            "truncated at byte " + std::to_string(whole.size() - 60) +
                ": a message of 25 bytes at "
                "byte " +
                std::to_string(whole.size() - 84) +
                " was cut short; the 2 messages before it "
                "are read");

  ZRMcapReader reader(path("other.mcap"));
  const auto& s = reader.summary();
  EXPECT_TRUE(s.complete) << s.damage;
  EXPECT_EQ(s.library, "other");
  EXPECT_EQ(s.channels.at(9).topic, "X/Y");
  EXPECT_EQ(s.messageCount, 3u);
  EXPECT_EQ(s.chunkCount, 0u);
  EXPECT_EQ(readAll(reader),
            (std::vector<Message>{
                {9, 0, 100, 200, "hey"}, {9, 1, 101, 201, "hey"}, {9, 2, 102, 202, "hey"}}));
}

TEST_F(McapTest, WriterRejectsWhatItCannotWrite) {
  EXPECT_EQ(ZR::zrMcapCompressionFromName("lz4"), ZRMcapCompression::Lz4);
  EXPECT_EQ(ZR::zrMcapCompressionFromName("none"), ZRMcapCompression::None);
  EXPECT_EQ(ZR::zrMcapCompressionFromName("zstd"), ZRMcapCompression::Zstd);
  EXPECT_NE(
      zrtest::errorOf([] { ZR::zrMcapCompressionFromName("gzip"); }).getDescription().find("gzip"),
      std::string::npos);

  const auto file = path("w.mcap");
  ZRMcapWriter w(file, {});
  const auto ch = w.addChannel(0, "A/B", "json");
  auto e = zrtest::errorOf([&] { w.write(ch + 1, 0, 0, "x", 1); });
  EXPECT_EQ(e.getModuleName(), file);
  EXPECT_EQ(e.getMethodName(), "write");
  EXPECT_NE(e.getDescription().find("unknown channel 2"), std::string::npos);
  e = zrtest::errorOf([&] { w.addChannel(3, "C/D", "json"); });
  EXPECT_NE(e.getDescription().find("unknown schema 3"), std::string::npos);
  w.write(ch, 1, 1, "x", 1);
  w.close();
  w.close();
  e = zrtest::errorOf([&] { w.write(ch, 2, 2, "x", 1); });
  EXPECT_NE(e.getDescription().find("closed"), std::string::npos);
  EXPECT_EQ(ZRMcapReader(file).summary().messageCount, 1u);

  e = zrtest::errorOf([&] { ZRMcapWriter(path("no/such/dir.mcap"), {}); });
  EXPECT_NE(e.getDescription().find("cannot create"), std::string::npos);
}

}  // namespace
