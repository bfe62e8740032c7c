// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <span>
#include <string_view>
#include <vector>

#include "platform/authenticator/digest_hash.h"
#include "runtime/foundation/secret.h"

namespace keel {

// The text of a file of digest credentials: lines of USER:REALM:DIGEST as htdigest(1) writes them,
// the digest that of USER:REALM:PASSWORD. It is as good as the password for whoever answers
// challenges of that realm. A digest of 32 letters is MD5, one of 64 is SHA-256. Empty lines, and
// lines that begin with "#", are left alone. Immutable.
class DigestCredentials {
 public:
  struct Line {
    std::string_view user;
    std::string_view realm;
    std::string_view digest;
    DigestAlgorithm algorithm;
  };

  explicit DigestCredentials(Secret text);

  // In the order of the text, in which they lie.
  const std::vector<Line>& lines() const { return lines_; }
  // The numbers, counted from 1, of those that make no sense and count for nothing.
  const std::vector<std::size_t>& badLines() const { return badLines_; }

  // The text without the lines of that user in that realm, and all others as they are; and the same
  // with lines for these digests behind them.
  Secret without(std::string_view user, std::string_view realm) const;
  Secret with(std::string_view user, std::string_view realm, std::span<const Secret> digests) const;

  // Whether these can stand in a line: not empty, and neither ":" nor a control character in them;
  // nor does a user begin with
  // "#".
  static bool canBeUser(std::string_view user);
  static bool canBeRealm(std::string_view realm);

 private:
  Secret text_;
  std::vector<Line> lines_;
  std::vector<std::size_t> badLines_;
};

}  // namespace keel
