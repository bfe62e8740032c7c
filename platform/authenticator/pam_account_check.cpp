// SPDX-License-Identifier: Apache-2.0
#include "platform/authenticator/pam_account_check.h"

#include <fmt/format.h>

#include <cstring>
#include <filesystem>
#include <utility>

#include "platform/authenticator/helper_process.h"
#include "runtime/dispatch/current_user.h"

namespace keel {

namespace {

// Returns the warning for a failed helper, empty if it gave a verdict. Never names the user: people
// type passwords into that field by mistake.
std::string warningFor(const HelperAnswer& answer, const PamAccountCheck::Settings& settings) {
  switch (answer.outcome) {
    case HelperAnswer::Outcome::notStarted:
      return fmt::format("cannot run {}: {}; all passwords are refused until that is fixed",
                         settings.helper, std::strerror(answer.detail));
    case HelperAnswer::Outcome::silent:
      return fmt::format(
          "keel-pam did not answer within {} ms and was killed; look for a module of the PAM "
          "service keeld that hangs",
          settings.deadline.count());
    case HelperAnswer::Outcome::ended:
      return answer.detail != 0 ? fmt::format(
                                      "keel-pam was killed by signal {}; look for a module of the "
                                      "PAM service keeld that "
                                      "crashes",
                                      answer.detail)
                                : "keel-pam exited without an answer; look for a module of the PAM "
                                  "service keeld that ends it";
    case HelperAnswer::Outcome::answered:
      break;
  }
  switch (static_cast<PamVerdict>(answer.answer)) {
    case PamVerdict::accepted:
    case PamVerdict::refused:
      return {};
    case PamVerdict::withoutService:
      return "there is no PAM service keeld; install the file /etc/pam.d/keeld, until then all "
             "passwords are refused";
    case PamVerdict::failed:
      return "PAM cannot be queried; fix /etc/pam.d/keeld, which needs rules for auth and account, "
             "until then all passwords are "
             "refused";
  }
  return "keel-pam sent a malformed answer; reinstall it, in the same version as "
         "keeld";
}

}  // namespace

PamAccountCheck::PamAccountCheck(Settings settings, const RefusalTime& refusalTime)
    : settings_(std::move(settings)), refusalTime_(refusalTime), admissions_(settings_.atOnce) {}

bool PamAccountCheck::isPassword(std::string_view user, std::string_view password) {
  return ask({.task = PamQuestion::Task::password,
              .askingUser = currentUser(),
              .user = user,
              .password = password},
             std::nullopt);
}

bool PamAccountCheck::mayBeUsed(std::string_view user, Clock::time_point attemptStart) {
  return ask({.task = PamQuestion::Task::account,
              .askingUser = currentUser(),
              .user = user,
              .password = {}},
             attemptStart);
}

bool PamAccountCheck::ask(const PamQuestion& question,
                          std::optional<Clock::time_point> attemptStart) {
  auto packet = encodePamQuestion(question);
  // An immediate refusal leaks nothing: no account can have such a name or password.
  if (!packet) return false;
  const AdmissionQueue::Admission admission = admissions_.admit();
  const Clock::time_point start = attemptStart.value_or(refusalTime_.now());
  const HelperAnswer answer = askHelper(settings_.helper, packet->bytes(), settings_.deadline);
  packet->shrink(0);
  warning_.update(warningFor(answer, settings_));
  if (answer.outcome == HelperAnswer::Outcome::answered &&
      answer.answer == static_cast<std::byte>(PamVerdict::accepted)) {
    return true;
  }
  refusalTime_.await(start);
  return false;
}

std::string pathOfKeelPam() {
  std::error_code problem;
  const auto program = std::filesystem::read_symlink("/proc/self/exe", problem);
  return program.parent_path().parent_path() / "libexec/keeld/keel-pam";
}

}  // namespace keel
