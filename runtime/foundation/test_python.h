// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <string>

#include "runtime/foundation/temporary_folder.h"

// For tests that compare our output with Python's.

namespace keel {

// Runs a program with the system's Python and returns its output. A failing program, also for want
// of a library, fails the test.
inline std::string runPython(const TemporaryFolder& folder, const char* program,
                             const std::string& arguments) {
  folder.write("program.py", program);
  std::FILE* pipe = ::popen(
      ("/usr/bin/python3 " + folder.path("program.py") + " " + arguments + " 2>&1").c_str(), "r");
  std::string output;
  char chunk[65536];
  while (const std::size_t size = std::fread(chunk, 1, sizeof chunk, pipe))
    output.append(chunk, size);
  const int status = ::pclose(pipe);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << output;
  return output;
}

}  // namespace keel
