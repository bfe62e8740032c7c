// SPDX-License-Identifier: Apache-2.0
#include "platform/product/crash_report.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <barrier>
#include <cstdlib>
#include <functional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "platform/product/build_id.h"
#include "platform/product/crash_annotation.h"
#include "runtime/foundation/crash_stack.h"
#include "runtime/foundation/file_descriptor.h"

namespace keel {
namespace {

using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::Not;
using ::testing::StartsWith;

struct End {
  int signal = 0;  // that killed the process; 0 if none
  int exitCode = 0;
  std::string text;  // written to standard error
};

End waitFor(pid_t process, const FileDescriptor& reading) {
  End end;
  std::array<char, 4096> piece{};
  for (ssize_t count = 0; (count = ::read(reading.get(), piece.data(), piece.size())) > 0;) {
    end.text.append(piece.data(), static_cast<std::size_t>(count));
  }
  int status = 0;
  ::waitpid(process, &status, 0);
  if (WIFSIGNALED(status)) end.signal = WTERMSIG(status);
  if (WIFEXITED(status)) end.exitCode = WEXITSTATUS(status);
  return end;
}

// Runs `crash` in its own process with crash reporting, and returns how it ended.
End endOf(const std::function<void()>& crash, CrashOutput output = CrashOutput::lines) {
  int ends[2];
  if (::pipe(ends) != 0) std::abort();
  const FileDescriptor reading(ends[0]);
  FileDescriptor writing(ends[1]);
  const pid_t process = ::fork();
  if (process == 0) {
    ::dup2(writing.get(), STDERR_FILENO);
    writing.reset();
    setCrashBanner("4.2");
    installCrashReport(output);
    crash();
    ::_exit(0);
  }
  writing.reset();
  return waitFor(process, reading);
}

// A sanitizer's own handlers for some signals stay in place.
bool isReportedByASanitizer(int signal) {
  struct sigaction before{};
  ::sigaction(signal, nullptr, &before);
  return before.sa_handler != SIG_DFL;
}

std::size_t timesIn(std::string_view text, std::string_view wanted) {
  std::size_t count = 0;
  for (auto at = text.find(wanted); at != std::string_view::npos; at = text.find(wanted, at + 1))
    ++count;
  return count;
}

TEST(BuildId, MatchesTheLinkers) {
  EXPECT_THAT(buildId(), MatchesRegex("[0-9a-f]{16,}"));
}

TEST(CrashReport, NamesSignalThreadBannerBuildAndFrames) {
  const End end = endOf([] { std::abort(); });
  EXPECT_EQ(end.signal, SIGABRT);
  EXPECT_THAT(end.text, StartsWith("keeld crashed: signal 6 (Aborted) in thread product_test\n"
                                   "* Calder Version 4.2 *\n"
                                   "build id " +
                                   buildId() + "\nbacktrace:\n  "));
  // Frames in our own code and in the C library.
  EXPECT_THAT(end.text, ContainsRegex("\n  /[^\n]*product_test\\+0x[0-9a-f]+\n"));
  EXPECT_THAT(end.text, ContainsRegex("\n  /[^\n]*libc\\.so\\.6\\+0x[0-9a-f]+\n"));
}

TEST(CrashReport, EveryFaultSignalIsReportedAndKillsTheProcess) {
  for (const int signal : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT, SIGSYS}) {
    if (isReportedByASanitizer(signal)) continue;
    const End end = endOf([signal] { ::kill(::getpid(), signal); });
    EXPECT_EQ(end.signal, signal);
    EXPECT_THAT(end.text, StartsWith("keeld crashed: signal " + std::to_string(signal) + " ("));
    EXPECT_THAT(end.text, HasSubstr(", sent by process "));
    EXPECT_THAT(end.text, HasSubstr("\nbacktrace:\n  /"));
  }
}

TEST(CrashReport, JournalLinesBeginWithTheirPriority) {
  const End end = endOf([] { std::abort(); }, CrashOutput::journal);
  EXPECT_EQ(timesIn(end.text, "\n<2>"), timesIn(end.text, "\n") - 1);
  EXPECT_THAT(end.text, StartsWith("<2>keeld crashed: "));
}

// Recurses until the stack is exhausted. Uses the result after the call, which prevents a tail
// call.
int descend(int depth) {
  const volatile int next = depth + 1;
  return next == 0 ? 0 : descend(next) + next;
}

TEST(CrashStack, IsInUseOnItsThreadWhileAlive) {
  std::thread([] {
    EXPECT_FALSE(CrashStack::isInUse());
    {
      const CrashStack stack;
      EXPECT_TRUE(CrashStack::isInUse());
      std::thread([] { EXPECT_FALSE(CrashStack::isInUse()); }).join();
    }
    EXPECT_FALSE(CrashStack::isInUse());
  }).join();
}

TEST(CrashReport, ReportsAThreadWithAnExhaustedStack) {
  if (isReportedByASanitizer(SIGSEGV)) GTEST_SKIP() << "the sanitizer reports it";
  const End end = endOf([] {
    std::thread([] {
      const CrashStack stack;
      descend(0);
    }).join();
  });
  EXPECT_EQ(end.signal, SIGSEGV);
  EXPECT_THAT(end.text, StartsWith("keeld crashed: signal 11 (Segmentation fault) in thread "));
  EXPECT_THAT(end.text, HasSubstr("* Calder Version 4.2 *\n"));
  EXPECT_THAT(end.text, HasSubstr("\nbacktrace:\n  /"));
}

TEST(CrashReport, ConcurrentCrashesProduceOneReport) {
  const End end = endOf([] {
    constexpr int kThreads = 8;
    std::barrier together(kThreads);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([&together] {
        together.arrive_and_wait();
        ::raise(SIGSYS);
      });
    }
    for (std::thread& thread : threads) thread.join();
  });
  EXPECT_EQ(end.signal, SIGSYS);
  EXPECT_EQ(timesIn(end.text, "keeld crashed"), 1u);
  EXPECT_EQ(timesIn(end.text, "backtrace:"), 1u);
}

