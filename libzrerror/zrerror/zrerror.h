#pragma once

#include <exception>
#include <string>

namespace ZR {

/// The one exception type of the platform: who failed (module), doing what (method or
/// operation), why (description), and where in the source (file, may be empty, and line).
/// Thrown by value, caught by const reference.
///
/// Contract: immutable once built, so any number of threads may read one error at once (a
/// future hands the same error to every waiter). Nothing blocks.
class ZRError : public std::exception {
 public:
  ZRError();
  /// `fileName` may be null: many errors have no source location worth reporting.
  ZRError(const std::string& moduleName, const std::string& methodName,
          const std::string& description, const char* fileName = nullptr, int lineNumber = 0);
  ZRError(const std::string& moduleName, const std::string& methodName,
          const std::string& description, const std::string& fileName, int lineNumber);

  const std::string& getModuleName() const noexcept { return moduleName_; }
  const std::string& getMethodName() const noexcept { return methodName_; }
  const std::string& getDescription() const noexcept { return description_; }
  const std::string& getFileName() const noexcept { return fileName_; }
  int getLineNumber() const noexcept { return lineNumber_; }

  /// One line: "module::method: description (file:line)".
  const char* what() const noexcept override { return text_.c_str(); }

 private:
  void compose();

  std::string moduleName_;
  std::string methodName_;
  std::string description_;
  std::string fileName_;
  int lineNumber_ = 0;
  std::string text_;
};

}  // namespace ZR
