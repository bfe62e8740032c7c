// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

// For tests.

namespace keel {

// A folder of one's own, removed at the end with all that is in it.
class TemporaryFolder {
 public:
  TemporaryFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "keel-XXXXXX").string();
    path_ = ::mkdtemp(pattern.data());
  }
  ~TemporaryFolder() { std::filesystem::remove_all(path_); }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  std::string path(std::string_view name = {}) const {
    return name.empty() ? path_.string() : (path_ / name).string();
  }
  // Makes a folder, and those around it.
  void makeFolder(std::string_view name) const {
    std::filesystem::create_directories(path_ / name);
  }
  // Makes a file, and the folders around it.
  void write(std::string_view name, std::string_view text) const {
    std::filesystem::create_directories((path_ / name).parent_path());
    std::ofstream(path_ / name, std::ios::binary) << text;
  }

 private:
  std::filesystem::path path_;
};

}  // namespace keel
