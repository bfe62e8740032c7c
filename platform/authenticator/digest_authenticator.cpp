// SPDX-License-Identifier: Apache-2.0
#include "platform/authenticator/digest_authenticator.h"

#include <fmt/format.h>
#include <unistd.h>

#include <array>
#include <utility>

#include "platform/authenticator/auth_parameters.h"
#include "runtime/foundation/check.h"

namespace keel {

namespace {

// Unguessable and unique.
std::string randomMark() {
  std::array<unsigned char, 24> bytes;
  KEEL_CHECK(::getentropy(bytes.data(), bytes.size()) == 0);
  std::string mark;
  for (const unsigned char byte : bytes) fmt::format_to(std::back_inserter(mark), "{:02x}", byte);
  return mark;
}

}  // namespace

DigestAuthenticator::Marks DigestAuthenticator::Marks::random() {
  return {.nonce = randomMark(), .opaque = randomMark()};
}

DigestAuthenticator::DigestAuthenticator(std::string realm, Marks marks, DigestStore& store,
                                         AccountCheck& accounts, const RefusalTime& refusalTime)
    : realm_(std::move(realm)),
      marks_(std::move(marks)),
      store_(store),
      accounts_(accounts),
      refusalTime_(refusalTime) {}

String DigestAuthenticator::generateInitialResponse() {
  std::string lines;
  for (const DigestAlgorithm algorithm : kDigestAlgorithms) {
    if (!isOffered(algorithm)) continue;
    lines += fmt::format(
        "{}Digest realm={}, qop={}, algorithm={}, nonce={}, opaque={}, charset=UTF-8, "
        "userhash=true",
        lines.empty() ? "" : "\n", quotedString(realm_), quotedString(kDigestQop),
        nameOf(algorithm), quotedString(marks_.nonce), quotedString(marks_.opaque));
  }
  return String(lines);
}

bool DigestAuthenticator::validateChallenge(const String& answer, String* generateResponse) {
  KEEL_CHECK(!method_.isNull());
  if (std::exchange(wasAnswered_, true)) return false;
  const auto parsed = DigestAnswer::parse(answer.view());
  if (!parsed || !fits(*parsed)) return false;
  const auto start = refusalTime_.now();
  const auto credentials = store_.find(*parsed);
  // Without credentials, verify against random ones, so that the work is the same.
  const std::string nobody(hexLettersOf(parsed->algorithm), '0');
  const std::string_view digest = credentials ? credentials->digest.text() : nobody;
  const auto expected = proof(*parsed, digest, method_.view());
  if (!expected || !areEqual(expected->text(), parsed->response) || !credentials) {
    refusalTime_.await(start);
    return false;
  }
  if (!accounts_.mayBeUsed(credentials->user, start)) return false;
  userName_ = String(credentials->user);
  if (generateResponse == nullptr) return true;
  const auto ours = proof(*parsed, digest, "");
  *generateResponse =
      ours ? String(fmt::format("qop={}, rspauth={}, cnonce={}, nc={}", kDigestQop,
                                quotedString(ours->text()), quotedString(parsed->clientNonce),
                                kDigestNonceCount))
           : String();
  return true;
}

bool DigestAuthenticator::fits(const DigestAnswer& answer) const {
  return answer.realm == realm_ && answer.opaque == marks_.opaque &&
         areEqual(answer.nonce, marks_.nonce);
}

std::optional<Secret> DigestAuthenticator::proof(const DigestAnswer& answer,
                                                 std::string_view credentials,
                                                 std::string_view method) const {
  const auto request = digestOf(answer.algorithm, {method, answer.uri});
  if (!request) return std::nullopt;
  return digestOf(answer.algorithm, {credentials, marks_.nonce, kDigestNonceCount,
                                     answer.clientNonce, kDigestQop, request->text()});
}

}  // namespace keel
