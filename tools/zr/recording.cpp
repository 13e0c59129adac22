#include "recording.h"

#include <time.h>

#include <chrono>
#include <cstdlib>

#include <zrcommon/zraudiotimestamp.h>
#include <zrcommon/zrversion.h>
#include <zrextractors/zrrecord.h>
#include <zrmcap/zrsoundmessage.h>
#include <zrvalue/zrvalue.h>

#include "output.h"

namespace zr {

namespace {

constexpr const char* kValueKey = "zr.value";
// Buffers whose capture times a result may still refer to: seconds of sound at any buffer size.
constexpr std::size_t kRecentBuffers = 4096;

// An empty list is a value, not a record of no fields, as zr prints it.
bool isRecordValue(const ZR::ZRValue& v) {
  return ZR::isRecord(v) && v.getSize() > 0;
}

std::int64_t nowNs(clockid_t clock) {
  timespec ts{};
  clock_gettime(clock, &ts);
  return static_cast<std::int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

// What the fields of a value are, as a JSON Schema: enough for a viewer to offer them.
nlohmann::ordered_json schemaOf(const nlohmann::ordered_json& j) {
  nlohmann::ordered_json s = nlohmann::ordered_json::object();
  if (j.is_object()) {
    s["type"] = "object";
    s["properties"] = nlohmann::ordered_json::object();
    for (const auto& [key, value] : j.items()) s["properties"][key] = schemaOf(value);
  } else if (j.is_array()) {
    s["type"] = "array";
    if (!j.empty()) s["items"] = schemaOf(j.front());
  } else if (j.is_number_integer()) {
    s["type"] = "integer";
  } else if (j.is_number()) {
    s["type"] = "number";
  } else if (j.is_string()) {
    s["type"] = "string";
  } else if (j.is_boolean()) {
    s["type"] = "boolean";
  }
  return s;
}

nlohmann::ordered_json eventObject(const ZR::ZRValue& value) {
  nlohmann::ordered_json o = nlohmann::ordered_json::object();
  if (!isRecordValue(value)) {
    o["value"] = valueJson(value);
    return o;
  }
  for (const ZR::ZRValue& f : value.arrayElements()) {
    const std::string& name = f[0].toStringRef();
    // Positions read as one integer, whatever their size.
    o[name] = name == "sample" || name == "start" ? sampleJson(f[1]) : valueJson(f[1]);
  }
  return o;
}

ZR::ZRValue fromJson(const nlohmann::ordered_json& j) {
  if (j.is_object()) {
    ZR::ZRValue record;
    record.arraySetSize(static_cast<int>(j.size()));
    int i = 0;
    for (const auto& [key, value] : j.items()) {
      record[i].arraySetSize(2);
      record[i][0] = key;
      record[i][1] = fromJson(value);
      ++i;
    }
    return record;
  }
  if (j.is_array()) {
    ZR::ZRValue a;
    a.arraySetSize(static_cast<int>(j.size()));
    for (std::size_t i = 0; i < j.size(); ++i) a[static_cast<int>(i)] = fromJson(j[i]);
    return a;
  }
  if (j.is_number_integer()) return ZR::zrSampleValue(j.get<std::int64_t>());
  if (j.is_number()) return ZR::ZRValue(j.get<float>());
  if (j.is_string()) return ZR::ZRValue(j.get<std::string>());
  if (j.is_boolean()) return ZR::ZRValue(j.get<bool>());
  return ZR::ZRValue();
}

}  // namespace

void RecordOptions::define(CLI::App* cmd, bool required) {
  CLI::Option* file =
      cmd->add_option(required ? "FILE" : "--record", path,
                      "Record the sound and every result, with their capture times, to FILE "
                      "(.mcap; docs/recording.md).");
  if (required) file->required();
  cmd->add_option("--record-sound", sound, "The device's sound in the recording: all or none.")
      ->check(CLI::IsMember({"all", "none"}));
  cmd->add_option("--compression", compression, "The recording's compression: zstd, lz4 or none.")
      ->check(CLI::IsMember({"zstd", "lz4", "none"}));
}

std::string eventJson(const ZR::ZRValue& value) {
  return eventObject(value).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string eventSchema(const std::string& topic, const ZR::ZRValue* value) {
  nlohmann::ordered_json schema =
      value ? schemaOf(eventObject(*value)) : nlohmann::ordered_json{{"type", "object"}};
  schema["title"] = topic;
  return schema.dump();
}

ZR::ZRValue eventValue(const std::string& json, bool record) {
  const auto j = nlohmann::ordered_json::parse(json, nullptr, false);
  if (j.is_discarded() || !j.is_object()) return ZR::ZRValue();
  if (record) return fromJson(j);
  auto it = j.find("value");
  return it == j.end() ? ZR::ZRValue() : fromJson(*it);
}

void checkRecordingInput(const std::string& path) {
  try {
    ZR::ZRMcapReader reader(path);
    const ZR::ZRMcapSummary& s = reader.summary();
    for (const auto& [id, c] : s.channels) {
      auto kind = c.metadata.find(ZR::kKindKey);
      auto schema = s.schemas.find(c.schemaId);
      if (kind != c.metadata.end()
              ? kind->second == "sound"
              : schema != s.schemas.end() && schema->second.name == ZR::kSoundSchemaName)
        return;
    }
    throw std::runtime_error("cannot read input " + path + ": " +
                             (s.complete
                                  ? "a recording without sound (made with --record-sound none?)"
                                  : "no sound before its damage: " + s.damage));
  } catch (const ZR::ZRError& e) {
    throw std::runtime_error("cannot read input " + path + ": " + e.getDescription());
  }
}

double recordedSoundSeconds(const std::string& path) {
  try {
    ZR::ZRMcapReader reader(path);
    for (const auto& [id, c] : reader.summary().channels) {
      auto kind = c.metadata.find(ZR::kKindKey);
      if (kind == c.metadata.end() || kind->second != "sound") continue;
      double seconds = 0.0;
      ZR::ZRSoundBlock block;
      std::string why;
      auto cursor = reader.messages({id});
      for (ZR::ZRMcapMessage m; cursor.next(m);)
        if (ZR::zrReadSoundMessage(m.data, m.size, block, why))
          seconds += static_cast<double>(block.frames()) / block.sampleRate;
      return seconds;
    }
  } catch (const ZR::ZRError&) {
    // The run that reads it says what is wrong.
  }
  return 0.0;
}

std::int64_t realtimeOf(std::int64_t monotonicNs) {
  const std::int64_t now = nowNs(CLOCK_REALTIME);
  return monotonicNs > 0 ? now - (nowNs(CLOCK_MONOTONIC) - monotonicNs) : now;
}

Recorder::Recorder(const RecordOptions& options)
    : path_(options.path), withSound_(options.withSound()), writer_(options.path, [&] {
        ZR::ZRMcapWriter::Options o;
        o.compression = ZR::zrMcapCompressionFromName(options.compression);
        o.library = std::string("zr ") + ZR::kPlatformVersion;
        return o;
      }()) {}

std::uint16_t Recorder::channelFor(const std::string& topic, const std::string& producer,
                                   const ZR::ZRValue* value) {
  auto it = channels_.find(topic);
  if (it != channels_.end()) return it->second;
  std::uint16_t id = 0;
  if (!value) {
    const std::uint16_t schema =
        writer_.addSchema(ZR::kSoundSchemaName, ZR::kSoundSchemaEncoding, ZR::zrSoundSchema());
    id = writer_.addChannel(schema, topic, ZR::kJsonEncoding,
                            {{ZR::kKindKey, "sound"}, {ZR::kModuleKey, producer}});
  } else {
    const std::uint16_t s =
        writer_.addSchema(topic, ZR::kSoundSchemaEncoding, eventSchema(topic, value));
    id = writer_.addChannel(s, topic, ZR::kJsonEncoding,
                            {{ZR::kKindKey, "event"},
                             {ZR::kModuleKey, producer},
                             {kValueKey, isRecordValue(*value) ? "record" : "value"}});
  }
  channels_[topic] = id;
  return id;
}

void Recorder::sound(const std::string& device, int sampleRate, int channels, int frames,
                     const ZR::ZRValue& timestamp, const ZR::ZRValue& samples) {
  ZR::ZRAudioTimestamp t;
  if (!ZR::ZRAudioTimestamp::read(timestamp, t) || channels <= 0 || frames <= 0 ||
      samples.getType() != ZR::ZRValue::TypeBinary ||
      samples.getBinarySize() < static_cast<std::size_t>(channels) * frames * 2)
    return;
  const std::string message = ZR::zrSoundMessage(
      sampleRate, channels, t.sample, t.sequence, t.realtimeNs,
      static_cast<const std::int16_t*>(samples.GetBinary()), static_cast<std::size_t>(frames));
  std::lock_guard<std::mutex> lock(mutex_);
  if (t.monotonicNs > 0) {
    captured_[t.monotonicNs] = t.realtimeNs;
    if (captured_.size() > kRecentBuffers) captured_.erase(captured_.begin());
  }
  const auto at = static_cast<std::uint64_t>(t.realtimeNs);
  write(device + ZR::kSoundTopicSuffix, device, nullptr, at, message);
  // The results of this buffer that came before it now know their time.
  while (!pending_.empty() && pending_.front().captureNs <= t.monotonicNs) writePending();
}

void Recorder::event(const std::string& event, const std::string& producer,
                     const ZR::ZRValue& value, std::int64_t captureNs) {
  Pending p{event, producer, value, captureNs, std::chrono::steady_clock::now()};
  std::lock_guard<std::mutex> lock(mutex_);
  // A result can overtake the buffer it was made from (each has its own way here): it waits for
  // that buffer, so that it takes the time the buffer says (a replayed recording's own), but
  // never long, nor for a buffer that will not come.
  if (withSound_ && captureNs > 0 && (captured_.empty() || captureNs > captured_.rbegin()->first))
    pending_.push_back(std::move(p));
  else
    writeResult(p);
  const auto stale = std::chrono::steady_clock::now() - std::chrono::milliseconds(500);
  while (!pending_.empty() &&
         (pending_.size() > kRecentBuffers || pending_.front().received < stale))
    writePending();
}

void Recorder::writePending() {
  writeResult(pending_.front());
  pending_.pop_front();
}

// A result, at the real time of its capture: as the buffer it was made from says
// it (exactly in this process; within the clocks' conversion from another process of this host),
// else as the clocks convert it.
void Recorder::writeResult(const Pending& p) {
  std::int64_t at = realtimeOf(p.captureNs);
  auto after = captured_.lower_bound(p.captureNs);
  if (after != captured_.end() && after->first == p.captureNs) {
    at = after->second;
  } else {
    for (auto it : {after, after == captured_.begin() ? captured_.end() : std::prev(after)})
      if (p.captureNs > 0 && it != captured_.end() && std::llabs(it->first - p.captureNs) < 1000000)
        at = it->second + (p.captureNs - it->first);
  }
  write(p.event, p.producer, &p.value, static_cast<std::uint64_t>(at), eventJson(p.value));
}

void Recorder::write(const std::string& topic, const std::string& producer,
                     const ZR::ZRValue* value, std::uint64_t logTime, const std::string& message) {
  if (!failure_.empty()) return;
  try {
    writer_.write(channelFor(topic, producer, value), logTime,
                  static_cast<std::uint64_t>(realtimeOf(0)), message.data(), message.size());
  } catch (const ZR::ZRError& e) {
    failure_ = "cannot record to " + path_ + ": " + e.getDescription();
  }
}

void Recorder::close() {
  std::lock_guard<std::mutex> lock(mutex_);
  while (!pending_.empty()) writePending();
  if (failure_.empty()) {
    try {
      writer_.close();
      return;
    } catch (const ZR::ZRError& e) {
      failure_ = "cannot record to " + path_ + ": " + e.getDescription();
    }
  }
  try {
    writer_.close();  // what was written before the failure stays readable
  } catch (const ZR::ZRError&) {
  }
  throw ZR::ZRError("zr", "record", failure_);
}

std::string Recorder::failure() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return failure_;
}

}  // namespace zr
