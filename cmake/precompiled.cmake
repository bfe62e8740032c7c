# SPDX-License-Identifier: Apache-2.0
# Two thirds of the compile time of most sources here goes into third-party headers. With
# KEEL_PRECOMPILED_HEADERS they are precompiled once for all libraries and once for all tests, which
# differ in their position independence. Other builds do without, so that a missing include does not
# go unnoticed.
option(KEEL_PRECOMPILED_HEADERS "Precompile third-party headers (clang only)" OFF)

set(KEEL_STANDARD_HEADERS
  <algorithm> <array> <chrono> <expected> <functional> <map> <memory> <mutex> <optional> <string>
  <string_view> <thread> <tuple> <unordered_map> <utility> <vector> <fmt/format.h>)

# keel_precompile(TARGET HEADERS): TARGET shares the precompiled headers of the target HEADERS.
function(keel_precompile target headers)
  if(KEEL_PRECOMPILED_HEADERS)
    target_precompile_headers(${target} REUSE_FROM ${headers})
  endif()
endfunction()

# keel_precompiled_headers(TARGET [EXECUTABLE] HEADERS header... [USES target...]): a target that
# precompiles them, of the same kind as the targets that share them.
function(keel_precompiled_headers target)
  cmake_parse_arguments(PARSE_ARGV 1 arg "EXECUTABLE" "" "HEADERS;USES")
  set(source ${PROJECT_BINARY_DIR}/${target}.cpp)
  if(arg_EXECUTABLE)
    file(CONFIGURE OUTPUT ${source} CONTENT "int main() {}\n")
    add_executable(${target} ${source})
  else()
    file(CONFIGURE OUTPUT ${source} CONTENT "\n")
    add_library(${target} STATIC ${source})
  endif()
  target_link_libraries(${target} PRIVATE keel_compiler ${arg_USES})
  target_precompile_headers(${target} PRIVATE ${arg_HEADERS})
endfunction()

if(KEEL_PRECOMPILED_HEADERS)
  # With a timestamp inside, every build would be a ccache miss.
  add_compile_options(-Xclang -fno-pch-timestamp)
  keel_precompiled_headers(keel_library_headers HEADERS ${KEEL_STANDARD_HEADERS} USES fmt::fmt)
  if(KEEL_TESTS)
    keel_precompiled_headers(keel_test_headers EXECUTABLE
      HEADERS ${KEEL_STANDARD_HEADERS} <gmock/gmock.h> <gtest/gtest.h>
      USES fmt::fmt GTest::gmock_main)
  endif()
endif()
