// SPDX-License-Identifier: Apache-2.0
#include "tools/signals.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <thread>

namespace keel {

namespace {

std::atomic<pid_t> childToSignal{0};
std::atomic<void (*)()> functionAtEnd{nullptr};

}  // namespace

void endOnSignals() {
  ::signal(SIGPIPE, SIG_IGN);
  sigset_t ending;
  sigemptyset(&ending);
  sigaddset(&ending, SIGINT);
  sigaddset(&ending, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &ending, nullptr);
  std::thread([ending] {
    int signal = 0;
    while (sigwait(&ending, &signal) != 0) continue;
    if (const pid_t child = childToSignal; child > 0) ::kill(child, signal);
    if (const auto function = functionAtEnd.load()) function();
    _exit(128 + signal);
  }).detach();
}

void callAtEndBySignal(void (*function)()) {
  functionAtEnd = function;
}

void passSignalsTo(pid_t child) {
  childToSignal = child;
}

}  // namespace keel
