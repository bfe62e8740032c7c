// SPDX-License-Identifier: Apache-2.0
#include "platform/bundle/directory_listing.h"

#include <dirent.h>

#include <cerrno>
#include <cstring>
#include <memory>

namespace keel {

namespace {

struct Close {
  void operator()(DIR* directory) const { ::closedir(directory); }
};

std::unexpected<Error> failure() {
  const int number = errno;
  return std::unexpected(describedError(NSPOSIXErrorDomain, number, std::strerror(number)));
}

}  // namespace

std::expected<std::vector<std::string>, Error> contentsOfDirectory(const std::string& path) {
  const std::unique_ptr<DIR, Close> directory(::opendir(path.c_str()));
  if (directory == nullptr) return failure();
  std::vector<std::string> names;
  errno = 0;
  while (const dirent* entry = ::readdir(directory.get())) {
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") names.emplace_back(name);
    errno = 0;
  }
  if (errno != 0) return failure();
  return names;
}

}  // namespace keel
