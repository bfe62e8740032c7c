// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <string_view>

namespace keel {

// Checks users against this machine's accounts. Both calls may block for seconds, and return a
// refusal no earlier than RefusalTime allows; from any thread.
class AccountCheck {
 public:
  using Clock = std::chrono::steady_clock;

  virtual ~AccountCheck() = default;

  // Returns true if the password is the user's and the account may be used now.
  virtual bool isPassword(std::string_view user, std::string_view password) = 0;
  // Returns true if the account may be used now: it exists and is neither locked nor expired. The
  // last step of an attempt that authenticated its user by other means and began at `attemptStart`.
  virtual bool mayBeUsed(std::string_view user, Clock::time_point attemptStart) = 0;
};

}  // namespace keel
