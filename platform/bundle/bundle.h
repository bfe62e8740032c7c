// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <expected>
#include <optional>
#include <string>
#include <string_view>

#include "runtime/foundation/error.h"
#include "runtime/foundation/value.h"

namespace keel {

// A folder that the system treats as a unit. With a folder "Contents" in it, its description is
// Contents/Info.plist and its resources are in Contents/Resources. Otherwise it is flat: the
// description is Info.plist, and resources are in Resources or at the top.
//
// Every call reads the disk anew. A path without a bundle, or without anything, has no description
// and no resources; that is not an error.
class Bundle {
 public:
  explicit Bundle(std::string path) : path_(std::move(path)) {}

  const std::string& path() const { return path_; }
  // Returns true if anything exists at the path.
  bool isThere() const;
  // Returns the path of the resource "NAME.TYPE". One that exists but is inaccessible counts as
  // found.
  std::optional<std::string> pathForResource(std::string_view name, std::string_view type) const;
  // Returns the description's map, empty if there is no description. Fails if it cannot be read or
  // holds something else.
  std::expected<Value, Error> infoDictionary() const;

 private:
  bool hasContents() const;

  std::string path_;
};

// Reads the map in the property list at `path`. Fails like readPropertyList(), and with EBADMSG if
// the list holds something else.
std::expected<Value, Error> readDictionary(const std::string& path);

}  // namespace keel
