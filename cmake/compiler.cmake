# SPDX-License-Identifier: Apache-2.0
# One set of warnings and hardening for everything that is ours: target keel_compiler.
add_library(keel_compiler INTERFACE)
target_compile_options(keel_compiler INTERFACE
  -Wall -Wextra -Wpedantic -Werror -Wshadow -Wnon-virtual-dtor -Wold-style-cast -Wcast-qual
  -Wconversion -Wsign-conversion -Woverloaded-virtual -Wimplicit-fallthrough -Wundef
  -fno-omit-frame-pointer -fstack-protector-strong -fvisibility=hidden)
# All symbols are resolved at the start. Resolved later, one by one, they would have the registers saved on the stack, and in
# these may be a part of a password that was just copied.
target_link_options(keel_compiler INTERFACE -Wl,-z,relro -Wl,-z,now)
# A report of a crash names it, to be matched with the symbols of just that build.
target_link_options(keel_compiler INTERFACE -Wl,--build-id)
if(CMAKE_BUILD_TYPE STREQUAL "Release")
  target_compile_definitions(keel_compiler INTERFACE _FORTIFY_SOURCE=2)
  # Two neighbouring members that were just written one by one, read with one wide load: the processor has to wait for both.
  target_compile_options(keel_compiler INTERFACE -fno-tree-slp-vectorize)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # Optimizing the program as a whole, g++ 12 warns of copies of short strings that it has proved to be short.
    target_link_options(keel_compiler INTERFACE -Wno-stringop-overflow)
  endif()
endif()

if(KEEL_SANITIZERS)
  # Reports need lines, no more: -g1 builds faster.
  target_compile_options(keel_compiler INTERFACE -g1 -fsanitize=${KEEL_SANITIZERS} -fno-sanitize-recover=all)
  target_link_options(keel_compiler INTERFACE -fsanitize=${KEEL_SANITIZERS})
endif()
if(KEEL_FUZZERS)
  target_compile_options(keel_compiler INTERFACE -fsanitize=fuzzer-no-link)
endif()

find_program(CCACHE ccache)
if(CCACHE)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CMAKE_COMMAND} -E env CCACHE_SLOPPINESS=pch_defines,time_macros ${CCACHE})
endif()
find_program(MOLD mold)
if(MOLD AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  add_link_options(-fuse-ld=mold)
endif()
