#include <zrmcap/zrbase64.h>
#include <zrmcap/zrsoundmessage.h>

#include <cstring>

#include <nlohmann/json.hpp>

namespace ZR {

namespace {

constexpr bool kLittleEndian = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__;

std::uint16_t swapped(std::uint16_t x) {
  return static_cast<std::uint16_t>((x << 8) | (x >> 8));
}

}  // namespace

const std::string& zrSoundSchema() {
  static const std::string schema = nlohmann::ordered_json::parse(R"({
    "title": "foxglove.RawAudio",
    "description": "A single block of an audio bitstream",
    "type": "object",
    "properties": {
      "timestamp": {"type": "object", "title": "time",
        "properties": {"sec": {"type": "integer", "minimum": 0},
                       "nsec": {"type": "integer", "minimum": 0, "maximum": 999999999}},
        "description": "Capture time of the block's first sample"},
      "data": {"type": "string", "contentEncoding": "base64",
        "description": "Interleaved little-endian samples"},
      "format": {"type": "string", "description": "Audio format: pcm-s16"},
      "sample_rate": {"type": "integer", "minimum": 0, "description": "Sample rate in Hz"},
      "number_of_channels": {"type": "integer", "minimum": 0,
        "description": "Number of channels in the audio block"},
      "sample": {"type": "integer", "description": "Stream position of the block's first sample"},
      "sequence": {"type": "integer", "description": "The block's number in its stream"}
    },
    "required": ["timestamp", "data", "format", "sample_rate", "number_of_channels"]
  })")
                                        .dump();
  return schema;
}

std::string zrSoundMessage(int sampleRate, int channels, std::int64_t sample, std::int64_t sequence,
                           std::int64_t realtimeNs, const std::int16_t* samples,
                           std::size_t frames) {
  const std::size_t count = frames * static_cast<std::size_t>(channels);
  std::string data;
  if (kLittleEndian) {
    data = zrBase64Encode(samples, count * sizeof(std::int16_t));
  } else {
    std::vector<std::uint16_t> le(count);
    std::memcpy(le.data(), samples, count * sizeof(std::int16_t));
    for (auto& s : le) s = swapped(s);
    data = zrBase64Encode(le.data(), count * sizeof(std::int16_t));
  }
  nlohmann::ordered_json m;
  const std::int64_t ns = realtimeNs > 0 ? realtimeNs : 0;
  m["timestamp"] = {{"sec", ns / 1000000000}, {"nsec", ns % 1000000000}};
  m["format"] = "pcm-s16";
  m["sample_rate"] = sampleRate;
  m["number_of_channels"] = channels;
  m["sample"] = sample;
  m["sequence"] = sequence;
  m["data"] = std::move(data);
  return m.dump();
}

bool zrReadSoundMessage(const std::uint8_t* data, std::size_t size, ZRSoundBlock& out,
                        std::string& why) {
  const auto m = nlohmann::json::parse(data, data + size, nullptr, false);
  if (!m.is_object()) return why = "not a JSON object", false;
  const auto integer = [&](const char* key, std::int64_t& to) {
    auto it = m.find(key);
    if (it == m.end() || !it->is_number_integer()) return false;
    to = it->get<std::int64_t>();
    return true;
  };
  std::int64_t rate = 0, channels = 0, sec = 0, nsec = 0;
  if (!integer("sample_rate", rate) || rate <= 0 || rate > 1000000)
    return why = "no valid \"sample_rate\"", false;
  if (!integer("number_of_channels", channels) || channels <= 0 || channels > 1024)
    return why = "no valid \"number_of_channels\"", false;
  const auto format = m.find("format");
  if (format == m.end() || *format != "pcm-s16")
    return why = "a \"format\" other than \"pcm-s16\"", false;
  const auto ts = m.find("timestamp");
  if (ts != m.end() && ts->is_object()) {
    sec = ts->value("sec", std::int64_t{0});
    nsec = ts->value("nsec", std::int64_t{0});
  }
  std::int64_t sample = 0, sequence = 0;
  integer("sample", sample);  // absent in sound recorded by others: the caller counts
  integer("sequence", sequence);
  const auto text = m.find("data");
  std::string bytes;
  if (text == m.end() || !text->is_string() ||
      !zrBase64Decode(text->get_ref<const std::string&>(), bytes))
    return why = "no base64 \"data\"", false;
  const std::size_t frameBytes = static_cast<std::size_t>(channels) * sizeof(std::int16_t);
  if (bytes.size() % frameBytes != 0)
    return why = "\"data\" is not a whole number of frames", false;
  out.sampleRate = static_cast<int>(rate);
  out.channels = static_cast<int>(channels);
  out.sample = sample;
  out.sequence = sequence;
  out.realtimeNs = sec * 1000000000 + nsec;
  out.samples.resize(bytes.size() / sizeof(std::int16_t));
  std::memcpy(out.samples.data(), bytes.data(), bytes.size());
  if (!kLittleEndian)
    for (auto& s : out.samples)
      s = static_cast<std::int16_t>(swapped(static_cast<std::uint16_t>(s)));
  return true;
}

}  // namespace ZR
