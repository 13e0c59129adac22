#include "output.h"

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <stdexcept>

#include <zrcommon/zraudiotimestamp.h>
#include <zrcommon/zrservicenames.h>
#include <zrextractors/zrrecord.h>
#include <nlohmann/json.hpp>

namespace zr {

namespace {

// A 32-bit float as the double that prints as its shortest exact text: 0.002f prints as 0.002,
// not 0.0020000000949949026, and every digit a program reads back is the float's own.
double shortestDouble(float f) {
  char text[32];
  const char* end = std::to_chars(text, text + sizeof text, f).ptr;
  double d = 0;
  std::from_chars(text, end, d);
  return d;
}

nlohmann::ordered_json floatJson(float f) {
  if (!std::isfinite(f)) return nullptr;
  return shortestDouble(f);
}

}  // namespace

nlohmann::ordered_json valueJson(const ZR::ZRValue& v) {
  switch (v.getType()) {
    case ZR::ZRValue::TypeBool:
      return v.toBool();
    case ZR::ZRValue::TypeInt:
      return v.toInt();
    case ZR::ZRValue::TypeFloat:
      return floatJson(v.toFloat());
    case ZR::ZRValue::TypeString:
      return v.toStringRef();
    case ZR::ZRValue::TypeBinary:
      return "<" + std::to_string(v.getBinarySize()) + " bytes>";
    case ZR::ZRValue::TypeArray: {
      if (ZR::isRecord(v) && v.getSize() > 0) {  // a record inside a record: an object too
        nlohmann::ordered_json o = nlohmann::ordered_json::object();
        for (const ZR::ZRValue& f : v.arrayElements()) o[f[0].toStringRef()] = valueJson(f[1]);
        return o;
      }
      nlohmann::ordered_json a = nlohmann::ordered_json::array();
      for (const ZR::ZRValue& e : v.arrayElements()) a.push_back(valueJson(e));
      return a;
    }
    default:
      return nullptr;
  }
}

nlohmann::ordered_json sampleJson(const ZR::ZRValue& v) {
  std::int64_t sample = 0;
  return ZR::zrReadSample(v, sample) ? nlohmann::ordered_json(sample) : valueJson(v);
}

namespace {

// {"event": "Gap", "start", "samples", "cause", then the rest}: what scripts read lost sound by.
nlohmann::ordered_json gapObject(const Result& r) {
  nlohmann::ordered_json o;
  o["event"] = "Gap";
  for (const char* key : {"start", "samples", "cause", "reason", "time"})
    if (const ZR::ZRValue* v = ZR::recordField(r.value, key))
      o[key] = std::string(key) == "start" ? sampleJson(*v) : valueJson(*v);
  if (!r.file.empty()) o["file"] = r.file;
  return o;
}

}  // namespace

nlohmann::ordered_json resultJson(const Result& r) {
  if (isGap(r)) return gapObject(r);
  nlohmann::ordered_json o;
  if (!r.file.empty()) o["file"] = r.file;
  o["extractor"] = r.extractor;
  o["event"] = r.event;
  if (ZR::isRecord(r.value) && r.value.getSize() > 0) {
    for (const ZR::ZRValue& f : r.value.arrayElements()) {
      const std::string& name = f[0].toStringRef();
      if (name == "file" || name == "extractor" || name == "event") continue;
      o[name] = name == "sample" ? sampleJson(f[1]) : valueJson(f[1]);
    }
  } else {
    o["value"] = valueJson(r.value);
  }
  // Without its own, a result's position is that of its window's start time: exact while the
  // time is (a float holds it to the sample for the first few minutes).
  if (!o.contains("sample") && r.sampleRate > 0)
    for (const char* key : {"start", "time"})
      if (o.contains(key) && o[key].is_number()) {
        o["sample"] = std::llround(o[key].get<double>() * r.sampleRate);
        break;
      }
  return o;
}

void appendFloat(std::string& out, float f) {
  if (!std::isfinite(f)) {
    out += "null";
    return;
  }
  // What the library's serializer writes for that double (its own formatting function, which
  // the serializer calls), without building a serializer for each number.
  char text[64];
  out.append(text, nlohmann::detail::to_chars(text, text + sizeof text, shortestDouble(f)));
}

namespace {

// ---- the same line written straight from the record, without building the object

// A name or text as JSON: plain printable ASCII as it is, anything else as the library
// escapes (and checks) it.
void appendString(std::string& out, const std::string& s) {
  for (char c : s)
    if (c < 0x20 || c > 0x7e || c == '"' || c == '\\') {
      out += nlohmann::ordered_json(s).dump();
      return;
    }
  out += '"';
  out += s;
  out += '"';
}

// False for what only the object gets right (a record inside it).
bool appendValue(std::string& out, const ZR::ZRValue& v) {
  switch (v.getType()) {
    case ZR::ZRValue::TypeBool:
      out += v.toBool() ? "true" : "false";
      return true;
    case ZR::ZRValue::TypeInt:
      out += std::to_string(v.toInt());
      return true;
    case ZR::ZRValue::TypeFloat:
      appendFloat(out, v.toFloat());
      return true;
    case ZR::ZRValue::TypeString:
      appendString(out, v.toStringRef());
      return true;
    case ZR::ZRValue::TypeBinary:
      appendString(out, "<" + std::to_string(v.getBinarySize()) + " bytes>");
      return true;
    case ZR::ZRValue::TypeArray: {
      if (ZR::isRecord(v) && v.getSize() > 0) return false;
      out += '[';
      bool first = true;
      for (const ZR::ZRValue& e : v.arrayElements()) {
        if (!first) out += ',';
        first = false;
        if (!appendValue(out, e)) return false;
      }
      out += ']';
      return true;
    }
    default:
      out += "null";
      return true;
  }
}

// resultJson(r).dump() without the object, which cost more than all the rest of a result's way
// through `zr run`. False for what is rare (a gap, a record inside the record, a field named
// twice): the caller then builds the object.
bool appendFlat(std::string& out, const Result& r) {
  if (isGap(r)) return false;
  bool first = true;
  auto key = [&](const std::string& name) {
    out += first ? '{' : ',';
    first = false;
    appendString(out, name);
    out += ':';
  };
  if (!r.file.empty()) {
    key("file");
    appendString(out, r.file);
  }
  key("extractor");
  appendString(out, r.extractor);
  key("event");
  appendString(out, r.event);
  bool hasSample = false;
  const ZR::ZRValue* position = nullptr;  // "start", else "time", when a number
  bool positionIsStart = false;
  if (ZR::isRecord(r.value) && r.value.getSize() > 0) {
    const auto& fields = r.value.arrayElements();
    for (std::size_t i = 0; i < fields.size(); ++i) {
      const std::string& name = fields[i][0].toStringRef();
      if (name == "file" || name == "extractor" || name == "event") continue;
      for (std::size_t j = 0; j < i; ++j)
        if (fields[j][0].toStringRef() == name) return false;
      const ZR::ZRValue& v = fields[i][1];
      key(name);
      if (name == "sample") {
        hasSample = true;
        std::int64_t sample = 0;
        if (ZR::zrReadSample(v, sample))
          out += std::to_string(sample);
        else if (!appendValue(out, v))
          return false;
        continue;
      }
      if (!appendValue(out, v)) return false;
      const bool number = v.isInt() || (v.isFloat() && std::isfinite(v.toFloat()));
      if (number && name == "start") {
        position = &v;
        positionIsStart = true;
      } else if (number && name == "time" && !positionIsStart) {
        position = &v;
      }
    }
  } else {
    key("value");
    if (!appendValue(out, r.value)) return false;
  }
  if (!hasSample && r.sampleRate > 0 && position) {
    const double at = position->isInt() ? position->toInt() : shortestDouble(position->toFloat());
    key("sample");
    out += std::to_string(std::llround(at * r.sampleRate));
  }
  out += '}';
  return true;
}

}  // namespace

std::string jsonLine(const Result& r) {
  std::string line;
  line.reserve(256);
  if (!appendFlat(line, r)) line = resultJson(r).dump();
  return line;
}

namespace {

// Of a result with a list of "sources" (SoundLocalization), the one with the most energy; null
// when the list is empty. Table and CSV show only that one.
nlohmann::ordered_json strongestSource(const nlohmann::ordered_json& o) {
  nlohmann::ordered_json best;
  for (const auto& s : o["sources"])
    if (s.is_object() && (best.is_null() || s.value("energy", -1e9) > best.value("energy", -1e9)))
      best = s;
  return best;
}

std::string fixed(double v, int decimals) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "%.*f", decimals, v);
  return buf;
}

