// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <string_view>

namespace keel {

// What the accounts of this machine say about a user. Both may block for seconds, and tell a
// refusal no sooner than RefusalTime says; from any thread.
class AccountCheck {
 public:
  using Clock = std::chrono::steady_clock;

  virtual ~AccountCheck() = default;

  // Whether that is the user's password, and the account may be used now.
  virtual bool isPassword(std::string_view user, std::string_view password) = 0;
  // Whether the account may be used now: it is there, and neither locked nor expired. For the last
  // step of an attempt that proved its user otherwise, and began at `attemptStart`.
  virtual bool mayBeUsed(std::string_view user, Clock::time_point attemptStart) = 0;
};

}  // namespace keel
