// SPDX-License-Identifier: Apache-2.0
#include "client/library_thread.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <initializer_list>

#include "runtime/dispatch/system.h"
#include "runtime/transport/transport_context.h"

namespace keel {

namespace {

// A thread inherits the mask of the thread that starts it.
class SignalsBlocked {
 public:
  SignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    // Blocked, these would end the process without running its handlers.
    for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP, SIGSYS})
      sigdelset(&all, fault);
    pthread_sigmask(SIG_BLOCK, &all, &before_);
  }
  ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;

 private:
  sigset_t before_;
};

struct LibraryThread {
  Reactor& reactor;
  pid_t process;
};

LibraryThread start() {
  const SignalsBlocked blocked;
  return {ioReactor(), ::getpid()};
}

const LibraryThread& libraryThread() {
  static const LibraryThread thread = start();
  return thread;
}

}  // namespace

Reactor& libraryReactor() {
  return libraryThread().reactor;
}

pid_t libraryProcess() {
  return libraryThread().process;
}

bool isForkedFromLibrary() {
  return libraryProcess() != ::getpid();
}

xpc::TransportContext& libraryTransport() {
  libraryReactor();
  return xpc::TransportContext::ofIoThread();
}

}  // namespace keel
