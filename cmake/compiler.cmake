# SPDX-License-Identifier: Apache-2.0
# One set of warnings and hardening for everything that is ours: target keel_compiler.
add_library(keel_compiler INTERFACE)
# A project that takes this one in may have a compiler that warns of more.
set(KEEL_WARNINGS_ARE_ERRORS $<$<BOOL:${PROJECT_IS_TOP_LEVEL}>:-Werror>)
target_compile_options(keel_compiler INTERFACE
  -Wall -Wextra -Wpedantic ${KEEL_WARNINGS_ARE_ERRORS} -Wshadow -Wnon-virtual-dtor -Wold-style-cast -Wcast-qual
  -Wconversion -Wsign-conversion -Woverloaded-virtual -Wimplicit-fallthrough -Wundef
  -fno-omit-frame-pointer -fstack-protector-strong -fvisibility=hidden)
# All symbols are resolved at the start. Resolved later, one by one, they would have the registers saved on the stack, and in
# these may be a part of a password that was just copied. This holds for every program that links one of our libraries.
target_link_options(keel_compiler INTERFACE -Wl,-z,relro -Wl,-z,now)
# A report of a crash names it, to be matched with the symbols of just that build.
target_link_options(keel_compiler INTERFACE -Wl,--build-id)
if(CMAKE_BUILD_TYPE STREQUAL "Release")
  target_compile_definitions(keel_compiler INTERFACE _FORTIFY_SOURCE=2)
  # Two neighbouring members that were just written one by one, read with one wide load: the processor has to wait for both.
  target_compile_options(keel_compiler INTERFACE -fno-tree-slp-vectorize)
  if(PROJECT_IS_TOP_LEVEL AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
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

# How a build is made faster is the choice of the project at the top.
if(PROJECT_IS_TOP_LEVEL)
  find_program(KEEL_CCACHE ccache)
  if(KEEL_CCACHE)
    set(CMAKE_CXX_COMPILER_LAUNCHER ${CMAKE_COMMAND} -E env CCACHE_SLOPPINESS=pch_defines,time_macros ${KEEL_CCACHE})
  endif()
  find_program(KEEL_MOLD mold)
  if(KEEL_MOLD AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    add_link_options(-fuse-ld=mold)
  endif()
endif()
