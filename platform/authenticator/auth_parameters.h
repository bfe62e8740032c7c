// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace keel {

// What is left of `text`, the value of a header field Authorization, behind the scheme and the
// blanks that follow it. Nothing when it is of another scheme. Schemes are the same in upper and
// lower case.
std::optional<std::string_view> afterScheme(std::string_view text, std::string_view scheme);

// `text` as a quoted string (RFC 9110, section 5.6.4).
std::string quotedString(std::string_view text);

// The parameters of an Authorization (RFC 9110, section 11.2): NAME=TOKEN or NAME="QUOTED STRING",
// with commas between. Immutable.
class AuthParameters {
 public:
  // Far more than any scheme has, far less than is a burden.
  static constexpr std::size_t kLargestCount = 32;

  // Strict: nothing for a name that stands twice, an empty place in the list, or a control
  // character.
  static std::optional<AuthParameters> parse(std::string_view text);

  // The value, without quotes and escapes; null when there is no such parameter. Names are given in
  // lower case, and may be written in any.
  const std::string* find(std::string_view name) const;

 private:
  std::map<std::string, std::string, std::less<>> valuesByName_;
};

}  // namespace keel
