// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <span>
#include <string_view>
#include <vector>

#include "platform/authenticator/digest_hash.h"
#include "runtime/foundation/secret.h"

namespace keel {

// The text of a digest credentials file: lines of USER:REALM:DIGEST as htdigest(1) writes them, the
// digest being that of USER:REALM:PASSWORD. The digest is as good as the password for answering
// challenges of that realm. 32 hexadecimal digits are MD5, 64 are SHA-256. Empty lines and lines
// that begin with "#" are ignored. Immutable.
class DigestCredentials {
 public:
  struct Line {
    std::string_view user;
    std::string_view realm;
    std::string_view digest;
    DigestAlgorithm algorithm;
  };

  explicit DigestCredentials(Secret text);

  // In the order of the text; the views point into it.
  const std::vector<Line>& lines() const { return lines_; }
  // The numbers, from 1, of malformed lines, which are ignored.
  const std::vector<std::size_t>& badLines() const { return badLines_; }

  // Return the text without the lines of that user in that realm, all others unchanged; with()
  // appends lines for `digests`.
  Secret without(std::string_view user, std::string_view realm) const;
  Secret with(std::string_view user, std::string_view realm, std::span<const Secret> digests) const;

  // Return true for a name that can appear in a line: not empty, no ":" and no control character; a
  // user does not begin with "#" either.
  static bool canBeUser(std::string_view user);
  static bool canBeRealm(std::string_view realm);

 private:
  Secret text_;
  std::vector<Line> lines_;
  std::vector<std::size_t> badLines_;
};

}  // namespace keel
