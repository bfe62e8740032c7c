// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string_view>

namespace keel {

// What the accounts of this machine say about a user. Both may block for seconds; from any thread.
class AccountCheck {
 public:
  virtual ~AccountCheck() = default;

  // Whether that is the user's password, and the account may be used now.
  virtual bool isPassword(std::string_view user, std::string_view password) = 0;
  // Whether the account may be used now: it is there, and neither locked nor expired.
  virtual bool mayBeUsed(std::string_view user) = 0;
};

}  // namespace keel
