// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <optional>
#include <string_view>
#include <utility>

#include "runtime/foundation/secret.h"

namespace keel {

// The name and password in an Authorization of the scheme Basic (RFC 7617, section 2). Wiped on
// destruction.
class BasicAnswer {
 public:
  // Longer ones are refused unparsed. The longest name and password take far less in base64.
  static constexpr std::size_t kMaxBytes = 2048;

  // Accepts `text` with or without the scheme. Returns nothing unless it is base64 of a name, ":"
  // and a password, in UTF-8 without control characters. The password may be empty, the name not.
  static std::optional<BasicAnswer> parse(std::string_view text);

  // The text before and after the first ":".
  std::string_view user() const { return text_.text().substr(0, colon_); }
  std::string_view password() const { return text_.text().substr(colon_ + 1); }

 private:
  BasicAnswer(Secret text, std::size_t colon) : text_(std::move(text)), colon_(colon) {}

  Secret text_;
  std::size_t colon_;
};

}  // namespace keel
