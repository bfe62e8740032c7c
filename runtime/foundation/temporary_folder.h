// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <system_error>

#include "runtime/foundation/check.h"

// A folder for tests.

namespace keel {

// A new folder, removed at the end with everything in it.
class TemporaryFolder {
 public:
  TemporaryFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "keel-XXXXXX").string();
    KEEL_CHECK(::mkdtemp(pattern.data()) != nullptr);
    path_ = pattern;
  }
  ~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  // Returns the path of the folder, or of `name` in it.
  std::string path(std::string_view name = {}) const {
    return name.empty() ? path_.string() : (path_ / name).string();
  }
  // Creates a folder and its parents.
  void makeFolder(std::string_view name) const {
    std::filesystem::create_directories(path_ / name);
  }
  // Creates a file and its parent folders.
  void write(std::string_view name, std::string_view text) const {
    std::filesystem::create_directories((path_ / name).parent_path());
    std::ofstream(path_ / name, std::ios::binary) << text;
  }

 private:
  std::filesystem::path path_;
};

}  // namespace keel
