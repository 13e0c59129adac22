#pragma once

#include <string>
#include <vector>

namespace ZR {

struct ZRMethodParameter {
  std::string name;
  std::string documentation;
};

/// A registered method with its documentation, as the module core keeps it. Plain data: a copy,
/// safe to keep and read from any thread.
struct ZRMethodDescription {
  std::string methodName;
  /// The class that documents the method (not necessarily the module's own name).
  std::string moduleName;
  std::string description;
  int flags = 0;
  std::vector<ZRMethodParameter> parameters;
  /// Both empty when the method returns nothing.
  std::string returnName;
  std::string returnDocumentation;
  /// "name(string, int, float) -> void"
  std::string signature;
};

}  // namespace ZR
