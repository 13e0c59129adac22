#pragma once

// The bridge's page, compiled in from tools/zr/bridge/page/ (the build generates the data).

#include <map>
#include <string>
#include <utility>

namespace zr::bridge {

/// Each file of the page by name: its content type and its bytes.
std::map<std::string, std::pair<std::string, std::string>> pageFiles();

}  // namespace zr::bridge
