// SPDX-License-Identifier: Apache-2.0
#include "platform/authenticator/helper_process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <string_view>

#include "runtime/foundation/file_descriptor.h"

namespace keel {
namespace {

using namespace std::chrono_literals;
using Outcome = HelperAnswer::Outcome;

// Only bounds a hanging test.
constexpr auto kLong = 60s;

HelperAnswer ask(std::string_view task, std::chrono::milliseconds deadline = kLong) {
  return askHelper(KEEL_SCRIPTED_HELPER, std::as_bytes(std::span(task)), deadline);
}

bool answersYes(std::string_view task) {
  const HelperAnswer answer = ask(task);
  return answer.outcome == Outcome::answered && answer.answer == std::byte{'y'};
}

bool hasChildren() {
  return ::waitpid(-1, nullptr, WNOHANG) >= 0 || errno != ECHILD;
}

TEST(HelperProcess, AnswersAndIsReaped) {
  EXPECT_TRUE(answersYes("answer"));
  EXPECT_FALSE(hasChildren());
}

TEST(HelperProcess, KillsAHelperThatDoesNotExit) {
  EXPECT_TRUE(answersYes("answer and hang"));
  EXPECT_FALSE(hasChildren());
}

TEST(HelperProcess, KillsTheChildrenToo) {
  // Orphans would become children of this process.
  ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
  EXPECT_TRUE(answersYes("answer and leave a child"));
  int status = 0;
  ASSERT_GT(::waitpid(-1, &status, 0), 0);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
  EXPECT_FALSE(hasChildren());
  ::prctl(PR_SET_CHILD_SUBREAPER, 0);
}

TEST(HelperProcess, KillsAHangingHelperAtTheDeadline) {
  EXPECT_EQ(ask("hang", 20ms).outcome, Outcome::silent);
  EXPECT_EQ(ask("hang up and hang", 20ms).outcome, Outcome::silent);
  EXPECT_FALSE(hasChildren());
}

TEST(HelperProcess, NoticesACrashImmediately) {
  const HelperAnswer answer = ask("crash");
  EXPECT_EQ(answer.outcome, Outcome::ended);
  EXPECT_EQ(answer.detail, SIGSEGV);
  EXPECT_FALSE(hasChildren());
}

TEST(HelperProcess, NoticesACrashWhileAnotherProcessHoldsTheSocket) {
  const HelperAnswer answer = ask("crash and leave a child");
  EXPECT_EQ(answer.outcome, Outcome::ended);
  EXPECT_EQ(answer.detail, SIGSEGV);
}

TEST(HelperProcess, NoticesAnExitWithoutAnAnswer) {
  const HelperAnswer answer = ask("nothing");
  EXPECT_EQ(answer.outcome, Outcome::ended);
  EXPECT_EQ(answer.detail, 0);
}

TEST(HelperProcess, IgnoresAnAnswerOfAnotherSize) {
  EXPECT_EQ(ask("two bytes").outcome, Outcome::ended);
}

TEST(HelperProcess, ReportsAHelperThatCannotBeStarted) {
  const HelperAnswer answer = askHelper("/nonexistent/helper", {}, kLong);
  EXPECT_EQ(answer.outcome, Outcome::notStarted);
  EXPECT_EQ(answer.detail, ENOENT);
  EXPECT_EQ(askHelper("/", {}, kLong).detail, EACCES);
  EXPECT_FALSE(hasChildren());
}

TEST(HelperProcess, PassesNoOtherDescriptors) {
  // A descriptor without close-on-exec.
  const FileDescriptor leaking(::fcntl(STDERR_FILENO, F_DUPFD, 700));
  ASSERT_TRUE(leaking);
  EXPECT_TRUE(answersYes("descriptors"));
}

TEST(HelperProcess, ResetsSignals) {
  sigset_t blocked, before;
  ::sigemptyset(&blocked);
  ::sigaddset(&blocked, SIGTERM);
  ::pthread_sigmask(SIG_BLOCK, &blocked, &before);
  const auto handlerBefore = ::signal(SIGHUP, SIG_IGN);
  EXPECT_TRUE(answersYes("signals"));
  ::signal(SIGHUP, handlerBefore);
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST(HelperProcess, PassesNeitherArgumentsNorEnvironment) {
  EXPECT_TRUE(answersYes("environment"));
}

TEST(HelperProcess, StartsItsOwnSession) {
  EXPECT_TRUE(answersYes("session"));
}

TEST(HelperProcess, LeaksNoDescriptors) {
  const auto openCount = [] {
    const std::filesystem::directory_iterator open("/proc/self/fd");
    return std::distance(begin(open), end(open));
  };
  ask("answer");
  const auto before = openCount();
  for (const char* task : {"answer", "crash", "nothing"}) ask(task);
  ask("hang", 1ms);
  EXPECT_EQ(openCount(), before);
}

}  // namespace
}  // namespace keel
