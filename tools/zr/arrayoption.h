#pragma once

// --array of zr run and zr host: the microphone array handed to the extractors that take one.

#include <string>
#include <vector>

#include <zrextractors/zrextractorregistry.h>
#include <CLI/CLI.hpp>

namespace zr {

/// Adds --array to `cmd`, stored in `given`.
CLI::Option* defineArrayOption(CLI::App* cmd, std::string& given);

/// The array `given` names, checked, as JSON for the "array" option: CLI::ValidationError when it
/// cannot be read or cannot work, or when none of `extractors` takes an array.
std::string checkedArray(const std::string& given, const ZR::ZRExtractorRegistry& registry,
                         const std::vector<std::string>& extractors);

}  // namespace zr
