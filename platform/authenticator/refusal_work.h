// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <optional>
#include <string>

namespace keel {

// Makes refusing an unknown user as much work as refusing a wrong password: where the administrator
// configured expensive hashing, the time would distinguish the two. For keel-pam; not thread-safe.
class RefusalWork {
 public:
  // The accounts' hashes, as in /etc/shadow.
  struct Accounts {
    // Returns nothing if there is no such account.
    std::function<std::optional<std::string>(const std::string& user)> hashOf;
    // Returns the first hash of any account that the predicate accepts; nothing if there is none.
    std::function<std::optional<std::string>(const std::function<bool(const std::string&)>&)> first;
  };
  using Hash = std::function<void(const char* password, const char* setting)>;

  // This machine's accounts, and crypt(3).
  RefusalWork();
  // For tests.
  RefusalWork(Accounts accounts, Hash hash);

  // Hashes per password check in pam_unix of Linux-PAM 1.5.2: it evaluates the argument of its
  // copying macro twice.
  static constexpr int kHashCount = 2;

  // Called after PAM refused that password. Hashes it as often as PAM does unless PAM has already
  // done so: with root's setting, else any account's, else the system's default.
  void make(const std::string& user, const char* password) const;

 private:
  const Accounts accounts_;
  const Hash hash_;
};

}  // namespace keel
