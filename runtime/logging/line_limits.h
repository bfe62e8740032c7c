// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <list>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "runtime/logging/logger.h"

namespace keel {

// Lines that one user can cause in a burst. A failing program is evident from fewer.
inline constexpr int kLineBurst = 100;
// Lines a second that one user can cause permanently. Thirty such users together stay below the
// 10,000 lines in 30 s that journald accepts from one service by default.
inline constexpr int kLinesPerSecond = 10;
// The limits of debug lines are this many times higher: only an administrator enables them, and a
// request causes several.
inline constexpr int kDebugLineFactor = 10;
// Users with a bucket of their own; an entry has 120 bytes. More that log within ten seconds are
// probably one user's subordinate ids; they share a bucket.
inline constexpr std::size_t kCountedUsers = 1024;

// Decides which lines that users cause are written, and counts the others: a token bucket per user
// for debug lines, and one for all others. Not synchronised.
class LineLimits {
 public:
  using Clock = std::chrono::steady_clock;

  struct LeftOut {
    std::optional<uid_t> user;  // none: those beyond kCountedUsers
    std::uint64_t count;
    // Of the most severe line.
    LogLevel level;
    std::string_view category;
  };

  // Returns false, and counts the line, if it is beyond the user's limit. `category` must live as
  // long as this object.
  bool admits(uid_t user, LogLevel level, std::string_view category, Clock::time_point now);

  // Returns what was left out since the last call, one element per user.
  std::vector<LeftOut> takeLeftOut();

 private:
  struct Account {
    std::optional<uid_t> user;
    // When the buckets of debug lines and of all others are full again.
    Clock::time_point debugFullAt{};
    Clock::time_point othersFullAt{};
    std::uint64_t leftOutCount = 0;
    LogLevel leftOutLevel = LogLevel::debug;
    std::string_view leftOutCategory{};
  };
  // Ordered by last use.
  using Accounts = std::list<Account>;

  Account& accountOf(uid_t user, Clock::time_point now);
  void leaveOut(Account& account, LogLevel level, std::string_view category);

  Accounts accounts_;
  std::unordered_map<uid_t, Accounts::iterator> accountsByUser_;
  Account strangers_;
  // Accounts with lines left out; they are not evicted.
  std::vector<Account*> unreported_;
};

}  // namespace keel
