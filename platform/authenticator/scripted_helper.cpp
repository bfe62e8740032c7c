// SPDX-License-Identifier: Apache-2.0
// A helper program for tests: executes the command it is sent and reports its findings in its
// answer.

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <string_view>

extern char** environ;

namespace {

constexpr int kSocket = 3;

void answer(std::string_view packet) {
  ::send(kSocket, packet.data(), packet.size(), MSG_NOSIGNAL);
}

[[noreturn]] void hang() {
  for (;;) ::pause();
}

int openDescriptorCount() {
  int count = 0;
  for (int descriptor = 0; descriptor < 1024; ++descriptor)
    count += ::fcntl(descriptor, F_GETFD) >= 0;
  return count;
}

bool hasDefaultSignals() {
  sigset_t blocked;
  ::sigprocmask(SIG_SETMASK, nullptr, &blocked);
  for (int number = 1; number < 32; ++number) {
    struct sigaction action{};
    ::sigaction(number, nullptr, &action);
    if (action.sa_handler != SIG_DFL || ::sigismember(&blocked, number) != 0) return false;
  }
  return true;
}

// Leaves behind a process of the same group that holds the socket.
void leaveAChild() {
  if (::fork() == 0) hang();
}

}  // namespace

int main(int count, char**) {
  std::array<char, 1024> packet{};
  const ssize_t size = ::recv(kSocket, packet.data(), packet.size(), 0);
  const std::string_view task(packet.data(), size < 0 ? 0 : static_cast<std::size_t>(size));
  if (task == "answer") answer("y");
  if (task == "answer and hang") answer("y"), hang();
  if (task == "answer and leave a child") leaveAChild(), answer("y");
  if (task == "two bytes") answer("yy");
  if (task == "nothing") return 0;
  if (task == "hang") hang();
  if (task == "hang up and hang") ::close(kSocket), hang();
  if (task == "crash") ::raise(SIGSEGV);
  if (task == "crash and leave a child") leaveAChild(), ::raise(SIGSEGV);
  if (task == "descriptors") answer(openDescriptorCount() == 4 ? "y" : "n");
  if (task == "signals") answer(hasDefaultSignals() ? "y" : "n");
  if (task == "environment") answer(*environ == nullptr && count == 1 ? "y" : "n");
  if (task == "session") answer(::getsid(0) == ::getpid() ? "y" : "n");
  return 0;
}
