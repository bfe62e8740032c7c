// SPDX-License-Identifier: Apache-2.0
#include "platform/bundle/bundle.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <cerrno>
#include <vector>

#include "platform/bundle/property_list.h"

namespace keel {

namespace {

// An inaccessible file counts as found; reading it reports the error.
bool isAbsent(const std::string& path) {
  struct stat status;
  return ::lstat(path.c_str(), &status) != 0 && (errno == ENOENT || errno == ENOTDIR);
}

}  // namespace

bool Bundle::isThere() const {
  return !isAbsent(path_);
}

bool Bundle::hasContents() const {
  struct stat status;
  return ::stat((path_ + "/Contents").c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

std::optional<std::string> Bundle::pathForResource(std::string_view name,
                                                   std::string_view type) const {
  const auto places =
      hasContents() ? std::vector{"/Contents/Resources"} : std::vector{"/Resources", ""};
  for (const char* place : places) {
    std::string path = fmt::format("{}{}/{}.{}", path_, place, name, type);
    if (!isAbsent(path)) return path;
  }
  return {};
}

std::expected<Value, Error> Bundle::infoDictionary() const {
  const std::string path = path_ + (hasContents() ? "/Contents/Info.plist" : "/Info.plist");
  if (isAbsent(path)) return Value(Value::Map());
  return readDictionary(path);
}

std::expected<Value, Error> readDictionary(const std::string& path) {
  auto value = readPropertyList(path);
  if (value && !value->isMap()) {
    return std::unexpected(
        describedError(NSPOSIXErrorDomain, EBADMSG, path + " holds no dictionary"));
  }
  return value;
}

}  // namespace keel
