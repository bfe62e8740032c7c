// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>

#include "platform/authenticator/account_check.h"
#include "platform/authenticator/attempt_line.h"
#include "platform/authenticator/complaint.h"
#include "platform/authenticator/pam_question.h"
#include "platform/authenticator/refusal_time.h"

namespace keel {

// Asks PAM service "keeld", through the program keel-pam, a process for each attempt. Whatever goes
// wrong on the way is a refusal, and an error in the log: once, until something else happens. From
// any thread.
//
// All refusals look alike, in time too: a user whom nobody knows is refused faster than a password
// is hashed. An attempt therefore keeps its place in the line until its refusal is told, so that
// how fast the line moves says nothing either.
class PamAccountCheck final : public AccountCheck {
 public:
  struct Settings {
    std::string helper;  // the path of keel-pam
    // When keel-pam is killed. Modules may ask other machines; clients wait for about as long.
    std::chrono::milliseconds deadline{std::chrono::seconds(8)};
    // keel-pam processes at once: hashing a password may take 16 MiB and a processor each. More
    // wait in line.
    std::size_t atOnce = 16;
  };

  // `refusalTime` is borrowed.
  PamAccountCheck(Settings settings, const RefusalTime& refusalTime);

  bool isPassword(std::string_view user, std::string_view password) override;
  bool mayBeUsed(std::string_view user, Clock::time_point attemptStart) override;

 private:
  // Without a start the attempt begins when its turn comes.
  bool ask(const PamQuestion& question, std::optional<Clock::time_point> attemptStart);

  const Settings settings_;
  const RefusalTime& refusalTime_;
  AttemptLine line_;
  Complaint complaint_;
};

// Where keel-pam belongs: in ../libexec/keeld of the directory of the running program.
std::string pathOfKeelPam();

}  // namespace keel
