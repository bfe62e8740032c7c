// SPDX-License-Identifier: Apache-2.0
#include "tools/event_command.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string_view>

#include "tools/signals.h"

namespace keel {

namespace {

// Returns a file with the input: unlike a pipe it needs no writer while the program runs, whether
// the program reads it or not.
int fileOf(const std::string& content) {
  const int file = ::memfd_create("event", MFD_CLOEXEC);
  if (file < 0) return -1;
  std::string_view rest = content;
  while (!rest.empty()) {
    const ssize_t written = ::write(file, rest.data(), rest.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) break;
    rest.remove_prefix(static_cast<std::size_t>(written));
  }
  ::lseek(file, 0, SEEK_SET);
  return file;
}

std::vector<std::string> environmentWith(const std::string& name, const std::string& event) {
  std::vector<std::string> environment;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string_view text = *entry;
    if (!text.starts_with("KEELCTL_NAME=") && !text.starts_with("KEELCTL_EVENT="))
      environment.emplace_back(text);
  }
  environment.push_back("KEELCTL_EVENT=" + event);
  if (name.size() <= EventCommand::kNameBytes && name.find('\0') == std::string::npos)
    environment.push_back("KEELCTL_NAME=" + name);
  return environment;
}

std::vector<char*> pointersTo(std::vector<std::string>& words) {
  std::vector<char*> pointers;
  for (std::string& word : words) pointers.push_back(word.data());
  pointers.push_back(nullptr);
  return pointers;
}

}  // namespace

std::expected<int, std::string> EventCommand::run(const std::string& name, const std::string& event,
                                                  const std::string& input) const {
  const int file = fileOf(input);
  if (file < 0) return std::unexpected(std::strerror(errno));
  std::vector<std::string> words = words_;
  std::vector<std::string> environment = environmentWith(name, event);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, file, STDIN_FILENO);
  // Restores the signal dispositions that keelctl inherited.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none, taken;
  sigemptyset(&none);
  sigemptyset(&taken);
  for (const int signal : {SIGINT, SIGTERM, SIGPIPE}) sigaddset(&taken, signal);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &taken);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  pid_t child = 0;
  const int fault = ::posix_spawnp(&child, words[0].c_str(), &actions, &attributes,
                                   pointersTo(words).data(), pointersTo(environment).data());
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  ::close(file);
  if (fault != 0) return std::unexpected(std::strerror(fault));

  passSignalsTo(child);
  int status = 0;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) continue;
  passSignalsTo(0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace keel
