// SPDX-License-Identifier: Apache-2.0
// An NSS source for tests, "keeltest": aliases of the accounts in /etc/passwd, as directories have
// them. Each line of /etc/keel-aliases is NAME ACCOUNT. A lookup of NAME returns the entry of
// ACCOUNT, which holds the account's own name.

#include <nss.h>
#include <pwd.h>
#include <shadow.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <string_view>

namespace {

struct Close {
  void operator()(std::FILE* file) const { std::fclose(file); }
};

std::string accountOf(std::string_view name) {
  std::ifstream file("/etc/keel-aliases");
  std::string alias;
  std::string account;
  while (file >> alias >> account) {
    if (alias == name) return account;
  }
  return {};
}

// Returns the entry of that account in the file at `path`. `next` reads one entry, `nameOf` returns
// its name.
template <class Entry, class Next>
nss_status find(const char* path, const std::string& account, Entry* result, Next next,
                char* Entry::* nameOf, int* problem) {
  const std::unique_ptr<std::FILE, Close> file(account.empty() ? nullptr : std::fopen(path, "re"));
  if (!file) return NSS_STATUS_NOTFOUND;
  for (;;) {
    Entry* found = nullptr;
    const int failure = next(file.get(), &found);
    if (failure == ERANGE) {
      *problem = ERANGE;
      return NSS_STATUS_TRYAGAIN;
    }
    if (failure != 0 || found == nullptr) return NSS_STATUS_NOTFOUND;
    if (account == result->*nameOf) return NSS_STATUS_SUCCESS;
  }
}

}  // namespace

extern "C" {

// NOLINTBEGIN(bugprone-reserved-identifier): the C library looks for these names.
[[gnu::visibility("default")]] nss_status _nss_keeltest_getpwnam_r(const char* name, passwd* result,
                                                                   char* buffer, std::size_t size,
                                                                   int* problem) {
  const auto next = [&](std::FILE* file, passwd** found) {
    return ::fgetpwent_r(file, result, buffer, size, found);
  };
  return find("/etc/passwd", accountOf(name), result, next, &passwd::pw_name, problem);
}

[[gnu::visibility("default")]] nss_status _nss_keeltest_getspnam_r(const char* name, spwd* result,
                                                                   char* buffer, std::size_t size,
                                                                   int* problem) {
  const auto next = [&](std::FILE* file, spwd** found) {
    return ::fgetspent_r(file, result, buffer, size, found);
  };
  return find("/etc/shadow", accountOf(name), result, next, &spwd::sp_namp, problem);
}
// NOLINTEND(bugprone-reserved-identifier)

}  // extern "C"
