// zr inspect: what a recording holds (channels, counts, duration, lost sound, compression), or
// its events as JSON lines.

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <map>

#include <nlohmann/json.hpp>

#include <zrmcap/zrmcap.h>
#include <zrmcap/zrsoundmessage.h>

#include "command.h"

namespace zr {
namespace {

std::string kindOf(const ZR::ZRMcapChannel& c) {
  auto it = c.metadata.find(ZR::kKindKey);
  return it == c.metadata.end() ? "other" : it->second;
}

// What a sound channel holds, read through its messages.
struct SoundFacts {
  int rate = 0, channels = 0;
  std::int64_t frames = 0, lostFrames = 0, gaps = 0, next = -1;
};

class InspectCommand : public Command {
 public:
  CLI::App* define(CLI::App& app) override {
    CLI::App* cmd = app.add_subcommand("inspect", "Say what a recording holds.");
    cmd->add_option("FILE", path_, "A recording (.mcap) made by zr run --record or zr record.")
        ->required();
    cmd->add_option("-f,--format", format_,
                    "text (a summary, default) or jsonl (every event, one JSON object a line).")
        ->check(CLI::IsMember({"text", "jsonl"}));
    return cmd;
  }

  int run() override {
    ZR::ZRMcapReader reader(path_);
    const ZR::ZRMcapSummary& s = reader.summary();
    if (!s.complete) std::fprintf(stderr, "zr: %s: %s\n", path_.c_str(), s.damage.c_str());
    return format_ == "jsonl" ? events(reader) : summary(reader);
  }

 private:
  int events(ZR::ZRMcapReader& reader) {
    std::vector<std::uint16_t> ids;
    for (const auto& [id, c] : reader.summary().channels)
      if (kindOf(c) != "sound") ids.push_back(id);
    if (ids.empty()) return 0;
    const auto& channels = reader.summary().channels;
    reader.forEachMessage(
        [&](const ZR::ZRMcapMessage& m) {
          nlohmann::ordered_json line;
          line["topic"] = channels.at(m.channelId).topic;
          line["log_time"] = m.logTime;
          auto value = nlohmann::ordered_json::parse(m.data, m.data + m.size, nullptr, false);
          if (value.is_object())
            for (auto& [key, v] : value.items()) line[key] = v;
          else
            line["value"] = value.is_discarded() ? nlohmann::ordered_json() : value;
          std::printf("%s\n",
                      line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
          return true;
        },
        ids);
    return std::fflush(stdout) == 0 ? 0 : 1;
  }

  int summary(ZR::ZRMcapReader& reader) {
    const ZR::ZRMcapSummary& s = reader.summary();
    std::map<std::uint16_t, SoundFacts> sound;
    std::vector<std::uint16_t> soundIds;
    for (const auto& [id, c] : s.channels)
      if (kindOf(c) == "sound") soundIds.push_back(id);
    if (!soundIds.empty()) {
      ZR::ZRSoundBlock block;
      std::string why;
      reader.forEachMessage(
          [&](const ZR::ZRMcapMessage& m) {
            SoundFacts& f = sound[m.channelId];
            if (!ZR::zrReadSoundMessage(m.data, m.size, block, why)) return true;
            f.rate = block.sampleRate, f.channels = block.channels;
            if (f.next >= 0 && block.sample > f.next)
              ++f.gaps, f.lostFrames += block.sample - f.next;
            f.next = block.sample + static_cast<std::int64_t>(block.frames());
            f.frames += static_cast<std::int64_t>(block.frames());
            return true;
          },
          soundIds);
    }
    // The device's own announcements of lost sound say it all, before the first buffer and after
    // the last too; sound recorded elsewhere has only its position jumps.
    std::map<std::string, std::uint16_t> soundOf;  // device -> sound channel
    for (std::uint16_t id : soundIds)
      if (auto m = s.channels.at(id).metadata.find(ZR::kModuleKey);
          m != s.channels.at(id).metadata.end())
        soundOf[m->second] = id;
    for (const auto& [device, id] : soundOf) {
      auto gaps =
          std::find_if(s.channels.begin(), s.channels.end(),
                       [&, d = device](const auto& c) { return c.second.topic == d + "/Gap"; });
      if (gaps == s.channels.end()) continue;
      SoundFacts& f = sound[id];
      f.gaps = 0, f.lostFrames = 0;
      reader.forEachMessage(
          [&f](const ZR::ZRMcapMessage& m) {
            const auto gap = nlohmann::json::parse(m.data, m.data + m.size, nullptr, false);
            if (gap.is_object() && gap.value("samples", nlohmann::json()).is_number_integer())
              ++f.gaps, f.lostFrames += gap["samples"].get<std::int64_t>();
            return true;
          },
          {gaps->first});
    }
    std::printf("%s: %s%s\n", path_.c_str(), s.library.empty() ? "" : (s.library + ", ").c_str(),
                s.complete ? "complete" : "cut short");
    const auto real = [](std::uint64_t n) { return static_cast<double>(n); };
    const double seconds =
        s.messageCount ? real(s.messageEndTime - s.messageStartTime) * 1e-9 : 0.0;
    std::printf("messages: %" PRIu64 " over %.3f s, in %" PRIu64 " chunks\n", s.messageCount,
                seconds, s.chunkCount);
    if (s.uncompressedBytes > 0 && s.compressedBytes > 0)
      std::printf("size: %.2f MB of messages stored in %.2f MB (ratio %.2f)\n",
                  real(s.uncompressedBytes) / 1e6, real(s.compressedBytes) / 1e6,
                  real(s.uncompressedBytes) / real(s.compressedBytes));
    std::printf("channels:\n");
    for (const auto& [id, c] : s.channels) {
      const auto count = s.messageCounts.count(id) ? s.messageCounts.at(id) : 0;
      std::printf("  %-28s %-6s %8" PRIu64 " messages", c.topic.c_str(), kindOf(c).c_str(), count);
      if (auto f = sound.find(id); f != sound.end() && f->second.rate > 0) {
        const SoundFacts& x = f->second;
        std::printf("  %d Hz, %d channel%s, %.3f s of sound", x.rate, x.channels,
                    x.channels == 1 ? "" : "s", static_cast<double>(x.frames) / x.rate);
        if (x.gaps)
          std::printf(", %" PRId64 " gap%s (%.3f s lost)", x.gaps, x.gaps == 1 ? "" : "s",
                      static_cast<double>(x.lostFrames) / x.rate);
        else
          std::printf(", no gap");
      }
      std::printf("\n");
    }
    return std::fflush(stdout) == 0 ? 0 : 1;
  }

  std::string path_, format_ = "text";
};

}  // namespace

std::unique_ptr<Command> makeInspectCommand() {
  return std::make_unique<InspectCommand>();
}

}  // namespace zr