TEST(CrashReport, AnUnreadOutputDoesNotDelayTheExit) {
  int full[2];
  ASSERT_EQ(::pipe(full), 0);
  const FileDescriptor reading(full[0]);
  const FileDescriptor writing(full[1]);
  const End end = endOf([&] {
    ::dup2(writing.get(), STDERR_FILENO);
    installCrashReport(CrashOutput::lines);
    // Our handlers are installed already, so this only changes the output.
    ::fcntl(writing.get(), F_SETFL, O_NONBLOCK);
    while (::write(writing.get(), "x", 1) == 1) {
    }
    ::fcntl(writing.get(), F_SETFL, 0);
    std::abort();
  });
  EXPECT_EQ(end.signal, SIGABRT);
}

TEST(CrashReport, KeepsAnExistingHandler) {
  const End end = endOf([] {
    ::signal(SIGFPE, [](int) { ::_exit(7); });
    installCrashReport(CrashOutput::lines);
    ::raise(SIGFPE);
  });
  EXPECT_EQ(end.exitCode, 7);
  EXPECT_EQ(end.text, "");
}

TEST(CrashReport, EndsProcessOneOfAContainer) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root makes namespaces";
  const End end = endOf([] {
    if (::unshare(CLONE_NEWPID) != 0) ::_exit(1);
    const pid_t first = ::fork();
    if (first == 0) std::abort();
    int status = 0;
    ::waitpid(first, &status, 0);
    ::_exit(WIFEXITED(status) ? WEXITSTATUS(status) : 2);
  });
  if (end.exitCode == 1) GTEST_SKIP() << "this machine refuses namespaces";
  EXPECT_EQ(end.exitCode, 128 + SIGABRT);
  EXPECT_THAT(end.text, StartsWith("keeld crashed: signal 6 "));
}

TEST(CrashReport, HidesValuesThatAreNotCodeAddresses) {
  const End end = endOf([] { std::abort(); });
  EXPECT_THAT(end.text, Not(ContainsRegex("0x[0-9a-f]{9,}")));
}

}  // namespace
}  // namespace keel
