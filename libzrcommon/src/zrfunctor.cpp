#include "zrcommon/zrfunctor.h"

#include <vo/log.h>

namespace ZR {

ZRFunctorBase::ZRFunctorBase(vo::AnyFunction function) : function_(function) {}

ZRFunctorBase::~ZRFunctorBase() = default;

void ZRFunctorBase::call(const ZRValue& /*params*/, ZRValue& /*result*/) {
  vo::log::LogStream(vo::LogLevel_Error, "", "call", "zrcommon.ZRFunctor", 0)
      << "ZRFunctor::call not implemented" << std::endl;
}

}  // namespace ZR
