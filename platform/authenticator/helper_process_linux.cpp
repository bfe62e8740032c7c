// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <expected>
#include <utility>

#include "platform/authenticator/helper_process.h"
#include "runtime/foundation/check.h"
#include "runtime/foundation/file_descriptor.h"

// The daemon is multi-threaded, so nothing may take a lock between fork and exec; posix_spawn(3)
// guarantees that. It shares the daemon's memory until the exec, so its cost does not grow with the
// daemon.

namespace keel {

namespace {

using Clock = std::chrono::steady_clock;
using Outcome = HelperAnswer::Outcome;

constexpr int kHelperSocket = 3;

HelperAnswer notStarted(int problem) {
  return {.outcome = Outcome::notStarted, .detail = problem};
}

class SpawnSettings {
 public:
  explicit SpawnSettings(int socket) {
    ::posix_spawn_file_actions_init(&actions_);
    ::posix_spawnattr_init(&attributes_);
    // First, since the socket may be one of the descriptors below.
    add(::posix_spawn_file_actions_adddup2(&actions_, socket, kHelperSocket));
    for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
      add(::posix_spawn_file_actions_addopen(&actions_, standard, "/dev/null", O_RDWR, 0));
    }
    add(::posix_spawn_file_actions_addclosefrom_np(&actions_, kHelperSocket + 1));
    sigset_t signals;
    ::sigfillset(&signals);
    ::posix_spawnattr_setsigdefault(&attributes_, &signals);
    ::sigemptyset(&signals);
    ::posix_spawnattr_setsigmask(&attributes_, &signals);
    ::posix_spawnattr_setflags(&attributes_,
                               POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSID);
  }
  ~SpawnSettings() {
    ::posix_spawn_file_actions_destroy(&actions_);
    ::posix_spawnattr_destroy(&attributes_);
  }
  SpawnSettings(const SpawnSettings&) = delete;
  SpawnSettings& operator=(const SpawnSettings&) = delete;

  // Returns the pid, or an errno.
  std::expected<pid_t, int> spawn(std::string program) {
    if (problem_ != 0) return std::unexpected(problem_);
    std::array<char*, 2> arguments{program.data(), nullptr};
    std::array<char*, 1> environment{nullptr};
    pid_t pid = 0;
    const int problem = ::posix_spawn(&pid, program.c_str(), &actions_, &attributes_,
                                      arguments.data(), environment.data());
    if (problem != 0) return std::unexpected(problem);
    return pid;
  }

 private:
  void add(int problem) { problem_ = problem_ != 0 ? problem_ : problem; }

  posix_spawn_file_actions_t actions_;
  posix_spawnattr_t attributes_;
  int problem_ = 0;
};

// A child process that does not outlive this object.
class Child {
 public:
  // Fails with an errno; the process is then gone.
  static std::expected<Child, int> run(const std::string& program, int socket) {
    const auto pid = SpawnSettings(socket).spawn(program);
    if (!pid) return std::unexpected(pid.error());
    FileDescriptor handle(static_cast<int>(::syscall(SYS_pidfd_open, *pid, 0)));
    const int problem = errno;
    Child child(*pid, std::move(handle));
    if (!child.handle_) return std::unexpected(problem);
    return child;
  }
  Child(Child&& other) noexcept
      : pid_(std::exchange(other.pid_, 0)), handle_(std::move(other.handle_)) {}
  Child& operator=(Child&&) = delete;
  ~Child() { end(); }

  // Readable once the process has exited.
  int handle() const { return handle_.get(); }

  // Kills it with its group if necessary, and reaps it. Returns the signal it had already died of,
  // or 0.
  int end() {
    if (pid_ == 0) return 0;
    const pid_t pid = std::exchange(pid_, 0);
    siginfo_t status{};
    // Only the kernel could have reaped it, where SIGCHLD is ignored; then its pid may have been
    // reused.
    if (::waitid(P_PID, static_cast<id_t>(pid), &status, WEXITED | WNOHANG | WNOWAIT) != 0)
      return 0;
    const bool diedBefore = status.si_pid == pid && status.si_code != CLD_EXITED;
    // Its pid and group id cannot be reused before it is reaped.
    ::kill(-pid, SIGKILL);
    while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) continue;
    return diedBefore ? status.si_status : 0;
  }

 private:
  Child(pid_t pid, FileDescriptor handle) : pid_(pid), handle_(std::move(handle)) {}

  pid_t pid_;
  FileDescriptor handle_;
};

// Waits until either is readable. Returns false at the deadline.
bool awaitNews(std::array<pollfd, 2>& watched, Clock::time_point deadline) {
  for (;;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    const int count = ::poll(watched.data(), watched.size(),
                             static_cast<int>(std::clamp<long>(left, 0, 1 << 30)));
    if (count > 0) return true;
    if (count == 0 && left <= 0) return false;
    KEEL_CHECK(count == 0 || errno == EINTR);
  }
}

// Reads one byte; how the helper exits afterwards does not matter. Its exit is noticed even if
// another process holds its socket.
HelperAnswer awaitAnswer(int socket, Child& child, Clock::time_point deadline) {
  std::array<pollfd, 2> watched{pollfd{.fd = socket, .events = POLLIN, .revents = 0},
                                pollfd{.fd = child.handle(), .events = POLLIN, .revents = 0}};
  while (awaitNews(watched, deadline)) {
    const bool hasEnded = watched[1].revents != 0;
    std::array<std::byte, 2> packet{};
    // An answer counts even if the helper has exited since.
    const ssize_t count = ::recv(socket, packet.data(), packet.size(), MSG_DONTWAIT);
    if (count == 1) return {.outcome = Outcome::answered, .answer = packet[0]};
    if (hasEnded || count > 1) return {.outcome = Outcome::ended, .detail = child.end()};
    // It hung up; wait for its exit status.
    watched[0].fd = -1;
  }
  return {.outcome = Outcome::silent};
}

}  // namespace

HelperAnswer askHelper(const std::string& program, std::span<const std::byte> question,
                       std::chrono::milliseconds deadline) {
  const Clock::time_point end = Clock::now() + deadline;
  std::array<int, 2> pair{};
  if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair.data()) != 0)
    return notStarted(errno);
  const FileDescriptor ours(pair[0]);
  FileDescriptor its(pair[1]);
  // The packet fits the socket's buffer, so this does not block on the helper.
  if (::send(ours.get(), question.data(), question.size(), MSG_NOSIGNAL | MSG_DONTWAIT) !=
      static_cast<ssize_t>(question.size())) {
    return notStarted(errno);
  }
  auto child = Child::run(program, its.get());
  if (!child) return notStarted(child.error());
  its.reset();
  return awaitAnswer(ours.get(), *child, end);
}

}  // namespace keel