// A value in the table: strings bare, floats to 4 significant digits, the rest as JSON.
std::string forPeople(const nlohmann::ordered_json& v) {
  if (v.is_string()) return v.get<std::string>();
  if (v.is_number_float()) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.4g", v.get<double>());
    return buf;
  }
  if (!v.is_array()) return v.dump();
  std::string out = "[";
  for (const auto& e : v) out += (out.size() > 1 ? "," : "") + forPeople(e);
  return out + "]";
}

class JsonLinesWriter : public ResultWriter {
 public:
  explicit JsonLinesWriter(std::FILE* out) : ResultWriter(out) {}
  void write(const Result& r) override {
    std::string line = jsonLine(r);
    line += '\n';
    std::fwrite(line.data(), 1, line.size(), out_);
  }
};

class CsvWriter : public ResultWriter {
 public:
  CsvWriter(std::FILE* out, bool files) : ResultWriter(out), files_(files) {}
  void begin() override {
    std::fputs(files_ ? "file," : "", out_);
    std::fputs("extractor,event,time,channel,rms,peak,start,end,value\n", out_);
  }
  void write(const Result& r) override {
    const nlohmann::ordered_json o = resultJson(r);
    auto num = [&](const char* k) -> std::string {
      return o.contains(k) && o[k].is_number() ? o[k].dump() : std::string();
    };
    const std::string head = (files_ ? quote(r.file) + "," : std::string()) + quote(r.extractor) +
                             "," + quote(r.event) + "," + num("time") + ",";
    // Per-channel levels become one row per channel, so every cell holds one number.
    if (o.contains("rms") && o["rms"].is_array()) {
      const auto& rms = o["rms"];
      const auto peak = o.contains("peak") ? o["peak"] : nlohmann::ordered_json::array();
      for (std::size_t c = 0; c < rms.size(); ++c) {
        const std::string p = c < peak.size() ? peak[c].dump() : std::string();
        std::fprintf(out_, "%s%zu,%s,%s,,,\n", head.c_str(), c, rms[c].dump().c_str(), p.c_str());
      }
      return;
    }
    if (isGap(r)) {  // a position in samples is no "start" in seconds
      nlohmann::ordered_json gap = o;
      for (const char* k : {"file", "event", "time"}) gap.erase(k);
      std::fprintf(out_, "%s,,,,,%s\n", head.c_str(), quote(gap.dump()).c_str());
      return;
    }
    nlohmann::ordered_json rest = o;
    for (const char* k :
         {"file", "extractor", "event", "time", "sample", "channel", "rms", "start", "end"})
      rest.erase(k);
    std::string value;
    if (o.contains("sources") && o["sources"].is_array()) {
      const nlohmann::ordered_json s = strongestSource(o);
      if (!s.is_null()) value = s.dump();
    } else if (o.contains("value"))
      value = o["value"].is_string() ? o["value"].get<std::string>() : o["value"].dump();
    else if (!rest.empty())
      value = rest.dump();
    std::fprintf(out_, "%s%s,%s,,%s,%s,%s\n", head.c_str(), num("channel").c_str(),
                 num("rms").c_str(), num("start").c_str(), num("end").c_str(),
                 quote(value).c_str());
  }

