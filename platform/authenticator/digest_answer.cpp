// SPDX-License-Identifier: Apache-2.0
#include "platform/authenticator/digest_answer.h"

#include <algorithm>
#include <charconv>

#include "platform/authenticator/auth_parameters.h"
#include "runtime/foundation/utf8.h"

namespace keel {

namespace {

bool isSame(std::string_view left, std::string_view rightInLowerCase) {
  return std::ranges::equal(left, rightInLowerCase, {}, [](char letter) {
    return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter + 32) : letter;
  });
}

bool isLowerHex(std::string_view text) {
  return text.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

// RFC 8187: UTF-8'LANGUAGE'TEXT, percent-encoded.
std::optional<std::string> decodeExtended(std::string_view text) {
  constexpr std::string_view kOthers = "!#$&+-.^_`|~";
  const std::size_t first = text.find('\'');
  if (first == std::string_view::npos || !isSame(text.substr(0, first), "utf-8"))
    return std::nullopt;
  const std::size_t second = text.find('\'', first + 1);
  if (second == std::string_view::npos) return std::nullopt;
  std::string decoded;
  for (std::size_t at = second + 1; at < text.size(); ++at) {
    const char letter = text[at];
    if (letter == '%') {
      unsigned char byte = 0;
      const char* const digits = text.data() + at + 1;
      if (text.size() - at < 3 || std::from_chars(digits, digits + 2, byte, 16).ptr != digits + 2)
        return std::nullopt;
      decoded += static_cast<char>(byte);
      at += 2;
    } else if ((letter >= '0' && letter <= '9') || (letter >= 'A' && letter <= 'Z') ||
               (letter >= 'a' && letter <= 'z') || kOthers.contains(letter)) {
      decoded += letter;
    } else {
      return std::nullopt;
    }
  }
  if (!isUtf8(decoded)) return std::nullopt;
  return decoded;
}

std::optional<DigestAlgorithm> algorithmOf(const AuthParameters& parameters) {
  const std::string* const name = parameters.find("algorithm");
  if (name == nullptr || isSame(*name, "md5")) return DigestAlgorithm::md5;
  if (isSame(*name, "sha-256")) return DigestAlgorithm::sha256;
  return std::nullopt;
}

// Returns false unless `parameters` has a non-empty value.
bool take(const AuthParameters& parameters, std::string_view name, std::string& value) {
  const std::string* const found = parameters.find(name);
  if (found == nullptr || found->empty()) return false;
  value = *found;
  return true;
}

// Reads the name in exactly one of its forms: plain, extended or digest.
bool takeUser(const AuthParameters& parameters, DigestAnswer& answer) {
  if (const std::string* const hashed = parameters.find("userhash")) {
    answer.isUserHashed = isSame(*hashed, "true");
    if (!answer.isUserHashed && !isSame(*hashed, "false")) return false;
  }
  const std::string* const extended = parameters.find("username*");
  if (extended == nullptr) {
    if (!take(parameters, "username", answer.user)) return false;
    return !answer.isUserHashed ||
           (answer.user.size() == hexLettersOf(answer.algorithm) && isLowerHex(answer.user));
  }
  if (answer.isUserHashed || parameters.find("username") != nullptr) return false;
  auto decoded = decodeExtended(*extended);
  if (!decoded || decoded->empty()) return false;
  answer.user = std::move(*decoded);
  return true;
}

}  // namespace

std::optional<DigestAnswer> DigestAnswer::parse(std::string_view text) {
  if (text.size() > kMaxBytes) return std::nullopt;
  const auto list = afterScheme(text, "digest");
  const auto parameters = list ? AuthParameters::parse(*list) : std::nullopt;
  const auto algorithm = parameters ? algorithmOf(*parameters) : std::nullopt;
  if (!algorithm) return std::nullopt;
  DigestAnswer answer;
  answer.algorithm = *algorithm;
  std::string qop, nonceCount;
  if (!takeUser(*parameters, answer) || !take(*parameters, "realm", answer.realm) ||
      !take(*parameters, "nonce", answer.nonce) || !take(*parameters, "opaque", answer.opaque) ||
      !take(*parameters, "uri", answer.uri) || !take(*parameters, "cnonce", answer.clientNonce) ||
      !take(*parameters, "response", answer.response) || !take(*parameters, "qop", qop) ||
      !take(*parameters, "nc", nonceCount)) {
    return std::nullopt;
  }
  if (answer.response.size() != hexLettersOf(answer.algorithm) || !isLowerHex(answer.response))
    return std::nullopt;
  if (qop != kDigestQop || nonceCount != kDigestNonceCount) return std::nullopt;
  return answer;
}

}  // namespace keel
