#pragma once

// A type-erased callable: a function type that knows the parameter and result types and how to
// call, plus storage for what is called (a member function pointer, a functor).

#include <cstddef>
#include <functional>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>

#include <vo/signature.h>

namespace vo {

/// Everything the framework knows of one C++ function type. One instance per type, never freed.
///
/// Contract: stateless after construction; any thread may use an instance at any time.
class FunctionTypeInterface {
 public:
  virtual ~FunctionTypeInterface() = default;
  /// Calls what `storage` holds with `object` as its leading argument (null for functions that
  /// take none) and `args` as the rest. Arguments have been checked against the signature.
  virtual ZR::ZRValue call(const void* storage, void* object, const ZR::ZRValue* args) const = 0;
  virtual void* clone(const void* storage) const = 0;
  virtual void destroy(void* storage) const = 0;
  /// Parameter codes, the object's 'o' first for member functions.
  virtual const std::string& parametersSignature() const = 0;
  virtual char resultSignature() const = 0;
};

/// The framework's callable. Copying copies the storage through its function type and
/// destroying releases it there; a default-constructed one has no type and holds nothing.
///
/// Contract: a value type. Binding (prependArgument, dropFirstArgument) and assignment belong to
/// whoever builds it; once built, call and the signature getters are const and may run on any
/// number of threads at once. A call blocks for as long as the called function runs.
class AnyFunction {
 public:
  AnyFunction() noexcept = default;
  AnyFunction(const FunctionTypeInterface* type, void* storage) noexcept
      : type_(type), storage_(storage) {}
  AnyFunction(const AnyFunction& o);
  AnyFunction(AnyFunction&& o) noexcept;
  AnyFunction& operator=(AnyFunction o) noexcept;
  ~AnyFunction();

  const FunctionTypeInterface* functionType() const noexcept { return type_; }
  bool isValid() const noexcept { return type_ != nullptr; }

  /// Binds `object` as the first argument of every call.
  AnyFunction& prependArgument(void* object) noexcept {
    object_ = object;
    return *this;
  }
  /// The leading argument is no longer the caller's to give: calls pass only the remaining
  /// arguments, and the signature no longer shows it. With prependArgument, this turns a bare
  /// member function into a method of the bound object.
  AnyFunction& dropFirstArgument() noexcept {
    dropFirst_ = true;
    return *this;
  }
  void* boundObject() const noexcept { return object_; }

  /// The caller-visible parameter codes, e.g. "sif".
  std::string parametersSignature() const;
  char resultSignature() const { return type_ ? type_->resultSignature() : sig::Void; }

  /// Calls with `count` arguments already matched against parametersSignature().
  ZR::ZRValue call(const ZR::ZRValue* args, std::size_t count) const;

 private:
  const FunctionTypeInterface* type_ = nullptr;
  void* storage_ = nullptr;
  void* object_ = nullptr;
  bool dropFirst_ = false;
};

namespace detail {

template <class R, class F, class... Args, std::size_t... I>
ZR::ZRValue invokeAndWrap(F&& f, const ZR::ZRValue* args, std::index_sequence<I...>) {
  if constexpr (std::is_void_v<R>) {
    f(TypeTraits<std::decay_t<Args>>::get(args[I])...);
    return ZR::ZRValue();
  } else {
    return ZR::ZRValue(
        TypeTraits<std::decay_t<R>>::toValue(f(TypeTraits<std::decay_t<Args>>::get(args[I])...)));
  }
}

template <class Stored>
struct StorageOps {
  static void* clone(const void* s) { return new Stored(*static_cast<const Stored*>(s)); }
  static void destroy(void* s) { delete static_cast<Stored*>(s); }
};

template <class C, class M, class R, class... Args>
class MemberFunctionType final : public FunctionTypeInterface {
 public:
  static const MemberFunctionType* instance() {
    static const MemberFunctionType* t = new MemberFunctionType;  // lives for the process
    return t;
  }
  ZR::ZRValue call(const void* storage, void* object, const ZR::ZRValue* args) const override {
    C* obj = static_cast<C*>(object);
    M member = *static_cast<const M*>(storage);
    return invokeAndWrap<R, decltype(memberCaller(obj, member)), Args...>(
        memberCaller(obj, member), args, std::index_sequence_for<Args...>{});
  }
  void* clone(const void* s) const override { return StorageOps<M>::clone(s); }
  void destroy(void* s) const override { StorageOps<M>::destroy(s); }
  const std::string& parametersSignature() const override { return signature_; }
  char resultSignature() const override { return TypeTraits<std::decay_t<R>>::code; }

 private:
  static auto memberCaller(C* obj, M member) {
    return [obj, member](const auto&... a) -> R { return (obj->*member)(a...); };
  }
  std::string signature_ = std::string(1, sig::Object) + parameterCodes<Args...>();
};

template <class F, class R, class... Args>
class FunctorType final : public FunctionTypeInterface {
 public:
  static const FunctorType* instance() {
    static const FunctorType* t = new FunctorType;
    return t;
  }
  ZR::ZRValue call(const void* storage, void*, const ZR::ZRValue* args) const override {
    const F& f = *static_cast<const F*>(storage);
    return invokeAndWrap<R, const F&, Args...>(f, args, std::index_sequence_for<Args...>{});
  }
  void* clone(const void* s) const override { return StorageOps<F>::clone(s); }
  void destroy(void* s) const override { StorageOps<F>::destroy(s); }
  const std::string& parametersSignature() const override { return signature_; }
  char resultSignature() const override { return TypeTraits<std::decay_t<R>>::code; }

 private:
  std::string signature_ = parameterCodes<Args...>();
};

/// A function whose type knows the member's parameters, its result and a leading parameter for
/// the object; calling it calls the member on that object (through the virtual table when the
/// member is virtual).
template <class C, class R, class... Args>
AnyFunction makeAnyFunctionBare(R (C::*member)(Args...)) {
  using M = R (C::*)(Args...);
  return AnyFunction(MemberFunctionType<C, M, R, Args...>::instance(), new M(member));
}
template <class C, class R, class... Args>
AnyFunction makeAnyFunctionBare(R (C::*member)(Args...) const) {
  using M = R (C::*)(Args...) const;
  return AnyFunction(MemberFunctionType<const C, M, R, Args...>::instance(), new M(member));
}

/// The object pointer as the member's own class sees it (matters with multiple bases).
template <class O, class C, class R, class... Args>
void* objectFor(O* object, R (C::*)(Args...)) {
  return static_cast<void*>(static_cast<C*>(object));
}
template <class O, class C, class R, class... Args>
void* objectFor(O* object, R (C::*)(Args...) const) {
  return const_cast<void*>(static_cast<const void*>(static_cast<const C*>(object)));
}

}  // namespace detail

/// A function from any callable with a plain signature, e.g. a lambda for a test module.
template <class R, class... Args>
AnyFunction makeAnyFunction(std::function<R(Args...)> f) {
  using F = std::function<R(Args...)>;
  return AnyFunction(detail::FunctorType<F, R, Args...>::instance(), new F(std::move(f)));
}

}  // namespace vo
