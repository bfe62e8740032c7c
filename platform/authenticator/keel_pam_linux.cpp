// SPDX-License-Identifier: Apache-2.0
// keel-pam: makes one request to PAM service "keeld" for the daemon and exits. One process per
// request, because a module may do anything: hang, crash, leak, change the process. The daemon
// kills it at a deadline.
//
// Descriptor 3 is a socket: it reads one packet (pam_question.h) and replies with one byte.

#include <pwd.h>
#include <security/pam_appl.h>
#include <shadow.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <span>
#include <string>

#include "platform/authenticator/pam_question.h"
#include "platform/authenticator/pam_rules.h"
#include "platform/authenticator/refusal_work.h"

namespace {

using keel::PamQuestion;
using keel::PamVerdict;

constexpr int kSocket = 3;
constexpr const char* kService = "keeld";
// Passed to PAM so that a service without a file there fails instead of falling back to the service
// "other".
constexpr const char* kServiceDirectory = "/etc/pam.d";
constexpr const char* kServiceFile = "/etc/pam.d/keeld";

// Before any secret is read: disable cores and non-root debuggers, and die with the daemon.
bool protectOurselves() {
  const rlimit none{.rlim_cur = 0, .rlim_max = 0};
  ::umask(077);
  return ::setrlimit(RLIMIT_CORE, &none) == 0 && ::prctl(PR_SET_DUMPABLE, 0) == 0 &&
         ::prctl(PR_SET_PDEATHSIG, SIGKILL) == 0 && ::chdir("/") == 0;
}

// Returns true if the socket's creator, the daemon, is still our parent: it may have exited before
// the parent-death signal was set.
bool isDaemonAlive() {
  ucred maker{};
  socklen_t size = sizeof(maker);
  return ::getsockopt(kSocket, SOL_SOCKET, SO_PEERCRED, &maker, &size) == 0 &&
         maker.pid == ::getppid();
}

// Returns true if the service has rules for both requests. For a missing one PAM would use those of
// the service "other".
bool isServiceComplete() {
  const keel::PamRules rules(kServiceDirectory);
  return rules.has(kService, "auth") && rules.has(kService, "account");
}

// Answers each prompt with echo off with the account's password. Other prompts fail.
int answerPrompts(int count, const pam_message** messages, pam_response** responses,
                  void* password) {
  if (count <= 0 || count > PAM_MAX_NUM_MSG) return PAM_CONV_ERR;
  const std::span<const pam_message*> asked(messages, static_cast<std::size_t>(count));
  for (const pam_message* message : asked) {
    if (message->msg_style == PAM_PROMPT_ECHO_ON) return PAM_CONV_ERR;
  }
  // PAM wipes the answers and frees it.
  auto* const answers = static_cast<pam_response*>(std::calloc(asked.size(), sizeof(pam_response)));
  if (answers == nullptr) return PAM_BUF_ERR;
  for (std::size_t i = 0; i < asked.size(); ++i) {
    if (asked[i]->msg_style == PAM_PROMPT_ECHO_OFF)
      answers[i].resp = ::strdup(static_cast<const char*>(password));
  }
  *responses = answers;
  return PAM_SUCCESS;
}

// Replaces PAM's delay after a failure; the daemon gives every refusal the same duration.
void doNotDelay(int, unsigned, void*) {}

// Returns the account's canonical name for any of its names; nothing if there is no such account.
std::optional<std::string> accountName(const std::string& name) {
  const passwd* const entry = ::getpwnam(name.c_str());
  return entry != nullptr && entry->pw_name != nullptr ? std::optional<std::string>(entry->pw_name)
                                                       : std::nullopt;
}

bool hasLockedPassword(const std::string& name) {
  const spwd* const entry = ::getspnam(name.c_str());
  return entry != nullptr && entry->sp_pwdp != nullptr && entry->sp_pwdp[0] == '!';
}

// A "!" before the encrypted password locks an account. PAM's account management does not check it,
// because a locked account cannot have passed the password check. The entry is under the account's
// canonical name, which an alias need not resolve to here.
bool isLocked(const std::string& user) {
  return hasLockedPassword(user) || hasLockedPassword(accountName(user).value_or(user));
}

// A module may have replaced the account with another one, which is refused; replacing an alias
// with the account's own name is fine.
bool isStillAbout(pam_handle_t* pam, const std::string& user) {
  const void* item = nullptr;
  if (::pam_get_item(pam, PAM_USER, &item) != PAM_SUCCESS || item == nullptr) return false;
  const std::string now = static_cast<const char*>(item);
  if (now == user) return true;
  const auto asked = accountName(user);
  return asked && asked == accountName(now);
}

// Returns the login name, or the uid if it has no account.
std::string nameOf(uid_t user) {
  const passwd* const entry = ::getpwuid(user);
  return entry != nullptr && entry->pw_name != nullptr ? entry->pw_name : std::to_string(user);
}

// Sets PAM_RUSER. PAM_RHOST stays unset: all clients are local.
bool nameAskingUser(pam_handle_t* pam, const PamQuestion& question) {
  return !question.askingUser ||
         ::pam_set_item(pam, PAM_RUSER, nameOf(*question.askingUser).c_str()) == PAM_SUCCESS;
}

PamVerdict ask(pam_handle_t* pam, const PamQuestion& question) {
  constexpr int kFlags = PAM_SILENT | PAM_DISALLOW_NULL_AUTHTOK;
  using Delay = void (*)(int, unsigned, void*);
  const Delay delay = doNotDelay;
  if (::pam_set_item(pam, PAM_FAIL_DELAY, reinterpret_cast<const void*>(delay)) != PAM_SUCCESS ||
      !nameAskingUser(pam, question))
    return PamVerdict::failed;
  if (question.task == PamQuestion::Task::password) {
    if (::pam_authenticate(pam, kFlags) != PAM_SUCCESS) {
      keel::RefusalWork().make(std::string(question.user), question.password.data());
      return PamVerdict::refused;
    }
  } else if (isLocked(std::string(question.user))) {
    return PamVerdict::refused;
  }
  // Refuses expired accounts, and those that must change their password first.
  if (::pam_acct_mgmt(pam, kFlags) != PAM_SUCCESS || !isStillAbout(pam, std::string(question.user)))
    return PamVerdict::refused;
  return PamVerdict::accepted;
}

PamVerdict answer(const PamQuestion& question) {
  if (::access(kServiceFile, F_OK) != 0) return PamVerdict::withoutService;
  if (!isServiceComplete()) return PamVerdict::failed;
  const pam_conv conversation{.conv = answerPrompts,
                              .appdata_ptr = const_cast<char*>(question.password.data())};
  pam_handle_t* pam = nullptr;
  if (::pam_start_confdir(kService, std::string(question.user).c_str(), &conversation,
                          kServiceDirectory, &pam) != PAM_SUCCESS) {
    return PamVerdict::failed;
  }
  const PamVerdict verdict = ask(pam, question);
  ::pam_end(pam, verdict == PamVerdict::accepted ? PAM_SUCCESS : PAM_AUTH_ERR);
  return verdict;
}

}  // namespace

int main() {
  if (!protectOurselves()) return EXIT_FAILURE;
  keel::Secret packet(keel::kPamQuestionBytes + 1);
  const ssize_t count = ::recv(kSocket, packet.bytes().data(), packet.bytes().size(), 0);
  if (count < 0) {
    std::fputs("keel-pam is run by keeld, to ask about passwords.\n", stderr);
    return EXIT_FAILURE;
  }
  if (!isDaemonAlive()) return EXIT_FAILURE;
  packet.shrink(static_cast<std::size_t>(count));
  const auto question = keel::decodePamQuestion(packet.bytes());
  if (!question) return EXIT_FAILURE;
  const PamVerdict verdict = answer(*question);
  packet.shrink(0);
  return ::send(kSocket, &verdict, 1, MSG_NOSIGNAL) == 1 ? EXIT_SUCCESS : EXIT_FAILURE;
}
