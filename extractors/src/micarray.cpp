// Microphone array geometry: parsing (JSON, built-in shapes), validation and classification.

#include "zrextractors/micarray.h"

#include <cmath>
#include <fstream>
#include <regex>
#include <sstream>

#include <zrerror/zrerror.h>
#include <nlohmann/json.hpp>

namespace ZR {

namespace {

constexpr int kMaxMics = 64;
constexpr double kMinSpacing = 0.001;  // closer mics hear the same thing
constexpr double kMaxCoordinate = 10.0;
constexpr double kPi = 3.14159265358979323846;

[[noreturn]] void refuse(const std::string& what) {
  throw ZRError("ZRMicArray", "parse", what);
}

using Point = ZRMicArray::Point;

Point sub(const Point& a, const Point& b) {
  return {a[0] - b[0], a[1] - b[1], a[2] - b[2]};
}
double dot(const Point& a, const Point& b) {
  return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}
Point cross(const Point& a, const Point& b) {
  return {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
}
double norm(const Point& a) {
  return std::sqrt(dot(a, a));
}
Point scaled(const Point& a, double s) {
  return {a[0] * s, a[1] * s, a[2] * s};
}

std::string mm(double metres) {
  std::ostringstream s;
  s.precision(3);
  s << metres * 1000.0 << " mm";
  return s.str();
}

ZRMicArray fromJsonText(const std::string& text, const std::string& source) {
  nlohmann::json j;
  try {
    j = nlohmann::json::parse(text);
  } catch (const nlohmann::json::exception& e) {
    refuse(source + " is not valid JSON: " + e.what());
  }
  if (!j.is_object() || !j.contains("mics") || !j["mics"].is_array())
    refuse(source + ": expected {\"name\": \"...\", \"mics\": [[x, y, z], ...]} (metres)");
  std::vector<Point> mics;
  for (const auto& m : j["mics"]) {
    const std::size_t n = mics.size();
    if (!m.is_array() || m.size() < 2 || m.size() > 3)
      refuse(source + ": mic " + std::to_string(n) + " is not [x, y, z] in metres");
    Point p{0.0, 0.0, 0.0};
    for (std::size_t i = 0; i < m.size(); ++i) {
      if (!m[i].is_number())
        refuse(source + ": mic " + std::to_string(n) + " has a coordinate that is no number");
      p[i] = m[i].get<double>();
    }
    mics.push_back(p);
  }
  std::string name = source;
  if (j.contains("name") && j["name"].is_string()) name = j["name"].get<std::string>();
  return ZRMicArray(name, std::move(mics));
}

}  // namespace

ZRMicArray::ZRMicArray(std::string name, std::vector<Point> mics)
    : name_(std::move(name)), mics_(std::move(mics)) {
  const std::string what = "array \"" + name_ + "\"";
  if (mics_.size() < 2) refuse(what + " needs at least 2 mics");
  if (mics_.size() > static_cast<std::size_t>(kMaxMics))
    refuse(what + " has " + std::to_string(mics_.size()) + " mics; at most " +
           std::to_string(kMaxMics) + " are supported");
  for (std::size_t i = 0; i < mics_.size(); ++i)
    for (double v : mics_[i]) {
      if (!std::isfinite(v)) refuse(what + ": mic " + std::to_string(i) + " is not finite");
      if (std::fabs(v) > kMaxCoordinate)
        refuse(what + ": mic " + std::to_string(i) + " is " + std::to_string(v) +
               " m from the centre; positions are in metres (millimetres given?)");
    }
  for (std::size_t i = 0; i < mics_.size(); ++i)
    for (std::size_t j = i + 1; j < mics_.size(); ++j)
      if (norm(sub(mics_[i], mics_[j])) < kMinSpacing)
        refuse(what + ": mics " + std::to_string(i) + " and " + std::to_string(j) +
               " are at the same place (less than 1 mm apart)");
  classify();
}

void ZRMicArray::classify() {
  // The farthest pair spans the array; the others' distances to its line, then to the plane
  // through the farthest of them, tell a line, a plane or a volume.
  std::size_t a = 0, b = 1;
  for (std::size_t i = 0; i < mics_.size(); ++i)
    for (std::size_t j = i + 1; j < mics_.size(); ++j)
      if (norm(sub(mics_[i], mics_[j])) > norm(sub(mics_[a], mics_[b]))) a = i, b = j;
  const double tolerance = std::max(0.0005, 0.01 * aperture());
  const Point d = scaled(sub(mics_[b], mics_[a]), 1.0 / norm(sub(mics_[b], mics_[a])));
  std::size_t far = a;
  double farDistance = 0.0;
  for (std::size_t i = 0; i < mics_.size(); ++i) {
    const double dist = norm(cross(sub(mics_[i], mics_[a]), d));
    if (dist > farDistance) far = i, farDistance = dist;
  }
  if (farDistance < tolerance) {
    if (std::hypot(d[0], d[1]) < 0.1)
      refuse("array \"" + name_ +
             "\": its mics stand on a vertical line, which cannot tell azimuths apart");
    kind_ = Kind::Linear;
    const bool flip = d[0] < -1e-9 || (std::fabs(d[0]) <= 1e-9 && d[1] < 0.0);
    axis_ = flip ? scaled(d, -1.0) : d;
    return;
  }
  Point n = cross(d, sub(mics_[far], mics_[a]));
  n = scaled(n, 1.0 / norm(n));
  for (const Point& m : mics_)
    if (std::fabs(dot(sub(m, mics_[a]), n)) > tolerance) {
      kind_ = Kind::Volumetric;
      return;
    }
  kind_ = Kind::Planar;
  const double up = std::fabs(n[2]) > 1e-9 ? n[2] : std::fabs(n[1]) > 1e-9 ? n[1] : n[0];
  axis_ = up < 0 ? scaled(n, -1.0) : n;
}

double ZRMicArray::aperture() const {
  double widest = 0.0;
  for (std::size_t i = 0; i < mics_.size(); ++i)
    for (std::size_t j = i + 1; j < mics_.size(); ++j)
      widest = std::max(widest, norm(sub(mics_[i], mics_[j])));
  return widest;
}

std::vector<std::string> ZRMicArray::typicalShapes() {
  return {"circular4-r32mm", "circular6-r46mm", "circular8-r50mm", "linear4-d40mm",
          "linear4-d20mm"};
}

ZRMicArray ZRMicArray::shape(const std::string& name) {
  static const std::regex pattern(R"((circular|linear)(\d{1,2})-([rd])(\d+(?:\.\d+)?)mm)");
  std::smatch m;
  if (!std::regex_match(name, m, pattern) || (m[1] == "circular") != (m[3] == "r")) {
    std::string known;
    for (const std::string& s : typicalShapes()) known += (known.empty() ? "" : ", ") + s;
    throw ZRError("ZRMicArray", "shape",
                  "unknown array \"" + name +
                      "\": give a JSON file or a shape circularN-rXmm or linearN-dXmm (" + known +
                      ", ...)");
  }
  const int count = std::stoi(m[2]);
  const double size = std::stod(m[4]) / 1000.0;
  std::vector<Point> mics;
  for (int i = 0; i < count; ++i) {
    if (m[1] == "circular") {
      const double a = 2.0 * kPi * i / count;
      mics.push_back({size * std::cos(a), size * std::sin(a), 0.0});
    } else {
      mics.push_back({size * (i - (count - 1) / 2.0), 0.0, 0.0});
    }
  }
  return ZRMicArray(name, std::move(mics));
}

ZRMicArray ZRMicArray::parse(const std::string& given) {
  const auto first = given.find_first_not_of(" \t\r\n");
  if (first == std::string::npos) refuse("no array given: a JSON file or a shape name");
  if (given[first] == '{') return fromJsonText(given, "the array JSON");
  const bool looksLikeFile = given.find('/') != std::string::npos ||
                             (given.size() > 5 && given.compare(given.size() - 5, 5, ".json") == 0);
  if (!looksLikeFile) return shape(given);
  std::ifstream f(given);
  if (!f) refuse("cannot read the array file " + given);
  std::stringstream text;
  text << f.rdbuf();
  return fromJsonText(text.str(), given);
}

void ZRMicArray::checkFor(int channels, int sampleRate) const {
  if (channels != size())
    throw ZRError("ZRMicArray", "checkFor",
                  "array \"" + name_ + "\" has " + std::to_string(size()) +
                      " mics but the audio device delivers " + std::to_string(channels) +
                      " channel(s): one mic per channel, in channel order");
  const double maxDelay = aperture() / kSpeedOfSound * sampleRate;
  if (maxDelay < 0.5)
    throw ZRError("ZRMicArray", "checkFor",
                  "array \"" + name_ + "\" is too small for " + std::to_string(sampleRate) +
                      " Hz: its widest pair is " + mm(aperture()) +
                      " apart, less than half a sample of delay; it needs at least " +
                      mm(0.5 * kSpeedOfSound / sampleRate) + " at this rate");
}

std::string ZRMicArray::toJson() const {
  nlohmann::ordered_json j;
  j["name"] = name_;
  j["mics"] = nlohmann::ordered_json::array();
  for (const Point& p : mics_) j["mics"].push_back({p[0], p[1], p[2]});
  return j.dump();
}

}  // namespace ZR
