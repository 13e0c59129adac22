#pragma once

#include <vo/anyfunction.h>
#include <vo/dynamicobject.h>
#include <vo/metamethod.h>

namespace vo {

/// Publishes methods on a DynamicObject.
///
/// Contract: used by the object's constructor only, on its thread, like the object it fills;
/// never blocks.
class DynamicObjectBuilder {
 public:
  explicit DynamicObjectBuilder(DynamicObject* object) : object_(object) {}

  /// Binds `member` to `object` and publishes it under what `builder` describes, with the
  /// signature derived from the member. Returns the method's identifier. A virtual member reaches
  /// the most derived override of `object`.
  template <class O, class M>
  unsigned int advertiseMethod(MetaMethodBuilder& builder, O* object, M member, int callType = 0) {
    AnyFunction f = detail::makeAnyFunctionBare(member);
    f.prependArgument(detail::objectFor(object, member)).dropFirstArgument();
    builder.setSignature(f);
    return xAdvertiseMethod(builder, f, callType);
  }

  /// Publishes an already bound function under what `builder` describes.
  unsigned int xAdvertiseMethod(MetaMethodBuilder& builder, const AnyFunction& function,
                                int callType = 0) {
    return object_->addMethod(builder.metaMethod(), function, callType);
  }

  DynamicObject* object() const { return object_; }

 private:
  DynamicObject* object_;
};

}  // namespace vo