 private:
  static std::string quote(const std::string& s) {
    if (s.find_first_of(",\"\n") == std::string::npos) return s;
    std::string q = "\"";
    for (char c : s) q += c == '"' ? std::string("\"\"") : std::string(1, c);
    return q + "\"";
  }
  const bool files_;
};

class TableWriter : public ResultWriter {
 public:
  explicit TableWriter(std::FILE* out) : ResultWriter(out) {}
  void begin() override {
    std::fprintf(out_, "%9s  %-14s %-16s %s\n", "time (s)", "extractor", "event", "result");
  }
  void write(const Result& r) override {
    if (r.file != file_) {
      file_ = r.file;
      std::fprintf(out_, "%s== %s ==\n", wroteFile_ ? "\n" : "", file_.c_str());
      wroteFile_ = true;
    }
    const nlohmann::ordered_json o = resultJson(r);
    // A finished segment stands where it ended, as an offline run orders it.
    const std::optional<double> at = resultTime(r);
    std::string time = at ? fixed(*at, 3) : "";
    std::string text;
    if (o.contains("rms") && o["rms"].is_array() && o.contains("peak")) {
      for (std::size_t c = 0; c < o["rms"].size(); ++c) {
        if (c) text += "  ";
        text += "ch" + std::to_string(c) + " rms " + fixed(o["rms"][c].get<double>(), 1) +
                " peak " + fixed(o["peak"][c].get<double>(), 1) + " dBFS";
      }
    } else if (o.contains("start") && o.contains("end")) {
      const double s = o["start"].get<double>(), e = o["end"].get<double>();
      text = "speech " + fixed(s, 3) + " - " + fixed(e, 3) + " s (" + fixed(e - s, 2) + " s)";
    } else if (o.contains("sources") && o["sources"].is_array()) {
      const nlohmann::ordered_json s = strongestSource(o);
      text = "no source";
      if (!s.is_null()) {
        text = "source " + s.value("id", nlohmann::ordered_json()).dump() + " azimuth " +
               fixed(s.value("azimuth", 0.0), 1) + " elevation " +
               fixed(s.value("elevation", 0.0), 1) + " energy " + fixed(s.value("energy", 0.0), 1) +
               " dBFS";
        if (o["sources"].size() > 1) text += " (+" + std::to_string(o["sources"].size() - 1) + ")";
      }
    } else {
      nlohmann::ordered_json rest = o;
      for (const char* k : {"file", "extractor", "event", "time", "sample"}) rest.erase(k);
      for (auto it = rest.begin(); it != rest.end(); ++it) {
        if (!text.empty()) text += "  ";
        text += it.key() + " " + forPeople(*it);
      }
    }
    std::fprintf(out_, "%9s  %-14s %-16s %s\n", time.c_str(), r.extractor.c_str(), r.event.c_str(),
                 text.c_str());
  }

