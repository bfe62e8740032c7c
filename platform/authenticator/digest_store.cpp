// SPDX-License-Identifier: Apache-2.0
#include "platform/authenticator/digest_store.h"

#include <fmt/format.h>

#include <cerrno>

#include "platform/authenticator/digest_credentials.h"
#include "platform/authenticator/digest_file.h"

namespace keel {

namespace {

bool isAbout(const DigestCredentials::Line& line, const DigestAnswer& answer) {
  if (line.algorithm != answer.algorithm || line.realm != answer.realm) return false;
  if (!answer.isUserHashed) return line.user == answer.user;
  const auto hash = digestOf(answer.algorithm, {line.user, line.realm});
  return hash && hash->text() == answer.user;
}

}  // namespace

std::optional<DigestStore::Credentials> DigestStore::find(const DigestAnswer& answer) {
  auto text = readDigestFile(path_);
  if (!text) {
    // The file is optional.
    warning_.update(text.error().code() == ENOENT
                        ? std::string()
                        : fmt::format("all answers to digest challenges are refused: {}",
                                      text.error().description()));
    return std::nullopt;
  }
  const DigestCredentials credentials(std::move(*text));
  const auto& bad = credentials.badLines();
  warning_.update(
      bad.empty()
          ? std::string()
          : fmt::format("line {} of {} is not USER:REALM:DIGEST and is ignored; fix or remove it",
                        bad.front(), path_));
  std::optional<Credentials> found;
  // Scan to the end: the time must not depend on the user's position.
  for (const auto& line : credentials.lines()) {
    if (isAbout(line, answer))
      found = Credentials{.user = std::string(line.user), .digest = Secret(line.digest)};
  }
  return found;
}

}  // namespace keel
