// SPDX-License-Identifier: Apache-2.0
#include "platform/authenticator/pam_account_check.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "runtime/logging/recording_output.h"

// Uses other programs instead of keel-pam. PAM itself is tested end to end.

namespace keel {
namespace {

using namespace std::chrono_literals;

class PamAccountCheckTest : public ::testing::Test {
 protected:
  // Records refusals without waiting.
  const RefusalTime refusalTime{500ms, [] { return RefusalTime::Clock::time_point(); },
                                [this](RefusalTime::Clock::time_point) { ++refusalCount; }};
  int refusalCount = 0;
  std::vector<std::string> logged;
  LogCapture capture{[this](const LogMessage& message) { logged.emplace_back(message.text); }};
};

TEST_F(PamAccountCheckTest, AMissingHelperRefusesEverythingAndIsLoggedOnce) {
  PamAccountCheck check({.helper = "/nonexistent/keel-pam"}, refusalTime);
  EXPECT_FALSE(check.isPassword("alice", "secret"));
  EXPECT_FALSE(check.mayBeUsed("alice", {}));
  EXPECT_EQ(refusalCount, 2);
  ASSERT_EQ(logged.size(), 1U);
  EXPECT_EQ(logged[0],
            "cannot run /nonexistent/keel-pam: No such file or directory; all passwords are "
            "refused until that is fixed");
}

TEST_F(PamAccountCheckTest, RefusesWithoutAnAnswer) {
  PamAccountCheck check({.helper = "/bin/true"}, refusalTime);
  EXPECT_FALSE(check.isPassword("alice", "secret"));
  EXPECT_EQ(refusalCount, 1);
  ASSERT_EQ(logged.size(), 1U);
  EXPECT_EQ(
      logged[0],
      "keel-pam exited without an answer; look for a module of the PAM service keeld that ends it");
}

TEST_F(PamAccountCheckTest, RefusesOnAMalformedAnswer) {
  // The program does not know the task, and hangs up.
  PamAccountCheck check({.helper = KEEL_SCRIPTED_HELPER}, refusalTime);
  EXPECT_FALSE(check.isPassword("alice", "secret"));
  EXPECT_EQ(refusalCount, 1);
}

TEST_F(PamAccountCheckTest, RefusesImpossibleNamesAndPasswordsImmediately) {
  PamAccountCheck check({.helper = "/nonexistent/keel-pam"}, refusalTime);
  EXPECT_FALSE(check.isPassword("", "secret"));
  EXPECT_FALSE(check.isPassword(std::string(256, 'u'), "secret"));
  EXPECT_FALSE(check.isPassword("alice", std::string(512, 'p')));
  EXPECT_FALSE(check.isPassword("alice", std::string_view("secret\0", 7)));
  EXPECT_FALSE(check.mayBeUsed(std::string_view("alice\0", 6), {}));
  EXPECT_EQ(refusalCount, 0);
  EXPECT_TRUE(logged.empty());
}

TEST(PathOfKeelPam, IsRelativeToTheProgram) {
  EXPECT_TRUE(pathOfKeelPam().ends_with("/libexec/keeld/keel-pam")) << pathOfKeelPam();
  EXPECT_TRUE(pathOfKeelPam().starts_with("/"));
}

}  // namespace
}  // namespace keel
