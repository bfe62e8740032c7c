// SPDX-License-Identifier: Apache-2.0
#include <string>
#include <string_view>

#include "platform/authenticator/digest_credentials.h"
#include "runtime/foundation/check.h"

// Fuzzes reading and editing of the file of digest credentials: an edit changes only the lines of
// its user.

namespace {

using keel::DigestCredentials;
using keel::Secret;

std::size_t countOf(const DigestCredentials& credentials, std::string_view user,
                    std::string_view realm) {
  std::size_t count = 0;
  for (const auto& line : credentials.lines()) count += line.user == user && line.realm == realm;
  return count;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const DigestCredentials before(
      Secret(std::string_view(reinterpret_cast<const char*>(data), size)));
  const std::string user(before.lines().empty() ? "user" : before.lines().back().user);
  const std::string realm(before.lines().empty() ? "realm" : before.lines().back().realm);
  KEEL_CHECK(DigestCredentials::canBeUser(user) && DigestCredentials::canBeRealm(realm));
  const std::size_t count = countOf(before, user, realm);

  const DigestCredentials without(before.without(user, realm));
  KEEL_CHECK(without.lines().size() == before.lines().size() - count);
  KEEL_CHECK(without.badLines().size() == before.badLines().size());

  const Secret digests[] = {Secret(std::string(32, 'a')), Secret(std::string(64, 'b'))};
  const DigestCredentials with(without.with(user, realm, digests));
  KEEL_CHECK(with.lines().size() == without.lines().size() + 2);
  KEEL_CHECK(countOf(with, user, realm) == 2);
  KEEL_CHECK(with.badLines() == without.badLines());
  KEEL_CHECK(with.without(user, realm).text() == without.without(user, realm).text());
  return 0;
}
