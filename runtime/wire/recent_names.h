// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <string_view>

#include "runtime/foundation/string.h"

namespace keel::xpc {

// Names that came in lately: who publishes a name sends it with every update, and neither its text nor its hash has to be made
// anew. Few and short, and paid for by the process. On one thread.
class RecentNames {
 public:
  static constexpr std::size_t kNames = 64;
  static constexpr std::size_t kLongestBytes = 128;

  // `text`, which is valid UTF-8 and no longer than that, as a name.
  String of(std::string_view text);

 private:
  std::array<String, kNames> names_;
};

}  // namespace keel::xpc
