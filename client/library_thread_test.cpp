// SPDX-License-Identifier: Apache-2.0
// A separate program: its tests must be the ones that start the library's thread.
#include "client/library_thread.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "client/auth_client.h"
#include "client/client.h"
#include "client/module_listener.h"
#include "client/ping_proxy.h"
#include "runtime/foundation/file_descriptor.h"
#include "runtime/foundation/temporary_folder.h"

namespace keel {

namespace {

// A program that uses every part of the library, without a daemon.
class LibraryThread : public testing::Test {
 protected:
  TemporaryFolder folder;
  const ClientOptions options{.serviceDirectory = folder.path(), .reconnect = false};
  const std::unique_ptr<KLNClient> client = KLNClient::create(options);
  const std::unique_ptr<KLNAuthClient> authClient = KLNAuthClient::create(options);
  const ClientResult<std::unique_ptr<KLNModuleListener>> listener =
      KLNModuleListener::create<PingProxy>(
          "ping", [](const ModulePeer&) { return std::make_shared<Ping>(); },
          {.serviceDirectory = folder.path()});
};

// Returns the blocked signals of a thread of this process from /proc: bit 0 is signal 1.
std::uint64_t blockedSignalsOf(const std::string& thread) {
  std::ifstream status("/proc/self/task/" + thread + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("SigBlk:")) return std::stoull(line.substr(7), nullptr, 16);
  }
  return 0;
}

std::string nameOfThread(const std::string& thread) {
  std::string name;
  std::getline(std::ifstream("/proc/self/task/" + thread + "/comm"), name);
  return name;
}

TEST_F(LibraryThread, ASignalIsLeftToAProgramThatBlocksItLater) {
  sigset_t terminate, before;
  sigemptyset(&terminate);
  sigaddset(&terminate, SIGTERM);
  ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &terminate, &before), 0);
  const FileDescriptor signals(::signalfd(-1, &terminate, SFD_CLOEXEC));
  ASSERT_EQ(::kill(::getpid(), SIGTERM), 0);
  signalfd_siginfo taken{};
  ASSERT_EQ(::read(signals.get(), &taken, sizeof taken), static_cast<ssize_t>(sizeof taken));
  EXPECT_EQ(taken.ssi_signo, static_cast<std::uint32_t>(SIGTERM));
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST_F(LibraryThread, EveryThreadOfTheLibraryBlocksAllButFaults) {
  constexpr std::uint64_t kFaults = 1u << (SIGSEGV - 1) | 1u << (SIGBUS - 1) | 1u << (SIGFPE - 1) |
                                    1u << (SIGILL - 1) | 1u << (SIGABRT - 1) | 1u << (SIGTRAP - 1) |
                                    1u << (SIGSYS - 1);
  constexpr std::uint64_t kNeverBlocked = 1u << (SIGKILL - 1) | 1u << (SIGSTOP - 1);
  // Signals 32 and 33 belong to the C library.
  constexpr std::uint64_t kStandardSignals = 0x7fffffff;
  // The answer proves that the thread runs and has set its name.
  ASSERT_FALSE(client->dump("weather").wait());
  int found = 0;
  DIR* const threads = ::opendir("/proc/self/task");
  ASSERT_NE(threads, nullptr);
  while (const dirent* entry = ::readdir(threads)) {
    const std::string thread = entry->d_name;
    if (!nameOfThread(thread).starts_with("keel-")) continue;
    ++found;
    // The C library blocks all signals while a thread begins, ends, or makes another.
    std::uint64_t blocked = 0;
    do {
      blocked = blockedSignalsOf(thread) & kStandardSignals;
    } while (blocked == (kStandardSignals & ~kNeverBlocked));
    EXPECT_EQ(blocked, kStandardSignals & ~kFaults & ~kNeverBlocked) << nameOfThread(thread);
  }
  ::closedir(threads);
  EXPECT_GE(found, 1);
}

TEST_F(LibraryThread, TheCallersMaskIsUnchanged) {
  sigset_t mask;
  ASSERT_EQ(pthread_sigmask(SIG_BLOCK, nullptr, &mask), 0);
  EXPECT_EQ(sigismember(&mask, SIGTERM), 0);
  EXPECT_EQ(sigismember(&mask, SIGUSR1), 0);
}

}  // namespace
}  // namespace keel
