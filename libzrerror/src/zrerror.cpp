#include "zrerror/zrerror.h"

namespace ZR {

ZRError::ZRError() {
  compose();
}

ZRError::ZRError(const std::string& moduleName, const std::string& methodName,
                 const std::string& description, const char* fileName, int lineNumber)
    : moduleName_(moduleName),
      methodName_(methodName),
      description_(description),
      fileName_(fileName ? fileName : ""),
      lineNumber_(lineNumber) {
  compose();
}

ZRError::ZRError(const std::string& moduleName, const std::string& methodName,
                 const std::string& description, const std::string& fileName, int lineNumber)
    : moduleName_(moduleName),
      methodName_(methodName),
      description_(description),
      fileName_(fileName),
      lineNumber_(lineNumber) {
  compose();
}

void ZRError::compose() {
  // Operation fields often already end in ": " (the explanation is the operation and the
  // description the offending value); don't double the separator then.
  std::string& t = text_;
  t.clear();
  t += moduleName_;
  if (!moduleName_.empty() && !methodName_.empty()) t += "::";
  t += methodName_;
  if (!description_.empty()) {
    if (!t.empty()) {
      const bool endsWithColon = (t.size() >= 1 && t.back() == ':') ||
                                 (t.size() >= 2 && t.compare(t.size() - 2, 2, ": ") == 0);
      if (!endsWithColon)
        t += ": ";
      else if (t.back() == ':')
        t += ' ';
    }
    t += description_;
  }
  if (!fileName_.empty()) {
    t += " (";
    t += fileName_;
    t += ':';
    t += std::to_string(lineNumber_);
    t += ')';
  }
  if (t.empty()) t = "unknown error";
}

}  // namespace ZR
