// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>

#include "platform/authenticator/account_check.h"
#include "platform/authenticator/admission_queue.h"
#include "platform/authenticator/environment_warning.h"
#include "platform/authenticator/pam_question.h"
#include "platform/authenticator/refusal_time.h"

namespace keel {

// Queries PAM service "keeld" through the program keel-pam, one process per attempt. Any failure on
// the way is a refusal and one error in the log, until a different failure occurs. From any thread.
//
// All refusals are indistinguishable, in time too: an unknown user is refused faster than a
// password is hashed. An attempt therefore keeps its slot until its refusal is returned, so that
// the queue's progress leaks nothing either.
//
// PAM modules find currentUser() of the calling thread in PAM_RUSER: what they log or lock names
// who tried.
class PamAccountCheck final : public AccountCheck {
 public:
  struct Settings {
    std::string helper;  // the path of keel-pam
    // keel-pam is killed after this. PAM modules may query other machines; clients wait about as
    // long.
    std::chrono::milliseconds deadline{std::chrono::seconds(8)};
    // Upper bound of concurrent keel-pam processes: hashing a password may take 16 MiB and a
    // processor each. Further attempts queue.
    std::size_t atOnce = 16;
  };

  // `refusalTime` is borrowed.
  PamAccountCheck(Settings settings, const RefusalTime& refusalTime);

  bool isPassword(std::string_view user, std::string_view password) override;
  bool mayBeUsed(std::string_view user, Clock::time_point attemptStart) override;

 private:
  // Without `attemptStart` the attempt begins when it is admitted.
  bool ask(const PamQuestion& question, std::optional<Clock::time_point> attemptStart);

  const Settings settings_;
  const RefusalTime& refusalTime_;
  AdmissionQueue admissions_;
  EnvironmentWarning warning_;
};

// Returns the path of keel-pam: ../libexec/keeld, relative to the running program's directory.
std::string pathOfKeelPam();

}  // namespace keel
