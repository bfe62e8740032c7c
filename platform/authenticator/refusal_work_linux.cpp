// SPDX-License-Identifier: Apache-2.0
#include <crypt.h>
#include <shadow.h>

#include <utility>

#include "platform/authenticator/refusal_work.h"

namespace keel {

namespace {

// Returns true if comparing a password with it costs a hash: not if the account is locked ("!") or
// has no password.
bool isUsable(const std::string& hash) {
  return hash.size() > 1 && hash[0] != '!' && hash[0] != '*' && hash != "x";
}

std::optional<std::string> hashIn(const spwd* entry) {
  return entry != nullptr && entry->sp_pwdp != nullptr ? std::optional<std::string>(entry->sp_pwdp)
                                                       : std::nullopt;
}

std::optional<std::string> firstHash(const std::function<bool(const std::string&)>& isWanted) {
  std::optional<std::string> found;
  ::setspent();
  while (const spwd* const entry = ::getspent()) {
    found = hashIn(entry);
    if (found && isWanted(*found)) break;
    found.reset();
  }
  ::endspent();
  return found;
}

std::string defaultSetting() {
  const char* const setting = ::crypt_gensalt(nullptr, 0, nullptr, 0);
  return setting != nullptr ? setting : "";
}

}  // namespace

RefusalWork::RefusalWork()
    : RefusalWork(
          {.hashOf = [](const std::string& user) { return hashIn(::getspnam(user.c_str())); },
           .first = firstHash},
          [](const char* password, const char* setting) { ::crypt(password, setting); }) {}

RefusalWork::RefusalWork(Accounts accounts, Hash hash)
    : accounts_(std::move(accounts)), hash_(std::move(hash)) {}

void RefusalWork::make(const std::string& user, const char* password) const {
  const auto own = accounts_.hashOf(user);
  if (own && isUsable(*own)) return;
  auto setting = accounts_.hashOf("root");
  if (!setting || !isUsable(*setting)) setting = accounts_.first(isUsable);
  if (!setting) setting = defaultSetting();
  for (int count = 0; count < kHashCount; ++count) hash_(password, setting->c_str());
}

}  // namespace keel
