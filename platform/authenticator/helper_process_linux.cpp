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

// The daemon has many threads, so nothing may run between fork and exec that could wait for a lock:
// posix_spawn(3) sees to that. It shares the daemon's memory until the exec, so it does not slow
// down as the daemon grows, either.

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
    // First, since the socket may itself be one of the descriptors below.
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

  // The process's id, or an errno.
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

// A child process that does not outlive this.
class Child {
 public:
  // Fails with an errno; then there is no such process any more.
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

  // Readable when it has ended.
  int handle() const { return handle_.get(); }

  // Kills it, if need be, with its group, and reaps it. The signal that it had died of before; 0
  // when there was none.
  int end() {
    if (pid_ == 0) return 0;
    const pid_t pid = std::exchange(pid_, 0);
    siginfo_t status{};
    // Nobody else reaps it, except the kernel where SIGCHLD is ignored; then its id may be
    // another's by now.
    if (::waitid(P_PID, static_cast<id_t>(pid), &status, WEXITED | WNOHANG | WNOWAIT) != 0)
      return 0;
    const bool diedBefore = status.si_pid == pid && status.si_code != CLD_EXITED;
    // Its id is its own, and its group's, until it has been reaped.
    ::kill(-pid, SIGKILL);
    while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) continue;
    return diedBefore ? status.si_status : 0;
  }

 private:
  Child(pid_t pid, FileDescriptor handle) : pid_(pid), handle_(std::move(handle)) {}

  pid_t pid_;
  FileDescriptor handle_;
};

// Waits until one of the two can be read. False at the deadline.
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

// One byte, then it may end as it likes. Whoever else has its socket open, its end is noticed.
HelperAnswer awaitAnswer(int socket, Child& child, Clock::time_point deadline) {
  std::array<pollfd, 2> watched{pollfd{.fd = socket, .events = POLLIN, .revents = 0},
                                pollfd{.fd = child.handle(), .events = POLLIN, .revents = 0}};
  while (awaitNews(watched, deadline)) {
    const bool hasEnded = watched[1].revents != 0;
    std::array<std::byte, 2> packet{};
    // What it said counts even when it has ended since.
    const ssize_t count = ::recv(socket, packet.data(), packet.size(), MSG_DONTWAIT);
    if (count == 1) return {.outcome = Outcome::answered, .answer = packet[0]};
    if (hasEnded || count > 1) return {.outcome = Outcome::ended, .detail = child.end()};
    // It hung up: how it ends is still to be seen.
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
  // It fits into the socket's buffer, and so does not wait for the helper.
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
