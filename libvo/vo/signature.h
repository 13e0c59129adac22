#pragma once

// What the framework knows of C++ types: each type a method may take or return has a signature
// code, a way to read it out of a ZRValue argument and a way to turn it into a ZRValue result.

#include <string>
#include <type_traits>
#include <vector>

#include <zrerror/zrerror.h>
#include <zrvalue/zrvalue.h>

namespace vo {

/// Signature codes: 'v' void, 'b' bool, 'i' int, 'f' float, 's' string, 'm' ZRValue (any value),
/// 'l' list of strings, 'o' the object a member function is called on.
namespace sig {
constexpr char Void = 'v';
constexpr char Bool = 'b';
constexpr char Int = 'i';
constexpr char Float = 'f';
constexpr char String = 's';
constexpr char Value = 'm';
constexpr char StringList = 'l';
constexpr char Object = 'o';

/// A readable name for a code: "int", "string", "ZRValue", ...
const char* typeName(char code);
/// "(string, int, float)" for "sif".
std::string readableParameters(const std::string& codes);
/// The code of the value an argument carries: 'b', 'i', 'f', 's', 'm' (binary, invalid) or 'l'
/// (an array of strings); other arrays are 'm'.
char codeOf(const ZR::ZRValue& v);
/// How well an argument fills a parameter: 2 exact, 1 by conversion (int to float, anything to
/// ZRValue), 0 not at all.
int matchScore(char parameter, const ZR::ZRValue& argument);
}  // namespace sig

template <class T, class Enable = void>
struct TypeTraits;  // Left undefined: a type the framework does not know fails to compile.

template <>
struct TypeTraits<void> {
  static constexpr char code = sig::Void;
};
template <>
struct TypeTraits<bool> {
  static constexpr char code = sig::Bool;
  static bool get(const ZR::ZRValue& v) { return v.toBool(); }
  static ZR::ZRValue toValue(bool b) { return ZR::ZRValue(b); }
};
template <>
struct TypeTraits<int> {
  static constexpr char code = sig::Int;
  static int get(const ZR::ZRValue& v) { return v.toInt(); }
  static ZR::ZRValue toValue(int i) { return ZR::ZRValue(i); }
};
template <>
struct TypeTraits<float> {
  static constexpr char code = sig::Float;
  static float get(const ZR::ZRValue& v) { return v.toFloat(); }
  static ZR::ZRValue toValue(float f) { return ZR::ZRValue(f); }
};
template <>
struct TypeTraits<std::string> {
  static constexpr char code = sig::String;
  // The string inside the argument itself: no copy.
  static const std::string& get(const ZR::ZRValue& v) { return v.toStringRef(); }
  static ZR::ZRValue toValue(const std::string& s) { return ZR::ZRValue(s); }
  static ZR::ZRValue toValue(std::string&& s) { return ZR::ZRValue(std::move(s)); }
};
template <>
struct TypeTraits<ZR::ZRValue> {
  static constexpr char code = sig::Value;
  static const ZR::ZRValue& get(const ZR::ZRValue& v) { return v; }
  static const ZR::ZRValue& toValue(const ZR::ZRValue& v) { return v; }
  static ZR::ZRValue toValue(ZR::ZRValue&& v) { return std::move(v); }
};
template <>
struct TypeTraits<std::vector<std::string>> {
  static constexpr char code = sig::StringList;
  static std::vector<std::string> get(const ZR::ZRValue& v) { return v.toStringVector(); }
  static ZR::ZRValue toValue(const std::vector<std::string>& l) { return ZR::ZRValue(l); }
};

/// The parameter codes of a list of types, e.g. "sif".
template <class... Args>
std::string parameterCodes() {
  return std::string{TypeTraits<std::decay_t<Args>>::code...};
}

/// How a caller's argument travels: string literals as strings, doubles as floats, other
/// integers checked into 32 bits.
template <class T, class Enable = void>
struct ArgumentTraits {
  static decltype(auto) toValue(const T& v) { return TypeTraits<T>::toValue(v); }
};
template <std::size_t N>
struct ArgumentTraits<char[N]> {
  static ZR::ZRValue toValue(const char* s) { return ZR::ZRValue(s); }
};
template <>
struct ArgumentTraits<const char*> {
  static ZR::ZRValue toValue(const char* s) { return ZR::ZRValue(s); }
};
template <>
struct ArgumentTraits<char*> {
  static ZR::ZRValue toValue(const char* s) { return ZR::ZRValue(s); }
};
template <>
struct ArgumentTraits<double> {
  static ZR::ZRValue toValue(double d) { return ZR::ZRValue(d); }
};
template <class T>
struct ArgumentTraits<T, std::enable_if_t<std::is_integral_v<T> && !std::is_same_v<T, bool> &&
                                          !std::is_same_v<T, int>>> {
  static ZR::ZRValue toValue(T i) { return ZR::ZRValue(i); }
};

template <class T>
ZR::ZRValue toArgument(const T& v) {
  return ZR::ZRValue(ArgumentTraits<std::remove_cv_t<T>>::toValue(v));
}

}  // namespace vo
