#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <vo/anyfunction.h>
#include <vo/metamethod.h>

namespace vo {

/// An object whose methods are published at run time and called by name. Overloads of one name
/// are told apart by their arguments.
///
/// Contract: methods are added (addMethod) on the building thread, before the object is sealed
/// and reachable; after that the table is only read, so metaCall, metaMethods and hasMethod may
/// run on any number of threads at once without a lock. A call runs on the caller's thread and
/// blocks it for as long as the method runs.
class DynamicObject {
 public:
  DynamicObject();
  virtual ~DynamicObject();
  DynamicObject(const DynamicObject&) = delete;
  DynamicObject& operator=(const DynamicObject&) = delete;

  /// Adds a method under meta.name; returns its identifier. `function` must take exactly the
  /// parameters meta.parametersSignature lists.
  unsigned int addMethod(const MetaMethod& meta, AnyFunction function, int callType = 0);

  /// Calls `name` with `args`: the overload whose parameters the arguments fill best. Throws
  /// ZRError naming the method and its signatures when none fits, and passes on what the method
  /// throws.
  ZR::ZRValue metaCall(std::string_view name, const ZR::ZRValue* args, std::size_t count) const;

  /// The binary argument whose content starts at `data` among the arguments of the calls that
  /// this thread is running through metaCall, innermost first; null when there is none. Lets a
  /// method that is handed a bare pointer (decoded sound, say) learn how many bytes lie behind it.
  static const ZR::ZRValue* findCallBinary(const void* data);

  /// The published methods in the order they were added.
  std::vector<MetaMethod> metaMethods() const;
  bool hasMethod(std::string_view name) const;
  /// No more methods from now on: called once the object can be reached, since calls read the
  /// table without a lock.
  void seal() { sealed_.store(true); }
  bool isSealed() const { return sealed_.load(); }
  /// The name used in errors about this object's calls.
  virtual std::string objectName() const { return "DynamicObject"; }

 private:
  struct Method {
    MetaMethod meta;
    AnyFunction function;
    int callType;
  };
  const Method* select(std::string_view name, const ZR::ZRValue* args, std::size_t count) const;

  std::atomic<bool> sealed_{false};
  std::vector<std::unique_ptr<Method>> methods_;
  // Keys view the names inside methods_, which never move.
  std::unordered_map<std::string_view, std::vector<const Method*>> byName_;
};

}  // namespace vo
