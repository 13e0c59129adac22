#include "zrvalue/zrvalue.h"

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <iomanip>
#include <ostream>
#include <sstream>
#include <utility>

namespace ZR {

namespace {
// An empty binary block still reads as binary: a non-null pointer to nothing.
const unsigned char kEmptyBytes[1] = {0};

const char* kModule = "ZRValue";
}  // namespace

ZRValue::ZRValue(const char* s) {
  if (!s) throw ZRError(kModule, "ZRValue", "cannot build a string value from a null pointer");
  data_ = std::string(s);
}

ZRValue::ZRValue(const std::vector<std::string>& strings) {
  Array a;
  a.reserve(strings.size());
  for (const auto& s : strings) a.emplace_back(s);
  data_ = std::move(a);
}

ZRValue::ZRValue(const void* data, std::size_t byteCount) {
  Binary b;
  b.size = byteCount;
  if (byteCount == 0) {
    b.data = kEmptyBytes;
  } else {
    if (!data)
      throw ZRError(kModule, "ZRValue",
                    "binary block of " + std::to_string(byteCount) + " bytes from a null pointer");
    void* copy = std::malloc(byteCount);
    if (!copy) throw std::bad_alloc();
    std::memcpy(copy, data, byteCount);
    b.owner =
        std::shared_ptr<const void>(copy, [](const void* p) { std::free(const_cast<void*>(p)); });
    b.data = copy;
  }
  data_ = std::move(b);
}

ZRValue::ZRValue(const void* data, std::size_t byteCount, std::shared_ptr<const void> owner) {
  if (!data && byteCount > 0)
    throw ZRError(kModule, "ZRValue",
                  "binary block of " + std::to_string(byteCount) + " bytes from a null pointer");
  Binary b;
  b.owner = std::move(owner);
  b.data = data ? data : kEmptyBytes;
  b.size = byteCount;
  data_ = std::move(b);
}

// Nested arrays are walked with work lists on the heap, not by recursion: a value decoded from a
// hostile message can be nested deeper than any thread's stack.

ZRValue::ZRValue(const ZRValue& other) {
  if (const Array* a = std::get_if<Array>(&other.data_)) {
    copyNested(*a);
  } else {
    data_ = other.data_;
  }
}

ZRValue& ZRValue::operator=(const ZRValue& other) {
  // Through a copy: `other` may be an element of this value, which the assignment destroys.
  if (this != &other) *this = ZRValue(other);
  return *this;
}

ZRValue& ZRValue::operator=(ZRValue&& other) noexcept {
  if (this != &other) {
    // Take `other` out first: it may live inside the content that is about to go (v = v[0]).
    auto taken = std::move(other.data_);
    ZRValue old;
    old.data_ = std::move(data_);
    data_ = std::move(taken);
  }
  return *this;
}

ZRValue::~ZRValue() {
  if (hasNestedArrays()) destroyNested();
}

bool ZRValue::hasNestedArrays() const noexcept {
  const Array* a = std::get_if<Array>(&data_);
  if (!a) return false;
  for (const ZRValue& e : *a) {
    const Array* inner = std::get_if<Array>(&e.data_);
    if (inner && !inner->empty()) return true;
  }
  return false;
}

void ZRValue::destroyNested() noexcept {
  // Each array is emptied of its nested arrays before it goes, so no destructor recurses.
  std::vector<Array> work;
  work.push_back(std::move(std::get<Array>(data_)));
  data_ = std::monostate();
  while (!work.empty()) {
    Array a = std::move(work.back());
    work.pop_back();
    for (ZRValue& e : a) {
      Array* inner = std::get_if<Array>(&e.data_);
      if (inner && !inner->empty()) work.push_back(std::move(*inner));
    }
  }
}

void ZRValue::copyNested(const Array& source) {
  data_ = Array();
  try {
    std::vector<std::pair<const Array*, Array*>> work{{&source, &std::get<Array>(data_)}};
    while (!work.empty()) {
      const auto [from, to] = work.back();
      work.pop_back();
      to->reserve(from->size());  // no reallocation below: the pointers queued into *to hold
      for (const ZRValue& e : *from) {
        if (const Array* inner = std::get_if<Array>(&e.data_)) {
          to->emplace_back();
          to->back().data_ = Array();
          work.emplace_back(inner, &std::get<Array>(to->back().data_));
        } else {
          to->push_back(e);
        }
      }
    }
  } catch (...) {
    destroyNested();
    throw;
  }
}

const char* ZRValue::typeName(Type t) noexcept {
  switch (t) {
    case TypeInvalid:
      return "invalid";
    case TypeBool:
      return "bool";
    case TypeInt:
      return "int";
    case TypeFloat:
      return "float";
    case TypeString:
      return "string";
    case TypeBinary:
      return "binary";
    case TypeArray:
      return "array";
  }
  return "unknown";
}

int ZRValue::getSize() const noexcept {
  switch (getType()) {
    case TypeArray:
      return static_cast<int>(std::get<Array>(data_).size());
    case TypeBinary:
      return static_cast<int>(std::get<Binary>(data_).size);
    case TypeString:
      return static_cast<int>(std::get<std::string>(data_).size());
    default:
      return 0;
  }
}

void ZRValue::outOfRange(const std::string& number) {
  throw ZRError(kModule, "ZRValue", number + " does not fit in a 32-bit int");
}

void ZRValue::conversionError(const char* wanted) const {
  throw ZRError(kModule, std::string("conversion to ") + wanted,
                std::string("cannot convert a value of type ") + getTypeName() + " to " + wanted);
}

ZRValue::Array& ZRValue::array() {
  if (!isArray()) {
    throw ZRError(
        kModule, "operator[]",
        std::string("element access on a value of type ") + getTypeName() + ", not an array");
  }
  return std::get<Array>(data_);
}

const ZRValue::Array& ZRValue::array() const {
  return const_cast<ZRValue*>(this)->array();
}

void ZRValue::arraySetSize(int size) {
  if (size < 0) throw ZRError(kModule, "arraySetSize", "negative size " + std::to_string(size));
  if (!isArray()) data_ = Array();
  std::get<Array>(data_).resize(static_cast<std::size_t>(size));
}

void ZRValue::arrayReserve(int size) {
  if (size < 0) throw ZRError(kModule, "arrayReserve", "negative size " + std::to_string(size));
  if (!isArray()) data_ = Array();
  std::get<Array>(data_).reserve(static_cast<std::size_t>(size));
}

void ZRValue::arrayPush(const ZRValue& element) {
  if (!isArray()) data_ = Array();
  std::get<Array>(data_).push_back(element);
}

void ZRValue::arrayPush(ZRValue&& element) {
  if (!isArray()) data_ = Array();
  std::get<Array>(data_).push_back(std::move(element));
}

ZRValue& ZRValue::operator[](int index) {
  Array& a = array();
  if (index < 0 || static_cast<std::size_t>(index) >= a.size()) {
    throw ZRError(kModule, "operator[]",
                  "index " + std::to_string(index) + " out of range for an array of " +
                      std::to_string(a.size()) + " elements");
  }
  return a[static_cast<std::size_t>(index)];
}

const ZRValue& ZRValue::operator[](int index) const {
  return (*const_cast<ZRValue*>(this))[index];
}

const std::vector<ZRValue>& ZRValue::arrayElements() const {
  return array();
}

const void* ZRValue::GetBinary() const noexcept {
  const Binary* b = std::get_if<Binary>(&data_);
  return b ? b->data : nullptr;
}

std::size_t ZRValue::getBinarySize() const noexcept {
  const Binary* b = std::get_if<Binary>(&data_);
  return b ? b->size : 0;
}

std::shared_ptr<const void> ZRValue::getBinaryOwner() const noexcept {
  const Binary* b = std::get_if<Binary>(&data_);
  return b ? b->owner : nullptr;
}

bool ZRValue::toBool() const {
  if (const bool* b = std::get_if<bool>(&data_)) return *b;
  conversionError("bool");
}

int ZRValue::toInt() const {
  if (const int* i = std::get_if<int>(&data_)) return *i;
  conversionError("int");
}

float ZRValue::toFloat() const {
  if (const float* f = std::get_if<float>(&data_)) return *f;
  if (const int* i = std::get_if<int>(&data_)) return static_cast<float>(*i);
  conversionError("float");
}

const std::string& ZRValue::toStringRef() const {
  if (const std::string* s = std::get_if<std::string>(&data_)) return *s;
  conversionError("string");
}

std::vector<std::string> ZRValue::toStringVector() const {
  if (!isArray()) conversionError("list of strings");
  std::vector<std::string> out;
  const Array& a = std::get<Array>(data_);
  out.reserve(a.size());
  for (const ZRValue& e : a) {
    if (!e.isString()) {
      throw ZRError(kModule, "conversion to list of strings",
                    std::string("the array holds a value of type ") + e.getTypeName());
    }
    out.push_back(std::get<std::string>(e.data_));
  }
  return out;
}

namespace {
void renderScalar(std::ostream& os, const ZRValue& v) {
  switch (v.getType()) {
    case ZRValue::TypeInvalid:
      os << "<invalid>";
      break;
    case ZRValue::TypeBool:
      os << (v.toBool() ? "true" : "false");
      break;
    case ZRValue::TypeInt:
      os << v.toInt();
      break;
    case ZRValue::TypeFloat: {
      std::ostringstream f;
      f << std::setprecision(9) << v.toFloat();
      std::string s = f.str();
      // Keep floats recognisable as floats: 2 prints as 2.0.
      if (std::isfinite(v.toFloat()) && s.find_first_of(".e") == std::string::npos) s += ".0";
      os << s;
      break;
    }
    case ZRValue::TypeString:
      os << std::quoted(v.toStringRef());
      break;
    case ZRValue::TypeBinary:
      os << "<binary " << v.getBinarySize() << " bytes>";
      break;
    case ZRValue::TypeArray:
      break;
  }
}

void render(std::ostream& os, const ZRValue& v) {
  struct Open {
    const std::vector<ZRValue>* elements;
    std::size_t next;
  };
  std::vector<Open> open;
  const ZRValue* current = &v;
  for (;;) {
    if (current) {
      if (current->isArray()) {
        os << '[';
        open.push_back(Open{&current->arrayElements(), 0});
      } else {
        renderScalar(os, *current);
      }
      current = nullptr;
    }
    if (open.empty()) break;
    Open& top = open.back();
    if (top.next == top.elements->size()) {
      os << ']';
      open.pop_back();
      continue;
    }
    if (top.next > 0) os << ", ";
    current = &(*top.elements)[top.next++];
  }
}
}  // namespace

std::string ZRValue::toString() const {
  std::ostringstream os;
  render(os, *this);
  return os.str();
}

bool ZRValue::operator==(const ZRValue& other) const {
  std::vector<std::pair<const ZRValue*, const ZRValue*>> work{{this, &other}};
  while (!work.empty()) {
    const auto [a, b] = work.back();
    work.pop_back();
    if (a->getType() != b->getType()) return false;
    bool same = true;
    switch (a->getType()) {
      case TypeInvalid:
        break;
      case TypeBool:
        same = std::get<bool>(a->data_) == std::get<bool>(b->data_);
        break;
      case TypeInt:
        same = std::get<int>(a->data_) == std::get<int>(b->data_);
        break;
      case TypeFloat:
        same = std::get<float>(a->data_) == std::get<float>(b->data_);
        break;
      case TypeString:
        same = std::get<std::string>(a->data_) == std::get<std::string>(b->data_);
        break;
      case TypeBinary: {
        const Binary& x = std::get<Binary>(a->data_);
        const Binary& y = std::get<Binary>(b->data_);
        same = x.size == y.size && (x.data == y.data || std::memcmp(x.data, y.data, x.size) == 0);
        break;
      }
      case TypeArray: {
        const Array& x = std::get<Array>(a->data_);
        const Array& y = std::get<Array>(b->data_);
        same = x.size() == y.size();
        for (std::size_t i = 0; same && i < x.size(); ++i) work.emplace_back(&x[i], &y[i]);
        break;
      }
    }
    if (!same) return false;
  }
  return true;
}

std::ostream& operator<<(std::ostream& os, const ZRValue& v) {
  render(os, v);
  return os;
}

}  // namespace ZR
