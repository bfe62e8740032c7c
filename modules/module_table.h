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

// A mutable dictionary of texts that is always available in encoded form. A change is O(n): it
// re-encodes the table, which is sized for the modules of a product.
class ModuleTable {
 public:
  ModuleTable();

  // Null text removes the key. `key` must not be null.
  void set(const String& key, const String& text);
  // Returns the text of `key`, or null.
  String at(const String& key) const;
  std::size_t count() const { return texts_.size(); }
  // Sorted bytewise.
  std::vector<String> allKeys() const;
  // Returns the encoded table; never null.
  const Dictionary& dictionary() const { return encoded_; }

 private:
  void encode();

  std::map<std::string, String, std::less<>> texts_;
  Dictionary encoded_;
};

}  // namespace keel
