#pragma once

// What the recording container's tests share: a scratch directory, a recording made of known
// messages, and reading every message back into owned copies.

#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <zrmcap/zrmcap.h>

namespace mcaptest {

struct Message {
  std::uint16_t channel;
  std::uint32_t sequence;
  std::uint64_t logTime, publishTime;
  std::string data;
  bool operator==(const Message& o) const {
    return channel == o.channel && sequence == o.sequence && logTime == o.logTime &&
           publishTime == o.publishTime && data == o.data;
  }
};

inline std::ostream& operator<<(std::ostream& os, const Message& m) {
  return os << "{ch " << m.channel << " seq " << m.sequence << " t " << m.logTime << " "
            << m.data.size() << " bytes}";
}

// A directory of its own for each test, removed after.
class ScratchTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    dir_ = std::filesystem::temp_directory_path() /
           ("zrmcap-" + std::to_string(::getpid()) + "-" + info->name());
    std::filesystem::remove_all(dir_);
    std::filesystem::create_directories(dir_);
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }
  std::string path(const std::string& name) const { return (dir_ / name).string(); }
  std::filesystem::path dir_;
};

// Messages on `channels` channels, round robin, log times `step` ns apart; data of varied sizes,
// text-like so that every codec has something to gain.
inline std::vector<Message> sampleMessages(int count, int channels, std::uint64_t step = 1000) {
  std::vector<Message> out;
  std::vector<std::uint32_t> sequences(channels, 0);
  for (int i = 0; i < count; ++i) {
    const auto ch = static_cast<std::uint16_t>(i % channels + 1);
    std::string data = "{\"i\":" + std::to_string(i) + ",\"v\":\"";
    for (int k = 0; k < (i * 37) % 300; ++k) data += static_cast<char>('a' + (i + k * k) % 26);
    data += "\"}";
    const std::uint64_t t = 1'700'000'000'000'000'000ull + static_cast<std::uint64_t>(i) * step;
    out.push_back({ch, sequences[ch - 1]++, t, t + 7, data});
  }
  return out;
}

// Writes `messages` on channels 1..channels (one schema, every channel on it) and closes.
inline void writeRecording(const std::string& file, ZR::ZRMcapWriter::Options options,
                           const std::vector<Message>& messages, int channels) {
  ZR::ZRMcapWriter w(file, options);
  const auto schema = w.addSchema("test.Thing", "jsonschema", R"({"type":"object"})");
  for (int c = 1; c <= channels; ++c) {
    w.addChannel(schema, "Module" + std::to_string(c) + "/Events", "json",
                 {{"zr.kind", "event"}, {"zr.index", std::to_string(c)}});
  }
  for (const auto& m : messages) {
    w.write(m.channel, m.logTime, m.publishTime, m.data.data(), m.data.size());
  }
  w.close();
}

inline std::vector<Message> readAll(ZR::ZRMcapReader& r,
                                    const std::vector<std::uint16_t>& channels = {}) {
  std::vector<Message> out;
  r.forEachMessage(
      [&](const ZR::ZRMcapMessage& m) {
        out.push_back({m.channelId, m.sequence, m.logTime, m.publishTime,
                       std::string(reinterpret_cast<const char*>(m.data), m.size)});
        return true;
      },
      channels);
  return out;
}

inline std::string slurp(const std::string& file) {
  std::ifstream in(file, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

inline void spit(const std::string& file, const std::string& bytes) {
  std::ofstream(file, std::ios::binary | std::ios::trunc) << bytes;
}

}  // namespace mcaptest
