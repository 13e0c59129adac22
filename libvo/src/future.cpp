#include "vo/future.h"

namespace vo {
namespace detail {

std::string describeException(const std::exception_ptr& e) {
  if (!e) return std::string();
  try {
    std::rethrow_exception(e);
  } catch (const std::exception& ex) {
    return ex.what();
  } catch (...) {
    return "unknown exception";
  }
}

}  // namespace detail
}  // namespace vo
