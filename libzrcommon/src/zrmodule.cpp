#include "zrcommon/zrmodule.h"

namespace ZR {

ZRModule::ZRModule(boost::shared_ptr<ZRBroker> broker, const std::string& name)
    : ZRModuleCore(broker, name) {}

ZRModule::~ZRModule() = default;

void ZRModule::exit() {
  if (boost::shared_ptr<ZRBroker> broker = getParentBroker()) broker->removeModule(getName());
}

}  // namespace ZR
