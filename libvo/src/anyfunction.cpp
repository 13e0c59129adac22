#include "vo/anyfunction.h"

namespace vo {

AnyFunction::AnyFunction(const AnyFunction& o)
    : type_(o.type_),
      storage_(o.type_ && o.storage_ ? o.type_->clone(o.storage_) : nullptr),
      object_(o.object_),
      dropFirst_(o.dropFirst_) {}

AnyFunction::AnyFunction(AnyFunction&& o) noexcept
    : type_(o.type_), storage_(o.storage_), object_(o.object_), dropFirst_(o.dropFirst_) {
  o.type_ = nullptr;
  o.storage_ = nullptr;
}

AnyFunction& AnyFunction::operator=(AnyFunction o) noexcept {
  std::swap(type_, o.type_);
  std::swap(storage_, o.storage_);
  std::swap(object_, o.object_);
  std::swap(dropFirst_, o.dropFirst_);
  return *this;
}

AnyFunction::~AnyFunction() {
  if (type_ && storage_) type_->destroy(storage_);
}

std::string AnyFunction::parametersSignature() const {
  if (!type_) return std::string();
  const std::string& s = type_->parametersSignature();
  return dropFirst_ && !s.empty() ? s.substr(1) : s;
}

ZR::ZRValue AnyFunction::call(const ZR::ZRValue* args, std::size_t count) const {
  if (!type_) throw ZR::ZRError("vo", "AnyFunction::call", "this function holds nothing to call");
  const std::string& s = type_->parametersSignature();
  const bool member = !s.empty() && s[0] == sig::Object;
  if (member && !object_)
    throw ZR::ZRError("vo", "AnyFunction::call", "member function called without an object");
  const std::size_t expected = s.size() - (member ? 1 : 0);
  if (count != expected) {
    throw ZR::ZRError(
        "vo", "AnyFunction::call",
        "expected " + std::to_string(expected) + " arguments, got " + std::to_string(count));
  }
  return type_->call(storage_, object_, args);
}

}  // namespace vo
