# The live bridge against the protocol's reference client and hostile clients (node, with the
# npm packages ./setup.sh installs into the build tree), over real hosts and bridge processes.
zr_add_test(zr_bridge_client_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/bridge_client_test.cpp
  DEPS nlohmann_json::nlohmann_json LABELS concurrency PROCESSORS 2)
add_dependencies(zr_bridge_client_test zr zr_test_peakmeter)
target_compile_definitions(zr_bridge_client_test PRIVATE
  ZR_BINARY="$<TARGET_FILE:zr>"
  ZR_TEST_PLUGIN="$<TARGET_FILE:zr_test_peakmeter>"
  ZR_BRIDGE_NPM="${CMAKE_BINARY_DIR}/npm"
  ZR_BRIDGE_CLIENT="${CMAKE_CURRENT_LIST_DIR}/bridge_client.cjs")
