// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <expected>
#include <optional>
#include <string>
#include <string_view>

#include "runtime/foundation/error.h"
#include "runtime/foundation/value.h"

namespace keel {

// A folder that the system treats as one thing. With a folder "Contents" in it, its description is
// Contents/Info.plist and its resources are in Contents/Resources. Without one it is flat: the
// description is Info.plist, and resources are in Resources or directly inside.
//
// The files are looked at when they are asked for, each time. A path where there is no bundle, or
// nothing, has no description and no resources; that is no error.
class Bundle {
 public:
  explicit Bundle(std::string path) : path_(std::move(path)) {}

  const std::string& path() const { return path_; }
  // True when there is anything at the path.
  bool isThere() const;
  // Where the resource "NAME.TYPE" is. What is there but cannot be looked at counts as found.
  std::optional<std::string> pathForResource(std::string_view name, std::string_view type) const;
  // The map in the description, empty without one. An error when the description cannot be read or
  // holds something else.
  std::expected<Value, Error> infoDictionary() const;

 private:
  bool hasContents() const;

  std::string path_;
};

// The map in the property list at `path`. The error is that of readPropertyList, and EBADMSG when
// it holds something else.
std::expected<Value, Error> readDictionary(const std::string& path);

}  // namespace keel
