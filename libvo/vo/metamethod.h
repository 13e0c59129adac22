#pragma once

#include <string>
#include <vector>

#include <vo/anyfunction.h>

namespace vo {

struct MetaMethodParameter {
  std::string name;
  std::string description;
};

/// A method as the framework publishes it: its name and documentation, the class that declares
/// it, and its signature (caller-visible parameter codes and result code). Plain data: copies
/// are independent.
struct MetaMethod {
  unsigned int uid = 0;
  std::string name;
  std::string className;
  std::string description;
  int flags = 0;
  std::vector<MetaMethodParameter> parameters;
  std::string returnName;
  std::string returnDescription;
  std::string parametersSignature;
  char returnSignature = sig::Void;

  /// "name(string, int, float) -> void"
  std::string readableSignature() const;
};

/// Fills a MetaMethod step by step; reset() starts a new one.
///
/// Contract: not thread-safe; one builder per object under construction, used on its thread.
/// Never blocks.
class MetaMethodBuilder {
 public:
  void reset() { method_ = MetaMethod(); }
  void setName(const std::string& name) { method_.name = name; }
  void setClassName(const std::string& className) { method_.className = className; }
  void setDescription(const std::string& description) { method_.description = description; }
  void setFlags(int flags) { method_.flags = flags; }
  void addParameter(const std::string& name, const std::string& description) {
    method_.parameters.push_back(MetaMethodParameter{name, description});
  }
  void setReturnDescription(const std::string& name, const std::string& description) {
    method_.returnName = name;
    method_.returnDescription = description;
  }
  /// Records the caller-visible parameter and result signature of `function`.
  void setSignature(const AnyFunction& function) {
    method_.parametersSignature = function.parametersSignature();
    method_.returnSignature = function.resultSignature();
  }
  const MetaMethod& metaMethod() const { return method_; }

 private:
  MetaMethod method_;
};

}  // namespace vo
