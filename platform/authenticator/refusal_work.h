// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <optional>
#include <string>

namespace keel {

// Makes the refusal of a user whom nobody knows as much work as that of one whose password was
// wrong: hashing it takes long where the administrator made that dear, and would tell the two
// apart. For keel-pam; not from several threads.
class RefusalWork {
 public:
  // Hashes of accounts, as /etc/shadow has them.
  struct Accounts {
    // Nothing when there is no such account.
    std::function<std::optional<std::string>(const std::string& user)> hashOf;
    // The first hash of any account for which the function yields true; nothing when there is none.
    std::function<std::optional<std::string>(const std::function<bool(const std::string&)>&)> first;
  };
  using Hash = std::function<void(const char* password, const char* setting)>;

  // Those of this machine, and crypt(3).
  RefusalWork();
  // For tests.
  RefusalWork(Accounts accounts, Hash hash);

  // How often pam_unix of Linux-PAM 1.5.2 hashes a password to check it once: what it takes a copy
  // of, it evaluates twice.
  static constexpr int kHashCount = 2;

  // After PAM refused that password. Hashes it as often as PAM does, unless PAM will have done so:
  // as root's was, or else any account's, or else as the system does it by default.
  void make(const std::string& user, const char* password) const;

 private:
  const Accounts accounts_;
  const Hash hash_;
};

}  // namespace keel
