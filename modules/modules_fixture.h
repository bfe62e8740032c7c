// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "modules/module_manager.h"
#include "runtime/foundation/temporary_folder.h"
#include "tests/support/log_recorder.h"

// For tests: a directory of bundles, and the log about them.

namespace keel {

class ModulesFixture : public ::testing::Test {
 protected:
  // Returns an XML property list with a dictionary of these members.
  static std::string dictionary(std::string_view members) {
    return "<plist version=\"1.0\"><dict>" + std::string(members) + "</dict></plist>";
  }
  static std::string text(std::string_view key, std::string_view value) {
    return "<key>" + std::string(key) + "</key><string>" + std::string(value) + "</string>";
  }
  static std::string services(std::string_view names) {
    return "<key>MachServices</key><dict>" + std::string(names) + "</dict>";
  }

  // Returns the lines logged since the last time, "LEVEL: text". All must be of category "startup",
  // except debug messages of category "bundle", which are left out.
  std::vector<std::string> logged() {
    std::vector<std::string> lines;
    for (const testing::LogLine& line : log_.take()) {
      if (line.category == "bundle" && line.level == LogLevel::debug) continue;
      EXPECT_EQ(line.category, "startup");
      lines.push_back((line.level == LogLevel::debug   ? "debug: "
                       : line.level == LogLevel::error ? "error: "
                                                       : "?: ") +
                      line.text);
    }
    return lines;
  }

  TemporaryFolder folder_;
  testing::LogRecorder log_{LogLevel::debug};
};

}  // namespace keel
