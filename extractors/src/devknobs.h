#pragma once
// TEMPORARY tuning knobs (not to be committed).
#include <cstdlib>
#include <string>
namespace ZR {
inline double knob(const char* name, double fallback) {
  const char* v = std::getenv(name);
  return v ? std::atof(v) : fallback;
}
}  // namespace ZR
