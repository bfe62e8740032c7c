// SPDX-License-Identifier: Apache-2.0
// A PAM module for tests, controlled by its first argument in the service's file:
//   hang FILE              creates the file and does not return
//   crash, exit            ends the process that way
//   leak                   leaves open descriptors and a process behind, and accepts
//   rename USER            substitutes another account, and accepts
//   prompt                 prompts for input with echo
//   report FILE            writes its view of the process to a file, and accepts
//   asker FILE             writes PAM_RUSER and PAM_RHOST to a file, and accepts
//   permit                 accepts

#include <fcntl.h>
#include <security/pam_appl.h>
#include <security/pam_modules.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <span>
#include <string>
#include <string_view>

namespace {

[[noreturn]] void hang() {
  for (;;) ::pause();
}

void leak() {
  for (int i = 0; i < 10; ++i) ::open("/dev/null", O_RDONLY);
  if (::fork() == 0) hang();
}

int prompt(pam_handle_t* pam) {
  const void* item = nullptr;
  if (::pam_get_item(pam, PAM_CONV, &item) != PAM_SUCCESS) return PAM_AUTH_ERR;
  const auto& conversation = *static_cast<const pam_conv*>(item);
  const pam_message message{.msg_style = PAM_PROMPT_ECHO_ON, .msg = "code: "};
  const pam_message* messages = &message;
  pam_response* response = nullptr;
  return conversation.conv(1, &messages, &response, conversation.appdata_ptr);
}

void report(const char* path) {
  std::ofstream file(path);
  for (const char* name : {"cmdline", "environ", "limits", "status"}) {
    file << "== " << name << "\n" << std::ifstream(std::string("/proc/self/") + name).rdbuf();
    file.clear();  // an empty one counts as a failure
    file << "\n";
  }
  file << "== descriptors\n";
  for (int descriptor = 0; descriptor < 1024; ++descriptor) {
    const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
    if (::fcntl(descriptor, F_GETFD) >= 0)
      file << descriptor << " " << std::filesystem::read_symlink(link).native() << "\n";
  }
  file << "== process\ndumpable " << ::prctl(PR_GET_DUMPABLE) << "\nleader "
       << (::getsid(0) == ::getpid()) << "\n";
}

std::string itemOf(pam_handle_t* pam, int type) {
  const void* item = nullptr;
  if (::pam_get_item(pam, type, &item) != PAM_SUCCESS || item == nullptr) return "-";
  return static_cast<const char*>(item);
}

void reportAsker(pam_handle_t* pam, const char* path) {
  std::ofstream(path) << itemOf(pam, PAM_RUSER) << ' ' << itemOf(pam, PAM_RHOST) << '\n';
}

int act(pam_handle_t* pam, std::span<const char*> arguments) {
  const std::string_view task = arguments.empty() ? "" : arguments[0];
  if (task == "hang") std::ofstream(arguments[1]).close(), hang();
  // A sanitizer in the process would intercept it.
  if (task == "crash") ::signal(SIGSEGV, SIG_DFL), ::raise(SIGSEGV);
  if (task == "exit") std::_Exit(0);
  if (task == "leak") leak();
  if (task == "prompt") return prompt(pam);
  if (task == "rename") ::pam_set_item(pam, PAM_USER, arguments[1]);
  if (task == "asker") reportAsker(pam, arguments[1]);
  if (task == "report") report(arguments[1]);
  return PAM_SUCCESS;
}

}  // namespace

extern "C" {

[[gnu::visibility("default")]] int pam_sm_authenticate(pam_handle_t* pam, int, int count,
                                                       const char** arguments) {
  return act(pam, {arguments, static_cast<std::size_t>(count)});
}

[[gnu::visibility("default")]] int pam_sm_setcred(pam_handle_t*, int, int, const char**) {
  return PAM_SUCCESS;
}

[[gnu::visibility("default")]] int pam_sm_acct_mgmt(pam_handle_t* pam, int, int count,
                                                    const char** arguments) {
  return act(pam, {arguments, static_cast<std::size_t>(count)});
}

}  // extern "C"
