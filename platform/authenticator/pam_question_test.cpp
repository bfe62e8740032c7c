// SPDX-License-Identifier: Apache-2.0
#include "platform/authenticator/pam_question.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>

namespace keel {
namespace {

using Task = PamQuestion::Task;

std::optional<PamQuestion> decoded(std::string_view packet) {
  return decodePamQuestion(std::as_bytes(std::span(packet)));
}

bool canBeAsked(Task task, std::string_view user, std::string_view password) {
  return encodePamQuestion({.task = task, .user = user, .password = password}).has_value();
}

TEST(PamQuestion, RoundTrips) {
  auto packet = encodePamQuestion(
      {.task = Task::password, .askingUser = 501, .user = "alice", .password = "open sesame"});
  ASSERT_TRUE(packet);
  EXPECT_EQ(packet->text(), std::string_view("p501\0alice\0open sesame\0", 23));
  const auto question = decodePamQuestion(packet->bytes());
  ASSERT_TRUE(question);
  EXPECT_EQ(question->task, Task::password);
  EXPECT_EQ(question->askingUser, 501);
  EXPECT_EQ(question->user, "alice");
  EXPECT_EQ(question->password, "open sesame");
  EXPECT_EQ(question->user.data()[question->user.size()], '\0');
  EXPECT_EQ(question->password.data()[question->password.size()], '\0');
}

TEST(PamQuestion, OmitsAnUnknownAskingUser) {
  auto packet = encodePamQuestion({.task = Task::password, .user = "a", .password = "x"});
  ASSERT_TRUE(packet);
  EXPECT_EQ(packet->text(), std::string_view("p\0a\0x\0", 6));
  const auto question = decodePamQuestion(packet->bytes());
  ASSERT_TRUE(question);
  EXPECT_EQ(question->askingUser, std::nullopt);
}

TEST(PamQuestion, LargestFitsItsBound) {
  const std::string user(kUserNameBytes, 'u');
  const std::string password(kPasswordBytes, 'p');
  auto packet = encodePamQuestion({.task = Task::password,
                                   .askingUser = std::numeric_limits<uid_t>::max(),
                                   .user = user,
                                   .password = password});
  ASSERT_TRUE(packet);
  EXPECT_EQ(packet->bytes().size(), kPamQuestionBytes);
  const auto question = decodePamQuestion(packet->bytes());
  ASSERT_TRUE(question);
  EXPECT_EQ(question->askingUser, std::numeric_limits<uid_t>::max());
}

TEST(PamQuestion, OmitsThePasswordForAnAccountCheck) {
  auto packet = encodePamQuestion({.task = Task::account, .user = "a", .password = ""});
  ASSERT_TRUE(packet);
  const auto question = decodePamQuestion(packet->bytes());
  ASSERT_TRUE(question);
  EXPECT_EQ(question->task, Task::account);
  EXPECT_EQ(question->password, "");
  EXPECT_FALSE(canBeAsked(Task::account, "a", "x"));
}

TEST(PamQuestion, AcceptsAnEmptyPasswordButNoEmptyUser) {
  EXPECT_TRUE(canBeAsked(Task::password, "a", ""));
  EXPECT_FALSE(canBeAsked(Task::password, "", "x"));
}

TEST(PamQuestion, SizesAreBounded) {
  EXPECT_TRUE(canBeAsked(Task::password, std::string(kUserNameBytes, 'u'),
                         std::string(kPasswordBytes, 'p')));
  EXPECT_FALSE(canBeAsked(Task::password, std::string(kUserNameBytes + 1, 'u'), "x"));
  EXPECT_FALSE(canBeAsked(Task::password, "a", std::string(kPasswordBytes + 1, 'p')));
}

TEST(PamQuestion, RefusesTextsWithANul) {
  EXPECT_FALSE(canBeAsked(Task::password, std::string_view("a\0b", 3), "x"));
  EXPECT_FALSE(canBeAsked(Task::password, "a", std::string_view("x\0y", 3)));
  EXPECT_FALSE(canBeAsked(Task::password, "a", std::string_view("x\0", 2)));
}

TEST(PamQuestion, RefusesNamesUnsafeForModules) {
  for (const char* user : {"a\nb", "\x01", "a\x7f", "../alice", "/", "\talice"}) {
    EXPECT_FALSE(canBeAsked(Task::password, user, "x")) << user;
  }
  for (const char* user : {"DOMAIN\\alice", "alice@example.org", "al ice", "-", "\xc3\xa4"}) {
    EXPECT_TRUE(canBeAsked(Task::password, user, "x")) << user;
  }
  EXPECT_TRUE(canBeAsked(Task::password, "a", "line\n/\x7f"));
}

TEST(PamQuestion, RefusesMalformedPackets) {
  EXPECT_TRUE(decoded({"p1\0a\0x\0", 7}));
  for (const std::string_view packet : {
           std::string_view(), std::string_view("p\0\0\0", 4),
           std::string_view("p\0\0x\0", 5),             // no user
           std::string_view("p\0a\0x", 5),              // unterminated
           std::string_view("p\0aaa\0", 6),             // no password
           std::string_view("p\0a\0x\0y\0", 8),         // an extra text
           std::string_view("a\0a\0x\0", 6),            // an unexpected password
           std::string_view("x\0a\0x\0", 6),            // unknown task
           std::string_view("pbob\0a\0x\0", 9),         // an asking user that is no number
           std::string_view("p1 \0a\0x\0", 8),          // trailing characters
           std::string_view("p4294967296\0a\0x\0", 16)  // out of range
       }) {
    EXPECT_FALSE(decoded(packet)) << packet;
  }
}

}  // namespace
}  // namespace keel
