// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace keel {

// Strips the scheme and the blanks after it from `text`, the value of an Authorization header
// field. Returns nothing for another scheme. Schemes are case-insensitive.
std::optional<std::string_view> afterScheme(std::string_view text, std::string_view scheme);

// Returns `text` as a quoted string (RFC 9110, section 5.6.4).
std::string quotedString(std::string_view text);

// The parameters of an Authorization (RFC 9110, section 11.2): NAME=TOKEN or NAME="QUOTED STRING",
// with commas between. Immutable.
class AuthParameters {
 public:
  // Far more than any scheme uses, and still cheap.
  static constexpr std::size_t kMaxCount = 32;

  // Strict: returns nothing for a duplicate name, an empty list element or a control character.
  static std::optional<AuthParameters> parse(std::string_view text);

  // Returns the value without quotes and escapes; null if there is no such parameter. `name` is in
  // lower case; names in the header are case-insensitive.
  const std::string* find(std::string_view name) const;

 private:
  std::map<std::string, std::string, std::less<>> valuesByName_;
};

}  // namespace keel
