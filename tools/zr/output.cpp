#include "output.h"

#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include <nlohmann/json.hpp>
#include <zrextractors/zrrecord.h>

namespace zr {

namespace {

double rounded(double v, double scale) { return std::round(v * scale) / scale; }

// Times to the millisecond and levels to a hundredth of a dB: more digits would only be noise.
double scaleFor(const std::string& field) {
  if (field == "time" || field == "start" || field == "end") return 1000.0;
  return 100.0;
}

nlohmann::ordered_json toJson(const ZR::ZRValue& v, double scale) {
  switch (v.getType()) {
    case ZR::ZRValue::TypeBool: return v.toBool();
    case ZR::ZRValue::TypeInt: return v.toInt();
    case ZR::ZRValue::TypeFloat: {
      const double f = v.toFloat();
      return std::isfinite(f) ? nlohmann::ordered_json(rounded(f, scale)) : nlohmann::ordered_json(nullptr);
    }
    case ZR::ZRValue::TypeString: return v.toStringRef();
    case ZR::ZRValue::TypeBinary: return "<" + std::to_string(v.getBinarySize()) + " bytes>";
    case ZR::ZRValue::TypeArray: {
      nlohmann::ordered_json a = nlohmann::ordered_json::array();
      for (const ZR::ZRValue& e : v.arrayElements()) a.push_back(toJson(e, scale));
      return a;
    }
    default: return nullptr;
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

std::string fixed(double v, int decimals) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "%.*f", decimals, v);
  return buf;
}

class JsonLinesWriter : public ResultWriter {
 public:
  explicit JsonLinesWriter(std::FILE* out) : out_(out) {}
  void write(const Result& r) override {
    const std::string line = toObject(r).dump() + "\n";
    std::fwrite(line.data(), 1, line.size(), out_);
  }

 private:
  std::FILE* out_;
};

class CsvWriter : public ResultWriter {
 public:
  explicit CsvWriter(std::FILE* out) : out_(out) {}
  void begin() override { std::fputs("extractor,event,time,channel,rms,peak,start,end,value\n", out_); }
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
    for (const char* k : {"extractor", "event", "time", "channel", "rms", "start", "end"}) rest.erase(k);
    std::string value;
    if (o.contains("value")) value = o["value"].is_string() ? o["value"].get<std::string>() : o["value"].dump();
    else if (!rest.empty()) value = rest.dump();
    std::fprintf(out_, "%s%s,%s,,%s,%s,%s\n", head.c_str(), num("channel").c_str(), num("rms").c_str(),
                 num("start").c_str(), num("end").c_str(), quote(value).c_str());
  }

 private:
  static std::string quote(const std::string& s) {
    if (s.find_first_of(",\"\n") == std::string::npos) return s;
    std::string q = "\"";
    for (char c : s) q += c == '"' ? std::string("\"\"") : std::string(1, c);
    return q + "\"";
  }
  std::FILE* out_;
};

class TableWriter : public ResultWriter {
 public:
  explicit TableWriter(std::FILE* out) : out_(out) {}
  void begin() override {
    std::fprintf(out_, "%9s  %-14s %-16s %s\n", "time (s)", "extractor", "event", "result");
  }
  void write(const Result& r) override {
    const nlohmann::ordered_json o = toObject(r);
    std::string time = o.contains("time") && o["time"].is_number() ? fixed(o["time"].get<double>(), 3)
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

 private:
  std::FILE* out_;
};

}  // namespace

std::unique_ptr<ResultWriter> ResultWriter::create(const std::string& format, std::FILE* out) {
  if (format == "jsonl") return std::make_unique<JsonLinesWriter>(out);
  if (format == "csv") return std::make_unique<CsvWriter>(out);
  if (format == "table") return std::make_unique<TableWriter>(out);
  throw std::invalid_argument("unknown format \"" + format + "\" (table, csv, jsonl)");
}

void PlotData::add(const Result& r) {
  const ZR::ZRValue* rms = ZR::recordField(r.value, "rms");
  const ZR::ZRValue* time = ZR::recordField(r.value, "time");
  const ZR::ZRValue* start = ZR::recordField(r.value, "start");
  const ZR::ZRValue* end = ZR::recordField(r.value, "end");
  if (rms && time && rms->isArray() && ZR::recordField(r.value, "peak")) {
    Level l{time->toFloat(), {}};
    for (const ZR::ZRValue& v : rms->arrayElements()) l.rms.push_back(v.toFloat());
    levels_.push_back(std::move(l));
  } else if (start && end && start->isFloat() && end->isFloat()) {
    segments_.emplace_back(start->toFloat(), end->toFloat());
  }
}

void PlotData::render(const std::string& path, const std::string& title) const {
  const auto dot = path.rfind('.');
  const std::string ext = dot == std::string::npos ? "" : path.substr(dot + 1);
  std::string terminal;
  if (ext == "png") terminal = "pngcairo size 1200,500";
  else if (ext == "svg") terminal = "svg size 1200,500";
  else throw std::runtime_error("--plot wants a .png or .svg file, not " + path);

  char dir[] = "/tmp/zrplotXXXXXX";
  if (!mkdtemp(dir)) throw std::runtime_error("cannot create a temporary directory for the plot");
  const std::string data = std::string(dir) + "/levels.dat", script = std::string(dir) + "/plot.gp";
  std::size_t channels = 0;
  {
    std::ofstream d(data);
    for (const Level& l : levels_) {
      d << l.time;
      for (float v : l.rms) d << ' ' << v;
      d << '\n';
      channels = std::max(channels, l.rms.size());
    }
  }
  {
    std::ofstream g(script);
    auto escaped = [](std::string s) {
      for (auto& c : s)
        if (c == '"' || c == '\\') c = '\'';
      return s;
    };
    g << "set terminal " << terminal << "\n"
      << "set output \"" << escaped(path) << "\"\n"
      << "set title \"" << escaped(title) << "\" noenhanced\n"
      << "set xlabel \"time (s)\"\nset ylabel \"RMS level (dBFS)\"\nset grid\n"
      << "set key outside right\n";
    int n = 1;
    for (const auto& [s, e] : segments_)
      g << "set object " << n++ << " rect from " << s << ", graph 0 to " << e
        << ", graph 1 behind fillcolor rgb \"#cce5ff\" fillstyle solid 0.6 noborder\n";
    if (channels == 0) {
      g << "set xrange [0:1]\nset yrange [-120:0]\nplot NaN title \"no levels\"\n";
    } else {
      g << "plot ";
      for (std::size_t c = 0; c < channels; ++c)
        g << (c ? ", " : "") << "\"" << data << "\" using 1:" << c + 2 << " with lines title \"channel "
          << c << "\"";
      g << "\n";
    }
  }
  const std::string cmd = "gnuplot \"" + script + "\" 2>&1";
  FILE* p = popen(cmd.c_str(), "r");
  std::string messages;
  if (p) {
    char buf[256];
    while (std::fgets(buf, sizeof buf, p)) messages += buf;
  }
  const int status = p ? pclose(p) : -1;
  std::remove(data.c_str());
  std::remove(script.c_str());
  rmdir(dir);
  if (status != 0) throw std::runtime_error("gnuplot failed to draw " + path + (messages.empty() ? "" : ": " + messages));
}

}  // namespace zr
