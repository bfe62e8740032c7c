// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "platform/authenticator/digest_hash.h"

namespace keel {

// What a client says of itself in an Authorization of the scheme Digest (RFC 7616, section 3.4).
struct DigestAnswer {
  // Longer ones are refused unread. Real ones have less than 1000 bytes.
  static constexpr std::size_t kLargestBytes = 8192;

  // Either the user's name or, when `isUserHashed`, the digest of USER:REALM.
  std::string user;
  bool isUserHashed = false;
  std::string realm;
  std::string nonce;
  std::string opaque;
  std::string uri;
  std::string clientNonce;
  DigestAlgorithm algorithm = DigestAlgorithm::md5;
  std::string response;  // as many letters as the algorithm makes

  // Strict: nothing when a parameter is missing, stands twice or makes no sense; for another
  // algorithm than ours, another qop than "auth", or another nonce count than 1, since a nonce is
  // used once.
  static std::optional<DigestAnswer> parse(std::string_view text);
};

inline constexpr std::string_view kDigestQop = "auth";
inline constexpr std::string_view kDigestNonceCount = "00000001";

}  // namespace keel
