// SPDX-License-Identifier: Apache-2.0
#include "runtime/logging/line_limits.h"

#include <algorithm>
#include <utility>

namespace keel {

namespace {

// Time in which a bucket regains one line.
constexpr LineLimits::Clock::duration kLineInterval =
    LineLimits::Clock::duration(std::chrono::seconds(1)) / kLinesPerSecond;
constexpr LineLimits::Clock::duration kDebugLineInterval = kLineInterval / kDebugLineFactor;
// Time in which an empty bucket of either kind fills.
constexpr LineLimits::Clock::duration kFillTime = kLineBurst * kLineInterval;

// Returns false if the bucket is empty; takes a line from it otherwise.
bool take(LineLimits::Clock::time_point& fullAt, LineLimits::Clock::duration interval,
          LineLimits::Clock::time_point now) {
  const auto then = std::max(fullAt, now) + interval;
  if (then - now > kFillTime) return false;
  fullAt = then;
  return true;
}

}  // namespace

bool LineLimits::admits(uid_t user, LogLevel level, std::string_view category,
                        Clock::time_point now) {
  Account& account = accountOf(user, now);
  const bool admitted = level == LogLevel::debug
                            ? take(account.debugFullAt, kDebugLineInterval, now)
                            : take(account.othersFullAt, kLineInterval, now);
  if (!admitted) leaveOut(account, level, category);
  return admitted;
}

std::vector<LineLimits::LeftOut> LineLimits::takeLeftOut() {
  std::vector<LeftOut> leftOut;
  leftOut.reserve(unreported_.size());
  for (Account* account : std::exchange(unreported_, {})) {
    leftOut.push_back({account->user, std::exchange(account->leftOutCount, 0),
                       account->leftOutLevel, account->leftOutCategory});
  }
  return leftOut;
}

LineLimits::Account& LineLimits::accountOf(uid_t user, Clock::time_point now) {
  if (const auto found = accountsByUser_.find(user); found != accountsByUser_.end()) {
    accounts_.splice(accounts_.end(), accounts_, found->second);
    return *found->second;
  }
  if (accounts_.size() >= kCountedUsers) {
    // Its buckets fill first, and a full bucket holds no information.
    const Account& oldest = accounts_.front();
    if (oldest.debugFullAt > now || oldest.othersFullAt > now || oldest.leftOutCount > 0)
      return strangers_;
    accountsByUser_.erase(*oldest.user);
    accounts_.pop_front();
  }
  accounts_.push_back({.user = user});
  accountsByUser_.emplace(user, std::prev(accounts_.end()));
  return accounts_.back();
}

void LineLimits::leaveOut(Account& account, LogLevel level, std::string_view category) {
  if (account.leftOutCount == 0) unreported_.push_back(&account);
  if (account.leftOutCount++ == 0 || level > account.leftOutLevel) {
    account.leftOutLevel = level;
    account.leftOutCategory = category;
  }
}

}  // namespace keel
