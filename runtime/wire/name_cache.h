// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <string_view>

#include "runtime/foundation/string.h"

namespace keel::xpc {

// The names received most recently. A publisher sends its name with every update; a cache hit needs
// neither a copy of the text nor a new hash. Few and short, and charged to the process. Lives on
// one thread.
class NameCache {
 public:
  static constexpr std::size_t kNames = 64;
  static constexpr std::size_t kLongestBytes = 128;

  // Returns `text`, valid UTF-8 of at most kLongestBytes, as a name.
  String nameOf(std::string_view text);

 private:
  std::array<String, kNames> names_;
};

}  // namespace keel::xpc
