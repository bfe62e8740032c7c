// SPDX-License-Identifier: Apache-2.0
#include "tools/polkit_agent.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string>

#include "runtime/foundation/file_descriptor.h"

namespace keel {

PolkitAgent::PolkitAgent() {
  // It prompts at the controlling terminal, whatever standard input is.
  const FileDescriptor terminal(::open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC));
  int both[2];
  if (!terminal || ::pipe2(both, O_CLOEXEC) != 0) return;
  const FileDescriptor ready(both[0]);
  FileDescriptor written(both[1]);
  constexpr int kNotify = 3;
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_adddup2(&actions, written.get(), kNotify);
  posix_spawnattr_t attributes;
  ::posix_spawnattr_init(&attributes);
  sigset_t all, none;
  ::sigfillset(&all);
  ::sigemptyset(&none);
  ::posix_spawnattr_setsigdefault(&attributes, &all);
  ::posix_spawnattr_setsigmask(&attributes, &none);
  ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
  std::string ours = std::to_string(::getpid());
  std::string notify = std::to_string(kNotify);
  std::array<std::string, 5> words{"pkttyagent", "--process", ours, "--notify-fd", notify};
  std::array<char*, 6> arguments{};
  for (std::size_t i = 0; i < words.size(); ++i) arguments[i] = words[i].data();
  if (::posix_spawnp(&process_, "pkttyagent", &actions, &attributes, arguments.data(), environ) !=
      0)
    process_ = 0;
  ::posix_spawn_file_actions_destroy(&actions);
  ::posix_spawnattr_destroy(&attributes);
  written.reset();
  // It closes its end when it is ready; its exit does, too.
  char byte;
  while (process_ != 0 && ::read(ready.get(), &byte, 1) < 0 && errno == EINTR) {
  }
}

PolkitAgent::~PolkitAgent() {
  if (process_ == 0) return;
  ::kill(process_, SIGTERM);
  while (::waitpid(process_, nullptr, 0) < 0 && errno == EINTR) {
  }
}

}  // namespace keel
