// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <string>
#include <vector>

#include "platform/authenticator/auth_parameters.h"
#include "platform/authenticator/digest_answer.h"
#include "runtime/foundation/check.h"

// Fuzzes the parser of answers to digest challenges. An accepted answer, rewritten in canonical
// form, parses to the same result.

namespace {

using keel::DigestAnswer;
using keel::quotedString;

std::string written(const DigestAnswer& answer) {
  return "Digest username=" + quotedString(answer.user) +
         ", userhash=" + (answer.isUserHashed ? "true" : "false") +
         ", realm=" + quotedString(answer.realm) + ", nonce=" + quotedString(answer.nonce) +
         ", opaque=" + quotedString(answer.opaque) + ", uri=" + quotedString(answer.uri) +
         ", cnonce=" + quotedString(answer.clientNonce) +
         ", algorithm=" + std::string(nameOf(answer.algorithm)) + ", response=" + answer.response +
         ", qop=auth, nc=00000001";
}

bool isSame(const DigestAnswer& left, const DigestAnswer& right) {
  return left.user == right.user && left.isUserHashed == right.isUserHashed &&
         left.realm == right.realm && left.nonce == right.nonce && left.opaque == right.opaque &&
         left.uri == right.uri && left.clientNonce == right.clientNonce &&
         left.algorithm == right.algorithm && left.response == right.response;
}

bool hasControl(std::string_view text) {
  return std::ranges::any_of(
      text, [](unsigned char byte) { return (byte < 0x20 && byte != '\t') || byte == 0x7f; });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // A copy of exactly that size, so that the address sanitizer sees every read beyond it.
  const std::vector<char> input(data, data + size);
  const auto answer = DigestAnswer::parse({input.data(), input.size()});
  if (!answer) return 0;
  KEEL_CHECK(size <= DigestAnswer::kMaxBytes);
  KEEL_CHECK(answer->response.size() == hexLettersOf(answer->algorithm));
  KEEL_CHECK(!answer->user.empty() && !answer->realm.empty() && !answer->uri.empty());
  const std::string text = written(*answer);
  // An extended name can spell more than a quoted one, and quoting lengthens a text.
  if (hasControl(answer->user) || text.size() > DigestAnswer::kMaxBytes) return 0;
  const auto again = DigestAnswer::parse(text);
  KEEL_CHECK(again && isSame(*again, *answer));
  return 0;
}
