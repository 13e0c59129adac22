// --array: read and checked before anything starts, so that a wrong file is a usage error and not
// a failed run.

#include "arrayoption.h"

#include <zrerror/zrerror.h>
#include <zrextractors/micarray.h>

namespace zr {

CLI::Option* defineArrayOption(CLI::App* cmd, std::string& given) {
  return cmd->add_option("--array", given,
                         "Microphone array for SoundLocalization: FILE.json ({\"name\": ..., "
                         "\"mics\": [[x, y, z], ...]} in metres, one per channel) or a shape "
                         "such as circular4-r32mm, circular6-r46mm, linear4-d40mm.");
}

std::string checkedArray(const std::string& given, const ZR::ZRExtractorRegistry& registry,
                         const std::vector<std::string>& extractors) {
  ZR::ZRMicArray array;
  try {
    array = ZR::ZRMicArray::parse(given);
  } catch (const ZR::ZRError& e) {
    throw CLI::ValidationError("--array", e.getDescription());
  }
  for (const std::string& e : extractors)
    if (registry.accepts(e, "array")) return array.toJson();
  std::string takers;
  for (const auto& e : registry.entries())
    if (e.options.count("array")) takers += (takers.empty() ? "" : ", ") + e.typeName;
  throw CLI::ValidationError("--array", "none of the extractors run takes an array (" + takers +
                                            " does: add -e " + takers.substr(0, takers.find(',')) +
                                            ")");
}

}  // namespace zr
