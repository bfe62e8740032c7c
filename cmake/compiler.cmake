# SPDX-License-Identifier: Apache-2.0
# The warnings and hardening of all our targets: target keel_compiler.
add_library(keel_compiler INTERFACE)
# A project that embeds this one may use a compiler with more warnings.
set(KEEL_WARNINGS_ARE_ERRORS $<$<BOOL:${PROJECT_IS_TOP_LEVEL}>:-Werror>)
target_compile_options(keel_compiler INTERFACE
  -Wall -Wextra -Wpedantic ${KEEL_WARNINGS_ARE_ERRORS}
  -Wshadow -Wnon-virtual-dtor -Wold-style-cast -Wcast-qual -Wconversion
  -Wsign-conversion -Woverloaded-virtual -Wimplicit-fallthrough -Wundef
  -fno-omit-frame-pointer -fstack-protector-strong -fvisibility=hidden)
# Bind all symbols at startup. Lazy binding spills the registers to the stack, and those may hold
# part of a password that was just copied. This covers every program that links one of our
# libraries.
target_link_options(keel_compiler INTERFACE -Wl,-z,relro -Wl,-z,now)
# Crash reports name the build id, which selects the symbols of exactly that build.
target_link_options(keel_compiler INTERFACE -Wl,--build-id)
if(CMAKE_BUILD_TYPE STREQUAL "Release")
  target_compile_definitions(keel_compiler INTERFACE _FORTIFY_SOURCE=2)
  # SLP vectorization reads two adjacent members with one wide load; when both were just written
  # separately that is a store-forwarding stall.
  target_compile_options(keel_compiler INTERFACE -fno-tree-slp-vectorize)
  if(PROJECT_IS_TOP_LEVEL AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # With link-time optimization g++ 12 reports false overflows when it copies short strings.
    target_link_options(keel_compiler INTERFACE -Wno-stringop-overflow)
  endif()
endif()

if(KEEL_SANITIZERS)
  # Reports need only line numbers: -g1 builds faster.
  target_compile_options(keel_compiler INTERFACE
    -g1 -fsanitize=${KEEL_SANITIZERS} -fno-sanitize-recover=all)
  target_link_options(keel_compiler INTERFACE -fsanitize=${KEEL_SANITIZERS})
endif()
if(KEEL_COVERAGE)
  # Counts of several threads must add up. The counters know the lines: without -g it builds faster.
  target_compile_options(keel_compiler INTERFACE -g0 --coverage -fprofile-update=atomic)
  target_link_options(keel_compiler INTERFACE --coverage)
endif()
if(KEEL_FUZZERS)
  target_compile_options(keel_compiler INTERFACE -fsanitize=fuzzer-no-link)
endif()

# The top-level project decides how to speed its build up.
if(PROJECT_IS_TOP_LEVEL)
  find_program(KEEL_CCACHE ccache)
  if(KEEL_CCACHE)
    set(CMAKE_CXX_COMPILER_LAUNCHER
      ${CMAKE_COMMAND} -E env CCACHE_SLOPPINESS=pch_defines,time_macros ${KEEL_CCACHE})
  endif()
  find_program(KEEL_MOLD mold)
  if(KEEL_MOLD AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    add_link_options(-fuse-ld=mold)
  endif()
endif()
