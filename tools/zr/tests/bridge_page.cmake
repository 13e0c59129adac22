# The bridge's page in headless Chromium over a real host: bridge_page_test.cpp starts the host
# and runs bridge_page.cjs with node, which drives Debian's chromium through the DevTools
# protocol with the ws package of the build tree's npm folder (installed by setup.sh).
zr_add_test(zr_bridge_page_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/bridge_page_test.cpp
  DEPS nlohmann_json::nlohmann_json PROCESSORS 2)
add_dependencies(zr_bridge_page_test zr)
target_compile_definitions(zr_bridge_page_test PRIVATE
  ZR_BINARY="$<TARGET_FILE:zr>"
  ZR_NPM="${CMAKE_BINARY_DIR}/npm"
  ZR_BRIDGE_PAGE_SCRIPT="${CMAKE_CURRENT_LIST_DIR}/bridge_page.cjs"
  ZR_BRIDGE_PAGE_SHOT="${CMAKE_CURRENT_BINARY_DIR}/bridge_page.png")
