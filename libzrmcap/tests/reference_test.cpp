// The round trip with the reference implementation, through node: it reads every kind of file
// our writer makes (records, indexes, CRCs, summary), and our reader reads the files it writes,
// with chunks and without.

#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include <nlohmann/json.hpp>

#include <zrmcap/zrbase64.h>

#include "mcaptest.h"

using namespace mcaptest;
using nlohmann::json;
using ZR::ZRMcapCompression;
using ZR::ZRMcapReader;
using ZR::ZRMcapWriter;

namespace {

class McapReferenceTest : public ScratchTest {
 protected:
  void SetUp() override {
    ScratchTest::SetUp();
    if (std::system("command -v node >/dev/null 2>&1") != 0) {
      GTEST_SKIP() << "node is not installed: the round trip with the reference implementation "
                      "needs it (./setup.sh installs it)";
    }
    if (!std::filesystem::exists(std::string(ZR_MCAP_NPM) + "/node_modules/@mcap/core")) {
      FAIL() << "the reference packages are not in " << ZR_MCAP_NPM << ": run ./setup.sh";
    }
  }

  // The reference script's JSON, or a test failure with what it said on stderr.
  json node(const std::string& args) {
    const std::string errors = path("node.err");
    const std::string command =
        "node '" ZR_MCAP_REFERENCE "' '" ZR_MCAP_NPM "' " + args + " 2>'" + errors + "'";
    std::string out;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
      ADD_FAILURE() << "cannot run " << command;
      return {};
    }
    char buffer[65536];
    for (std::size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) out.append(buffer, n);
    const int status = pclose(pipe);
    EXPECT_EQ(status, 0) << command << "\n" << slurp(errors);
    return status == 0 ? json::parse(out) : json{};
  }
};

std::vector<Message> messagesOf(const json& j) {
  std::vector<Message> out;
  for (const auto& m : j.at("messages")) {
    Message x{m[0].get<std::uint16_t>(), m[1].get<std::uint32_t>(),
              std::stoull(m[2].get<std::string>()), std::stoull(m[3].get<std::string>()), ""};
    EXPECT_TRUE(ZR::zrBase64Decode(m[4].get<std::string>(), x.data));
    out.push_back(std::move(x));
  }
  return out;
}

void expectDefinitions(const json& j, const ZR::ZRMcapSummary& s) {
  EXPECT_EQ(j.at("profile"), s.profile);
  EXPECT_EQ(j.at("library"), s.library);
  ASSERT_EQ(j.at("schemas").size(), s.schemas.size());
  for (const auto& [id, schema] : s.schemas) {
    const auto& x = j.at("schemas").at(std::to_string(id));
    EXPECT_EQ(x.at("id"), id);
    EXPECT_EQ(x.at("name"), schema.name);
    EXPECT_EQ(x.at("encoding"), schema.encoding);
    EXPECT_EQ(x.at("data"), schema.data);
  }
  ASSERT_EQ(j.at("channels").size(), s.channels.size());
  for (const auto& [id, channel] : s.channels) {
    const auto& x = j.at("channels").at(std::to_string(id));
    EXPECT_EQ(x.at("id"), id);
    EXPECT_EQ(x.at("schemaId"), channel.schemaId);
    EXPECT_EQ(x.at("topic"), channel.topic);
    EXPECT_EQ(x.at("messageEncoding"), channel.messageEncoding);
    using Metadata = std::map<std::string, std::string>;
    EXPECT_EQ(x.at("metadata").get<Metadata>(), channel.metadata);
  }
}

TEST_F(McapReferenceTest, TheReferenceReadsEveryFileWeWrite) {
  const auto messages = sampleMessages(2000, 4);
  for (const auto compression :
       {ZRMcapCompression::Zstd, ZRMcapCompression::Lz4, ZRMcapCompression::None}) {
    for (const bool empty : {false, true}) {
      SCOPED_TRACE(std::to_string(static_cast<int>(compression)) + (empty ? " empty" : ""));
      const auto file = path("ours.mcap");
      ZRMcapWriter::Options options;
      options.compression = compression;
      options.chunkSize = 16 * 1024;
      options.library = "zr 0.0.0";
      writeRecording(file, options, empty ? std::vector<Message>{} : messages, 4);
      ZRMcapReader ours(file);
      const auto& s = ours.summary();
      const json j = node("read '" + file + "'");
      if (j.is_null()) continue;
      expectDefinitions(j, s);
      EXPECT_EQ(messagesOf(j), empty ? std::vector<Message>{} : messages);
      EXPECT_EQ(j.at("summarySchemas"), s.schemas.size());
      EXPECT_EQ(j.at("summaryChannels"), s.channels.size());
      EXPECT_EQ(j.at("chunks"), s.chunkCount);
      EXPECT_EQ(j.at("chunkIndexes"), s.chunkCount);
      EXPECT_EQ(j.at("indexEntries"), s.messageCount);
      if (!empty) {
        EXPECT_GT(s.chunkCount, 10u);
        const char* name = compression == ZRMcapCompression::Zstd  ? "zstd"
                           : compression == ZRMcapCompression::Lz4 ? "lz4"
                                                                   : "";
        EXPECT_EQ(j.at("compressions"), json::array({name}));
      }
      const auto& st = j.at("statistics");
      EXPECT_EQ(st.at("messageCount"), std::to_string(s.messageCount));
      EXPECT_EQ(st.at("chunkCount"), s.chunkCount);
      EXPECT_EQ(st.at("schemaCount"), 1);
      EXPECT_EQ(st.at("channelCount"), 4);
      EXPECT_EQ(st.at("messageStartTime"), std::to_string(s.messageStartTime));
      EXPECT_EQ(st.at("messageEndTime"), std::to_string(s.messageEndTime));
      for (const auto& [channel, n] : s.messageCounts) {
        EXPECT_EQ(st.at("channelMessageCounts").at(std::to_string(channel)), std::to_string(n));
      }
    }
  }
}

TEST_F(McapReferenceTest, WeReadWhatTheReferenceWrites) {
  for (const std::string mode : {"zstd", "plain", "unchunked"}) {
    SCOPED_TRACE(mode);
    const auto file = path("theirs-" + mode + ".mcap");
    const json j = node("write '" + file + "' " + mode);
    if (j.is_null()) continue;
    ZRMcapReader theirs(file);
    const auto& s = theirs.summary();
    EXPECT_TRUE(s.complete) << s.damage;
    expectDefinitions(j, s);
    const auto expected = messagesOf(j);
    EXPECT_EQ(readAll(theirs), expected);
    EXPECT_EQ(s.messageCount, expected.size());
    EXPECT_EQ(s.messageStartTime, expected.front().logTime);
    EXPECT_EQ(s.messageEndTime, expected.back().logTime);
    const std::map<std::uint16_t, std::uint64_t> counts{{0, 200}, {1, 200}, {2, 200}};
    EXPECT_EQ(s.messageCounts, counts);
    EXPECT_EQ(s.chunkCount > 0, mode != "unchunked");
    // One channel alone, through the chunk indexes where there are some.
    EXPECT_EQ(readAll(theirs, {2}).size(), 200u);
  }
}

}  // namespace
