// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "runtime/foundation/collections.h"
#include "runtime/foundation/string.h"

namespace keel {

// A dictionary of texts that can be changed, and is ready at any time in the form in which it is
// sent. Changing it takes time with its size; it is meant for as many entries as a product has
// modules.
class ModuleTable {
 public:
  ModuleTable();

  // Null text removes the key. `key` must not be null.
  void set(const String& key, const String& text);
  // The text of `key`, or null.
  String at(const String& key) const;
  std::size_t count() const { return texts_.size(); }
  // In the order of their bytes.
  std::vector<String> allKeys() const;
  // All of it as it stands; never null.
  const Dictionary& dictionary() const { return encoded_; }

 private:
  void encode();

  std::map<std::string, String, std::less<>> texts_;
  Dictionary encoded_;
};

}  // namespace keel
