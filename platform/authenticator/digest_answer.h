// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "platform/authenticator/digest_hash.h"

namespace keel {

// The parameters of a Digest Authorization (RFC 7616, section 3.4).
struct DigestAnswer {
  // Longer ones are refused unparsed. Real ones take less than 1000 bytes.
  static constexpr std::size_t kMaxBytes = 8192;

  // The user's name or, if `isUserHashed`, the digest of USER:REALM.
  std::string user;
  bool isUserHashed = false;
  std::string realm;
  std::string nonce;
  std::string opaque;
  std::string uri;
  std::string clientNonce;
  DigestAlgorithm algorithm = DigestAlgorithm::md5;
  std::string response;  // as long as the algorithm's digest

  // Strict: returns nothing if a parameter is missing, duplicated or malformed, for an unsupported
  // algorithm, for a qop other than "auth", and for a nonce count other than 1, since a nonce is
  // used once.
  static std::optional<DigestAnswer> parse(std::string_view text);
};

inline constexpr std::string_view kDigestQop = "auth";
inline constexpr std::string_view kDigestNonceCount = "00000001";

}  // namespace keel
