// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace keel {

// Reads PAM service files just far enough to tell whether a service has rules of its own for a
// request. Without any, PAM would silently use those of the service "other".
class PamRules {
 public:
  // Nesting depth of included files. PAM allows more; no real configuration has it.
  static constexpr std::size_t kDepth = 8;
  // Files read per request, repeats included: bounds a file that includes itself.
  static constexpr std::size_t kFileCount = 64;

  // `directory` holds the service files.
  explicit PamRules(std::string directory) : directory_(std::move(directory)) {}

  // Returns true if `service` has a rule of that type ("auth", "account") in its file or in one it
  // includes. Included files count if they are in the directory and named without it. A rule that
  // begins with "-" does not count: PAM may skip it.
  bool has(const std::string& service, std::string_view type) const;

 private:
  bool has(const std::string& service, std::string_view type, std::size_t depth,
           std::size_t& filesLeft) const;

  const std::string directory_;
};

}  // namespace keel
