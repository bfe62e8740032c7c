// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "platform/authenticator/account_check.h"

namespace keel {

// For tests: records the calls and returns a preset answer.
class RecordingAccounts final : public AccountCheck {
 public:
  bool isPassword(std::string_view user, std::string_view password) override {
    asked.push_back("password " + std::string(user) + " " + std::string(password));
    return answer;
  }
  bool mayBeUsed(std::string_view user, Clock::time_point attemptStart) override {
    asked.push_back("account " + std::string(user));
    start = attemptStart;
    return answer;
  }

  bool answer = true;
  std::vector<std::string> asked;
  Clock::time_point start;
};

}  // namespace keel
