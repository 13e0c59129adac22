# Helpers shared by every layer: one library target per folder, tests beside the code.

function(zr_setup_sanitizers)
  if(ZR_SANITIZE)
    string(REPLACE "," ";" _sans "${ZR_SANITIZE}")
    foreach(_s IN LISTS _sans)
      if(NOT _s MATCHES "^(address|undefined|thread)$")
        message(FATAL_ERROR "ZR_SANITIZE: unknown sanitizer '${_s}' (address, undefined, thread)")
      endif()
    endforeach()
    if("thread" IN_LIST _sans AND "address" IN_LIST _sans)
      message(FATAL_ERROR "ZR_SANITIZE: thread and address cannot be combined")
    endif()
    string(REPLACE ";" "," _flag "${_sans}")
    add_compile_options(-fsanitize=${_flag} -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
    add_link_options(-fsanitize=${_flag})
    if("thread" IN_LIST _sans AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
      # Asio's atomic_thread_fence is fine under TSan; GCC warns about it anyway.
      add_compile_options(-Wno-tsan)
    endif()
    if("thread" IN_LIST _sans)
      # Tests read the suppressions from the environment, which the zr processes they start
      # inherit; appended, so that TSAN_OPTIONS given to ctest still count.
      set(ZR_TEST_ENVIRONMENT_MODIFICATION
          "TSAN_OPTIONS=string_append: suppressions=${PROJECT_SOURCE_DIR}/tests/support/tsan.supp"
          CACHE INTERNAL "")
    endif()
  endif()
endfunction()

# A pipeline hands what one thread allocated to another that frees it; glibc's allocator then
# serialises the threads on its arena locks (a futex each time) and gives memory back to the
# system one system call at a time. jemalloc, linked into the executable so that it replaces
# malloc for every library the process loads, does neither. Sanitizers bring their own.
function(zr_use_jemalloc target)
  if(NOT ZR_JEMALLOC OR ZR_SANITIZE OR ZR_BUILD_FUZZERS)
    return()
  endif()
  find_package(PkgConfig REQUIRED)
  pkg_check_modules(ZR_JEMALLOC_PC REQUIRED IMPORTED_TARGET jemalloc)
  # Kept even though nothing calls it by name.
  target_link_libraries(${target} PRIVATE -Wl,--push-state,--no-as-needed PkgConfig::ZR_JEMALLOC_PC
                                          -Wl,--pop-state)
endfunction()

set(ZR_PKGCONFIG_LIBS "" CACHE INTERNAL "")
# What every test's environment gets on top of ctest's own (the sanitizers' options).
set(ZR_TEST_ENVIRONMENT_MODIFICATION "" CACHE INTERNAL "")

function(zr_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wconversion)
  if(ZR_WARNINGS_AS_ERRORS)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()

# zr_add_library(name SOURCES ... [PUBLIC_DEPS ...] [PRIVATE_DEPS ...])
# Public headers live in <folder>/<name>/ and install to include/<name>/. Platform internals that
# other targets of this repository may include live in <folder>/<name>/detail/ (namespace
# ZR::detail) and are not installed: no installed header may include them.
function(zr_add_library name)
  cmake_parse_arguments(A "" "" "SOURCES;PUBLIC_DEPS;PRIVATE_DEPS" ${ARGN})
  add_library(${name} ${A_SOURCES})
  add_library(ZRAudio::${name} ALIAS ${name})
  target_include_directories(${name} PUBLIC
    $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  target_link_libraries(${name} PUBLIC ${A_PUBLIC_DEPS} PRIVATE ${A_PRIVATE_DEPS})
  set_target_properties(${name} PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}
    OUTPUT_NAME ${name})
  zr_warnings(${name})
  install(TARGETS ${name} EXPORT ZRAudioTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  install(DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR}/${name}/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${name}
    PATTERN detail EXCLUDE)
  set(ZR_PKGCONFIG_LIBS "-l${name} ${ZR_PKGCONFIG_LIBS}" CACHE INTERNAL "")
endfunction()

# zr_add_test(name SOURCES ... DEPS ... [LABELS ...] [PROCESSORS n])
# One GoogleTest program; its cases are registered with ctest one by one. It links zrtest, the
# helpers and test doubles shared by the test programs (tests/support, #include <zrtest.h>).
function(zr_add_test name)
  if(NOT ZR_BUILD_TESTS)
    return()
  endif()
  cmake_parse_arguments(A "" "PROCESSORS" "SOURCES;DEPS;LABELS" ${ARGN})
  add_executable(${name} ${A_SOURCES})
  target_link_libraries(${name} PRIVATE ${A_DEPS} zrtest GTest::gtest GTest::gtest_main GTest::gmock Threads::Threads)
  zr_warnings(${name})
  # Tests compute expectations from counts on purpose (sizes as doubles, small ints as chars).
  target_compile_options(${name} PRIVATE -Wno-conversion)
  # A test that starts processes of its own says how many cores they keep busy, so that a
  # parallel ctest does not starve them into missing each other's heartbeats.
  if(NOT A_PROCESSORS)
    set(A_PROCESSORS 1)
  endif()
  set(_properties PROCESSORS ${A_PROCESSORS})
  if(A_LABELS)
    list(APPEND _properties LABELS "${A_LABELS}")
  endif()
  if(ZR_TEST_ENVIRONMENT_MODIFICATION)
    list(APPEND _properties ENVIRONMENT_MODIFICATION "${ZR_TEST_ENVIRONMENT_MODIFICATION}")
  endif()
  gtest_discover_tests(${name} PROPERTIES ${_properties} DISCOVERY_TIMEOUT 60)
endfunction()

function(zr_install_pkgconfig)
  set(_libs "${ZR_PKGCONFIG_LIBS}")
  file(GENERATE OUTPUT ${CMAKE_BINARY_DIR}/zraudio.pc CONTENT
"prefix=\${pcfiledir}/../..
libdir=\${prefix}/${CMAKE_INSTALL_LIBDIR}
includedir=\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}

Name: zraudio
Description: Extractor base classes and the ZR module platform
Version: ${PROJECT_VERSION}
Libs: -L\${libdir} ${_libs}
Cflags: -I\${includedir}
")
  install(FILES ${CMAKE_BINARY_DIR}/zraudio.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endfunction()
