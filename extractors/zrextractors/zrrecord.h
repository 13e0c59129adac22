#pragma once

#include <initializer_list>
#include <string>
#include <utility>

#include <zrvalue/zrvalue.h>

namespace ZR {

/// The shape of the results stock extractors publish: an array of [field name, value] pairs,
/// e.g. [["time", 1.5], ["rms", [-20.1, -19.8]]]. Tools render it as an object without knowing
/// the extractor; plugin extractors that use it are rendered the same way. The functions below
/// are pure: safe from any thread, they never block.
ZRValue makeRecord(std::initializer_list<std::pair<const char*, ZRValue>> fields);

/// True when `v` has the shape above (possibly empty).
bool isRecord(const ZRValue& v);

/// The value of `field`, or null when the record has none.
const ZRValue* recordField(const ZRValue& record, const std::string& field);

/// An array of floats.
ZRValue floatArray(const float* values, int count);

}  // namespace ZR
