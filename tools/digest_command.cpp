// SPDX-License-Identifier: Apache-2.0
#include "tools/digest_command.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <utility>
#include <vector>

#include "runtime/foundation/utf8.h"
#include "runtime/foundation/value.h"
#include "tools/password_input.h"
#include "tools/table.h"

namespace keel {

namespace {

int reportFailure(Console& console, const std::string& what) {
  console.note(what);
  return kExitRefused;
}

// An unusable password is a usage error, as in every command that reads one.
int reportUnusable(Console& console, const std::string& what) {
  console.note(what);
  return kExitUsage;
}

// Prints the description alone, without the error's domain and number.
int reportFailure(Console& console, const Error& error) {
  const Value userInfo = error.userInfo().value();
  return reportFailure(
      console, std::string(userInfo.textOf(NSLocalizedDescriptionKey, error.description())));
}

// Returns true if the file format can hold user and realm; reports the reason otherwise.
bool canBeWritten(Console& console, const DigestOptions& options) {
  const bool canBe = DigestCredentials::canBeUser(options.user) &&
                     DigestCredentials::canBeRealm(options.realm) && isUtf8(options.user) &&
                     isUtf8(options.realm);
  if (!canBe) {
    reportUsage(console,
                "users and realms are valid UTF-8 without : and control characters, and not empty; "
                "users do not begin with #");
  }
  return canBe;
}

bool has(const DigestCredentials& credentials, const DigestOptions& options) {
  return std::ranges::any_of(credentials.lines(), [&](const DigestCredentials::Line& line) {
    return line.user == options.user && line.realm == options.realm;
  });
}

}  // namespace

int digestSetCommand(Console& console, const DigestOptions& options) {
  if (!canBeWritten(console, options)) return kExitUsage;
  const auto password =
      readPassword(fmt::format("Digest password of {} in {}: ", options.user, options.realm),
                   options.passwordDescriptor, Prompting::twice);
  if (!password) return reportUnusable(console, password.error());
  if (password->text().empty())
    return reportUnusable(console, "the password is empty; nothing was changed");
  std::vector<Secret> digests;
  for (const DigestAlgorithm algorithm : kDigestAlgorithms) {
    auto digest = digestOf(algorithm, {options.user, options.realm, password->text()});
    if (digest) digests.push_back(std::move(*digest));
  }
  if (digests.empty())
    return reportFailure(console, "this system's cryptography offers no algorithm for digests");
  const auto changed = changeDigestFile(
      options.file, [&](const DigestCredentials& present) -> std::expected<Secret, Error> {
        return present.with(options.user, options.realm, digests);
      });
  return changed ? static_cast<int>(kExitOk) : reportFailure(console, changed.error());
}

int digestListCommand(Console& console, const CommonOptions& common, const DigestOptions& options) {
  auto text = readDigestFile(options.file);
  if (!text && text.error().code() != ENOENT) return reportFailure(console, text.error());
  const DigestCredentials credentials(text ? std::move(*text) : Secret());
  for (const std::size_t number : credentials.badLines()) {
    console.note(
        fmt::format("line {} of {} is not USER:REALM:DIGEST and is ignored", number, options.file));
  }
  std::map<std::pair<std::string, std::string>, std::vector<std::string>> algorithmsByUserAndRealm;
  for (const auto& line : credentials.lines()) {
    algorithmsByUserAndRealm[{std::string(line.user), std::string(line.realm)}].emplace_back(
        nameOf(line.algorithm));
  }
  Table table({"USER", "REALM", "ALGORITHMS"});
  for (const auto& [user, algorithms] : algorithmsByUserAndRealm) {
    if (console.isTerminal() && !common.json) {
      table.add({user.first, user.second, fmt::format("{}", fmt::join(algorithms, ", "))});
      continue;
    }
    const std::string line =
        fmt::format(R"({{"user":{},"realm":{},"algorithms":["{}"]}})",
                    jsonOfText(user.first, console.letters()),
                    jsonOfText(user.second, console.letters()), fmt::join(algorithms, R"(",")"));
    if (!console.writeLine(line)) break;
  }
  if (console.isTerminal() && !common.json) console.write(table.text(console));
  return kExitOk;
}

int digestRemoveCommand(Console& console, const DigestOptions& options) {
  if (!canBeWritten(console, options)) return kExitUsage;
  bool wasThere = false;
  // A missing file holds no users, and is not created.
  const auto present = readDigestFile(options.file);
  if (present || present.error().code() != ENOENT) {
    const auto changed = changeDigestFile(
        options.file, [&](const DigestCredentials& credentials) -> std::expected<Secret, Error> {
          wasThere = has(credentials, options);
          return credentials.without(options.user, options.realm);
        });
    if (!changed) return reportFailure(console, changed.error());
  }
  if (wasThere) return kExitOk;
  return reportFailure(console, fmt::format("{} has no digest credentials in the realm {}",
                                            options.user, options.realm));
}

}  // namespace keel
