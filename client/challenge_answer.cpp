// SPDX-License-Identifier: Apache-2.0
#include "client/challenge_answer.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <string>

#include "platform/authenticator/auth_parameters.h"
#include "platform/authenticator/digest_answer.h"
#include "platform/authenticator/digest_hash.h"
#include "runtime/foundation/base64.h"
#include "runtime/foundation/random_bytes.h"

namespace keel {

namespace {

// keeld's challenges are for the method GET and no particular page.
constexpr std::string_view kUri = "/";
constexpr std::string_view kMethod = "GET";

Secret joined(std::string_view first, std::string_view second) {
  Secret both(first.size() + second.size());
  const auto bytes = both.bytes();
  const auto middle = std::ranges::copy(std::as_bytes(std::span(first)), bytes.begin()).out;
  std::ranges::copy(std::as_bytes(std::span(second)), middle);
  return both;
}

std::string newClientNonce() {
  std::array<std::byte, 16> random;
  if (SecRandomCopyBytes(random) != 0) return {};
  std::string text;
  for (const std::byte byte : random)
    text += fmt::format("{:02x}", std::to_integer<unsigned>(byte));
  return text;
}

std::string valueOf(const AuthParameters& parameters, std::string_view name) {
  const std::string* const value = parameters.find(name);
  return value != nullptr ? *value : std::string();
}

// The parameters of one line of a challenge.
struct Asked {
  std::string realm, nonce, opaque;
  DigestAlgorithm algorithm = DigestAlgorithm::md5;

  static std::optional<Asked> parse(std::string_view line) {
    const auto behind = afterScheme(line, "Digest");
    const auto parameters = behind ? AuthParameters::parse(*behind) : std::nullopt;
    if (!parameters || valueOf(*parameters, "qop") != kDigestQop) return std::nullopt;
    const std::string wanted = valueOf(*parameters, "algorithm");
    const auto known = std::ranges::find(kDigestAlgorithms, wanted, nameOf);
    if (known == std::end(kDigestAlgorithms) || !isOffered(*known)) return std::nullopt;
    return Asked{valueOf(*parameters, "realm"), valueOf(*parameters, "nonce"),
                 valueOf(*parameters, "opaque"), *known};
  }
};

}  // namespace

std::optional<Secret> basicAnswer(std::string_view user, const Secret& password) {
  if (user.contains(':')) return std::nullopt;
  const Secret pair = joined(std::string(user) + ":", password.text());
  std::string encoded = encodeBase64(std::as_bytes(std::span(pair.text())));
  Secret answer = joined("Basic ", encoded);
  wipe(std::as_writable_bytes(std::span(encoded)));
  return answer;
}

std::optional<DigestReply> DigestReply::to(std::string_view challenge, std::string_view user,
                                           const Secret& password) {
  std::optional<Asked> asked;
  while (!challenge.empty() && !asked) {
    const std::size_t end = std::min(challenge.find('\n'), challenge.size());
    asked = Asked::parse(challenge.substr(0, end));
    challenge.remove_prefix(std::min(end + 1, challenge.size()));
  }
  const std::string clientNonce = newClientNonce();
  if (!asked || clientNonce.empty()) return std::nullopt;
  const auto proof = [&](std::string_view method) -> std::optional<Secret> {
    const auto secret = digestOf(asked->algorithm, {user, asked->realm, password.text()});
    const auto request = digestOf(asked->algorithm, {method, kUri});
    if (!secret || !request) return std::nullopt;
    return digestOf(asked->algorithm, {secret->text(), asked->nonce, kDigestNonceCount, clientNonce,
                                       kDigestQop, request->text()});
  };
  const auto ours = proof(kMethod);
  auto theirs = proof("");
  if (!ours || !theirs) return std::nullopt;
  const std::string answer = fmt::format(
      "Digest username={}, realm={}, uri=\"{}\", algorithm={}, nonce={}, nc={}, cnonce=\"{}\", "
      "qop={}, opaque={}, "
      "response=\"{}\"",
      quotedString(user), quotedString(asked->realm), kUri, nameOf(asked->algorithm),
      quotedString(asked->nonce), kDigestNonceCount, clientNonce, kDigestQop,
      quotedString(asked->opaque), ours->text());
  return DigestReply(Secret(answer), std::move(*theirs));
}

bool DigestReply::isConfirmedBy(std::string_view response) const {
  const auto parameters = AuthParameters::parse(response);
  const std::string* const shown = parameters ? parameters->find("rspauth") : nullptr;
  return shown != nullptr && areEqual(*shown, confirmation_.text());
}

}  // namespace keel
