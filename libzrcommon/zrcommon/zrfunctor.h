#pragma once

#include <boost/shared_ptr.hpp>

#include <vo/anyfunction.h>
#include <zrvalue/zrvalue.h>

namespace ZR {

/// A member function bound with its object, for the module core's method table
/// (ZRModuleCore::bindMethodOverload). All knowledge of parameter and result types lives in the
/// bound vo::AnyFunction; the functor does no unpacking of its own.
///
/// Contract: immutable once built; any thread may hold, copy the reference to or drop a functor
/// (the shared pointer's counts are atomic). It must not outlive the object it binds. Nothing
/// blocks; call only logs.
class ZRFunctorBase {
 public:
  explicit ZRFunctorBase(vo::AnyFunction function);
  /// The packed-argument entry. Deliberately not implemented: a bound method is reached through
  /// its bound function only. Logs one error record and leaves `result` alone.
  virtual void call(const ZRValue& params, ZRValue& result);
  virtual ~ZRFunctorBase();

  const vo::AnyFunction& function() const { return function_; }

 private:
  vo::AnyFunction function_;
};

namespace detail {
template <class...>
struct TypeList {};
// Splits <P1, ..., Pn, R> into the member type R (C::*)(const P1&, ..., const Pn&).
template <class C, class Acc, class... Ts>
struct SplitLast;
template <class C, class... Acc, class R>
struct SplitLast<C, TypeList<Acc...>, R> {
  using type = R (C::*)(const Acc&...);
};
template <class C, class... Acc, class T, class U, class... Rest>
struct SplitLast<C, TypeList<Acc...>, T, U, Rest...>
    : SplitLast<C, TypeList<Acc..., T>, U, Rest...> {};
}  // namespace detail

/// createFunctor<Class, Param..., Result>(object, &Class::member): binds `member` (parameters by
/// const reference, result by value) to `object`. Naming the types picks one overload of an
/// overloaded member. A virtual member reaches the most derived override of `object`.
template <class C, class... Ts>
boost::shared_ptr<ZRFunctorBase> createFunctor(
    C* object, typename detail::SplitLast<C, detail::TypeList<>, Ts...>::type member) {
  vo::AnyFunction f = vo::detail::makeAnyFunctionBare(member);
  f.prependArgument(vo::detail::objectFor(object, member)).dropFirstArgument();
  return boost::shared_ptr<ZRFunctorBase>(new ZRFunctorBase(f));
}

}  // namespace ZR
