#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <limits>
#include <memory>
#include <string>
#include <type_traits>
#include <variant>
#include <vector>

#include <zrerror/zrerror.h>

namespace ZR {

/// The variant value passed in every call: nothing (invalid), a bool, a 32-bit int, a 32-bit
/// float, a string, a binary block, or an array of values.
///
/// Arrays and strings copy deeply. A binary block is immutable shared storage: copying a value
/// that holds one costs a reference count, and GetBinary() on the copy returns the same pointer.
/// A value can also wrap bytes that someone else owns (a device buffer, a received message)
/// through a shared owner that keeps them alive, without any copy.
///
/// Contract: one value is not thread-safe; give each thread its own copy, or only read it from
/// several (const members may run concurrently, any non-const member excludes every other call).
/// Copies are independent, and share only the immutable binary bytes, whose owner count is
/// atomic. Nothing blocks. Assigning a value from one of its own elements (`v = v[0]`) is safe,
/// and copying, comparing, printing and destroying walk nested arrays without recursion, so a
/// hostile depth (arrays of arrays 100 000 deep) costs heap, never the stack.
class ZRValue {
 public:
  enum Type { TypeInvalid, TypeBool, TypeInt, TypeFloat, TypeString, TypeBinary, TypeArray };

  ZRValue() noexcept = default;
  ZRValue(bool b) : data_(b) {}
  ZRValue(int i) : data_(i) {}
  ZRValue(float f) : data_(f) {}
  ZRValue(double d) : data_(static_cast<float>(d)) {}
  ZRValue(const char* s);
  ZRValue(const std::string& s) : data_(s) {}
  ZRValue(std::string&& s) : data_(std::move(s)) {}
  /// Any other integer type; throws ZRError when it does not fit in 32 bits.
  template <class T, std::enable_if_t<std::is_integral_v<T> && !std::is_same_v<T, bool> &&
                                          !std::is_same_v<T, int> && !std::is_same_v<T, char>,
                                      int> = 0>
  ZRValue(T i) : data_(checkedInt(i)) {}
  /// An array of strings.
  ZRValue(const std::vector<std::string>& strings);
  /// A binary block: copies `byteCount` bytes once into shared immutable storage.
  ZRValue(const void* data, std::size_t byteCount);
  /// A binary block over bytes kept alive by `owner`: no copy. The bytes must not change while
  /// any value refers to them.
  ZRValue(const void* data, std::size_t byteCount, std::shared_ptr<const void> owner);

  ZRValue(const ZRValue& other);
  ZRValue(ZRValue&&) noexcept = default;
  ZRValue& operator=(const ZRValue& other);
  ZRValue& operator=(ZRValue&& other) noexcept;
  ~ZRValue();

  Type getType() const noexcept { return static_cast<Type>(data_.index()); }
  static const char* typeName(Type t) noexcept;
  const char* getTypeName() const noexcept { return typeName(getType()); }

  bool isValid() const noexcept { return getType() != TypeInvalid; }
  bool isBool() const noexcept { return getType() == TypeBool; }
  bool isInt() const noexcept { return getType() == TypeInt; }
  bool isFloat() const noexcept { return getType() == TypeFloat; }
  bool isString() const noexcept { return getType() == TypeString; }
  bool isBinary() const noexcept { return getType() == TypeBinary; }
  bool isArray() const noexcept { return getType() == TypeArray; }

  /// Elements of an array, bytes of a binary block, characters of a string; 0 otherwise.
  int getSize() const noexcept;

  // Arrays. arraySetSize and arrayReserve turn any value into an array (keeping the elements of
  // one that already is); arrayPush appends a deep copy.
  void arraySetSize(int size);
  void arrayReserve(int size);
  void arrayPush(const ZRValue& element);
  void arrayPush(ZRValue&& element);
  /// Element access; throws ZRError when the value is no array or the index is out of range.
  ZRValue& operator[](int index);
  const ZRValue& operator[](int index) const;
  const std::vector<ZRValue>& arrayElements() const;

  /// The binary content, or null when the value holds no binary block.
  const void* GetBinary() const noexcept;
  std::size_t getBinarySize() const noexcept;
  /// The owner of the binary content (null when none): lets another value share it.
  std::shared_ptr<const void> getBinaryOwner() const noexcept;

  // Checked conversions: throw ZRError naming the wanted and the actual type. An int reads as a
  // float; nothing else converts.
  bool toBool() const;
  int toInt() const;
  float toFloat() const;
  const std::string& toStringRef() const;
  std::vector<std::string> toStringVector() const;

  operator bool() const { return toBool(); }
  operator int() const { return toInt(); }
  operator float() const { return toFloat(); }
  operator std::string() const { return toStringRef(); }

  /// A readable rendering: 42, 0.5, "text", true, <binary 3200 bytes>, [1, "a"], <invalid>.
  std::string toString() const;

  bool operator==(const ZRValue& other) const;
  bool operator!=(const ZRValue& other) const { return !(*this == other); }
  // Comparisons against plain values compare as values, instead of being ambiguous between
  // converting the value and converting the argument.
  template <class T, std::enable_if_t<!std::is_same_v<std::decay_t<T>, ZRValue>, int> = 0>
  bool operator==(const T& other) const {
    return *this == ZRValue(other);
  }
  template <class T, std::enable_if_t<!std::is_same_v<std::decay_t<T>, ZRValue>, int> = 0>
  bool operator!=(const T& other) const {
    return !(*this == ZRValue(other));
  }

 private:
  struct Binary {
    std::shared_ptr<const void> owner;
    const void* data = nullptr;
    std::size_t size = 0;
  };
  using Array = std::vector<ZRValue>;

  template <class T>
  static int checkedInt(T i) {
    if constexpr (std::is_signed_v<T>) {
      if (static_cast<long long>(i) < std::numeric_limits<int>::min() ||
          static_cast<long long>(i) > std::numeric_limits<int>::max())
        outOfRange(std::to_string(i));
    } else {
      if (static_cast<unsigned long long>(i) >
          static_cast<unsigned long long>(std::numeric_limits<int>::max()))
        outOfRange(std::to_string(i));
    }
    return static_cast<int>(i);
  }
  [[noreturn]] static void outOfRange(const std::string& number);
  [[noreturn]] void conversionError(const char* wanted) const;
  Array& array();
  const Array& array() const;
  // Whether some element is itself a non-empty array: only then do copy and destruction need
  // their own work list instead of the plain recursive ones.
  bool hasNestedArrays() const noexcept;
  void destroyNested() noexcept;
  void copyNested(const Array& source);

  std::variant<std::monostate, bool, int, float, std::string, Binary, Array> data_;
};

std::ostream& operator<<(std::ostream& os, const ZRValue& v);

/// The values as a vector, each copied once or moved: a braced list would copy an array or a
/// string twice, once into the list and once out of it.
template <class... T>
std::vector<ZRValue> zrValues(T&&... values) {
  std::vector<ZRValue> out;
  out.reserve(sizeof...(values));
  (out.emplace_back(std::forward<T>(values)), ...);
  return out;
}

}  // namespace ZR
