#include "output.h"

#include <cerrno>
#include <cmath>
#include <stdexcept>

#include <zrextractors/zrrecord.h>
#include <nlohmann/json.hpp>

namespace zr {

namespace {

double rounded(double v, double scale) {
  return std::round(v * scale) / scale;
}

// Times to the millisecond and levels to a hundredth of a dB: more digits would only be noise.
double scaleFor(const std::string& field) {
  if (field == "time" || field == "start" || field == "end") return 1000.0;
  return 100.0;
}

nlohmann::ordered_json toJson(const ZR::ZRValue& v, double scale) {
  switch (v.getType()) {
    case ZR::ZRValue::TypeBool:
      return v.toBool();
    case ZR::ZRValue::TypeInt:
      return v.toInt();
    case ZR::ZRValue::TypeFloat: {
      const double f = v.toFloat();
      return std::isfinite(f) ? nlohmann::ordered_json(rounded(f, scale))
                              : nlohmann::ordered_json(nullptr);
    }
    case ZR::ZRValue::TypeString:
      return v.toStringRef();
    case ZR::ZRValue::TypeBinary:
      return "<" + std::to_string(v.getBinarySize()) + " bytes>";
    case ZR::ZRValue::TypeArray: {
      if (ZR::isRecord(v) && v.getSize() > 0) {  // a record inside a record: an object too
        nlohmann::ordered_json o = nlohmann::ordered_json::object();
        for (const ZR::ZRValue& f : v.arrayElements())
          o[f[0].toStringRef()] = toJson(f[1], scaleFor(f[0].toStringRef()));
        return o;
      }
      nlohmann::ordered_json a = nlohmann::ordered_json::array();
      for (const ZR::ZRValue& e : v.arrayElements()) a.push_back(toJson(e, scale));
      return a;
    }
    default:
      return nullptr;
  }
}

/// The result as one flat object: extractor, event, then the record's fields (or "value").
nlohmann::ordered_json toObject(const Result& r) {
  nlohmann::ordered_json o;
  o["extractor"] = r.extractor;
  o["event"] = r.event;
  if (ZR::isRecord(r.value) && r.value.getSize() > 0) {
    for (const ZR::ZRValue& f : r.value.arrayElements()) {
      const std::string& name = f[0].toStringRef();
      if (name == "extractor" || name == "event") continue;
      o[name] = toJson(f[1], scaleFor(name));
    }
  } else {
    o["value"] = toJson(r.value, 1000.0);
  }
  return o;
}

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

class JsonLinesWriter : public ResultWriter {
 public:
  explicit JsonLinesWriter(std::FILE* out) : ResultWriter(out) {}
  void write(const Result& r) override {
    const std::string line = toObject(r).dump() + "\n";
    std::fwrite(line.data(), 1, line.size(), out_);
  }
};

class CsvWriter : public ResultWriter {
 public:
  explicit CsvWriter(std::FILE* out) : ResultWriter(out) {}
  void begin() override {
    std::fputs("extractor,event,time,channel,rms,peak,start,end,value\n", out_);
  }
  void write(const Result& r) override {
    const nlohmann::ordered_json o = toObject(r);
    auto num = [&](const char* k) -> std::string {
      return o.contains(k) && o[k].is_number() ? o[k].dump() : std::string();
    };
    const std::string head = quote(r.extractor) + "," + quote(r.event) + "," + num("time") + ",";
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
    nlohmann::ordered_json rest = o;
    for (const char* k : {"extractor", "event", "time", "channel", "rms", "start", "end"})
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
};

class TableWriter : public ResultWriter {
 public:
  explicit TableWriter(std::FILE* out) : ResultWriter(out) {}
  void begin() override {
    std::fprintf(out_, "%9s  %-14s %-16s %s\n", "time (s)", "extractor", "event", "result");
  }
  void write(const Result& r) override {
    const nlohmann::ordered_json o = toObject(r);
    std::string time =
        o.contains("time") && o["time"].is_number()     ? fixed(o["time"].get<double>(), 3)
        : o.contains("start") && o["start"].is_number() ? fixed(o["start"].get<double>(), 3)
                                                        : "";
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
      for (const char* k : {"extractor", "event", "time"}) rest.erase(k);
      for (auto it = rest.begin(); it != rest.end(); ++it) {
        if (!text.empty()) text += "  ";
        text += it.key() + " " + (it->is_string() ? it->get<std::string>() : it->dump());
      }
    }
    std::fprintf(out_, "%9s  %-14s %-16s %s\n", time.c_str(), r.extractor.c_str(), r.event.c_str(),
                 text.c_str());
  }
};

}  // namespace

bool ResultWriter::check() {
  if (!error_ && std::ferror(out_)) error_ = errno ? errno : EIO;
  return error_ == 0;
}

bool ResultWriter::flush() {
  if (std::fflush(out_) != 0 && !error_) error_ = errno ? errno : EIO;
  return check();
}

std::unique_ptr<ResultWriter> ResultWriter::create(const std::string& format, std::FILE* out) {
  if (format == "jsonl") return std::make_unique<JsonLinesWriter>(out);
  if (format == "csv") return std::make_unique<CsvWriter>(out);
  if (format == "table") return std::make_unique<TableWriter>(out);
  throw std::invalid_argument("unknown format \"" + format + "\" (table, csv, jsonl)");
}

}  // namespace zr