 private:
  std::string file_;
  bool wroteFile_ = false;
};

}  // namespace

bool isGap(const Result& r) {
  return r.extractor == ZR::kAudioDeviceServiceName && r.event == "Gap";
}

bool ResultWriter::check() {
  if (!error_ && std::ferror(out_)) error_ = errno ? errno : EIO;
  return error_ == 0;
}

bool ResultWriter::flush() {
  if (std::fflush(out_) != 0 && !error_) error_ = errno ? errno : EIO;
  return check();
}

std::optional<double> resultTime(const Result& r) {
  for (const char* field : {"end", "time"})
    if (const ZR::ZRValue* v = ZR::recordField(r.value, field))
      if (v->isFloat() || v->isInt())
        return v->isFloat() ? static_cast<double>(v->toFloat()) : static_cast<double>(v->toInt());
  return std::nullopt;
}

std::unique_ptr<ResultWriter> ResultWriter::create(const std::string& format, std::FILE* out,
                                                   bool files) {
  if (format == "jsonl") return std::make_unique<JsonLinesWriter>(out);
  if (format == "csv") return std::make_unique<CsvWriter>(out, files);
  if (format == "table") return std::make_unique<TableWriter>(out);
  throw std::invalid_argument("unknown format \"" + format + "\" (table, csv, jsonl)");
}

}  // namespace zr
