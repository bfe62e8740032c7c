# SPDX-License-Identifier: Apache-2.0
# Folders as libraries, with their dependencies enforced.
#
# Every include spells its folder ("notify/published_object.h"). The headers of a folder are
# reachable only through an include root of their own: a directory in the build tree that holds one
# link to that folder and is a usage requirement of the folder's library target. So an include of a
# folder that is not among USES or KEEPS does not compile.

# keel_library(FOLDER SOURCES file... [USES folder-or-target...] [KEEPS folder-or-target...])
#   FOLDER  a path in the source tree, such as runtime/xpc; its target is keel_runtime_xpc
#   USES    what its headers use; whoever links this folder sees these too
#   KEEPS   what only its sources use
function(keel_library folder)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;USES;KEEPS")
  keel_target_of(target ${folder})
  add_library(${target} STATIC ${arg_SOURCES})
  set(root ${PROJECT_BINARY_DIR}/include/${target})
  get_filename_component(parent ${root}/${folder} DIRECTORY)
  file(MAKE_DIRECTORY ${parent})
  file(CREATE_LINK ${PROJECT_SOURCE_DIR}/${folder} ${root}/${folder} SYMBOLIC)
  target_include_directories(${target} PUBLIC ${root})
  # Its headers need it as much as its sources do.
  target_compile_features(${target} PUBLIC cxx_std_23)
  keel_targets_of(uses ${arg_USES})
  keel_targets_of(keeps ${arg_KEEPS})
  target_link_libraries(${target} PUBLIC ${uses} PRIVATE keel_compiler ${keeps})
  keel_precompile(${target} keel_library_headers)
endfunction()

# keel_test(NAME SOURCES file... USES folder-or-target...): a GoogleTest program; each case is a
# test of its own. With sanitizers or coverage counters, which make programs slow to start or to
# end, the program is one test.
function(keel_test name)
  if(NOT KEEL_TESTS)
    return()
  endif()
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;USES")
  keel_targets_of(uses ${arg_USES})
  add_executable(${name} ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE keel_compiler ${uses} GTest::gmock_main)
  keel_precompile(${name} keel_test_headers)
  if(KEEL_SANITIZERS OR KEEL_COVERAGE)
    add_test(NAME ${name} COMMAND ${name})
    set_tests_properties(${name} PROPERTIES LABELS unit TIMEOUT 300)
  else()
    gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST PROPERTIES LABELS unit TIMEOUT 120)
  endif()
endfunction()

# keel_fuzzer(NAME SOURCE file USES folder-or-target...): a libFuzzer program over one decoder.
function(keel_fuzzer name)
  if(NOT KEEL_FUZZERS)
    return()
  endif()
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "SOURCE" "USES")
  keel_targets_of(uses ${arg_USES})
  add_executable(${name} ${arg_SOURCE})
  target_link_libraries(${name} PRIVATE keel_compiler ${uses})
  target_link_options(${name} PRIVATE -fsanitize=fuzzer)
endfunction()

# The target of a folder: runtime/xpc -> keel_runtime_xpc.
function(keel_target_of result folder)
  string(REPLACE "/" "_" name ${folder})
  set(${result} keel_${name} PARENT_SCOPE)
endfunction()

# Folders become their targets; a name with "::" is a target already.
function(keel_targets_of result)
  set(targets)
  foreach(name IN LISTS ARGN)
    if(NOT name MATCHES "::")
      keel_target_of(name ${name})
    endif()
    list(APPEND targets ${name})
  endforeach()
  set(${result} ${targets} PARENT_SCOPE)
endfunction()
