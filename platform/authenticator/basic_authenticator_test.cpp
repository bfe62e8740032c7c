// SPDX-License-Identifier: Apache-2.0
#include "platform/authenticator/basic_authenticator.h"

#include <gmock/gmock.h>

#include <string>

#include "platform/authenticator/basic_answer.h"
#include "platform/authenticator/recording_accounts.h"
#include "runtime/foundation/base64.h"

namespace keel {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

std::string encoded(std::string_view text) {
  return encodeBase64(std::as_bytes(std::span(text)));
}

// Returns "USER PASSWORD", or "none" if the answer is refused.
std::string parsed(std::string_view text) {
  const auto answer = BasicAnswer::parse(text);
  return answer ? std::string(answer->user()) + " " + std::string(answer->password()) : "none";
}

// RFC 7617, section 2.
TEST(BasicAnswer, ExampleOfTheRfc) {
  EXPECT_EQ(parsed("Basic QWxhZGRpbjpvcGVuIHNlc2FtZQ=="), "Aladdin open sesame");
}

// RFC 7617, section 2.1.
TEST(BasicAnswer, ExampleOfTheRfcInUtf8) {
  EXPECT_EQ(parsed("Basic dGVzdDoxMjPCow=="), "test 123\xc2\xa3");
}

TEST(BasicAnswer, MayLackTheScheme) {
  EXPECT_EQ(parsed("QWxhZGRpbjpvcGVuIHNlc2FtZQ=="), "Aladdin open sesame");
}

TEST(BasicAnswer, SchemeIsCaseInsensitive) {
  EXPECT_EQ(parsed("bASIC  QWxhZGRpbjpvcGVuIHNlc2FtZQ=="), "Aladdin open sesame");
}

TEST(BasicAnswer, SplitsAtTheFirstColon) {
  EXPECT_EQ(parsed(encoded("a:b:c")), "a b:c");
}

TEST(BasicAnswer, AcceptsAnEmptyPasswordButNoEmptyName) {
  EXPECT_EQ(parsed(encoded("a:")), "a ");
  EXPECT_EQ(parsed(encoded(":b")), "none");
}

TEST(BasicAnswer, RefusesMalformedAnswers) {
  for (const std::string_view text :
       {"", "Basic", "Basic ", "Digest QTpi", "QTpi\n", " QTpi", "QTpi ", "Basic QTpi QTpi", "QTp",
        "Q*pi", "Basic Basic QTpi"}) {
    EXPECT_EQ(parsed(text), "none") << text;
  }
  for (const std::string_view plain :
       {std::string_view("alice"), std::string_view("a\0:b", 4), std::string_view("a:b\0", 4),
        std::string_view("a:b\n"), std::string_view("a:\x7f"), std::string_view("a:\xff")}) {
    EXPECT_EQ(parsed(encoded(plain)), "none") << plain;
  }
}

TEST(BasicAnswer, SizeIsBounded) {
  const std::string largest = encoded("a:" + std::string(BasicAnswer::kMaxBytes / 4 * 3 - 2, 'p'));
  ASSERT_EQ(largest.size(), BasicAnswer::kMaxBytes);
  EXPECT_NE(parsed(largest), "none");
  EXPECT_EQ(parsed("basic " + largest), "none");
}

class BasicAuthenticatorTest : public ::testing::Test {
 protected:
  RecordingAccounts accounts;
  BasicAuthenticator authenticator{"my \"realm\"", accounts};
};

TEST_F(BasicAuthenticatorTest, Challenges) {
  EXPECT_EQ(authenticator.generateInitialResponse(),
            String(R"(Basic realm="my \"realm\"", charset="UTF-8")"));
}

TEST_F(BasicAuthenticatorTest, ChecksThePassword) {
  EXPECT_TRUE(authenticator.userName().isNull());
  String response("before");
  EXPECT_TRUE(authenticator.validateChallenge("Basic QWxhZGRpbjpvcGVuIHNlc2FtZQ==", &response));
  EXPECT_THAT(accounts.asked, ElementsAre("password Aladdin open sesame"));
  EXPECT_EQ(authenticator.userName(), String("Aladdin"));
  EXPECT_TRUE(response.isNull());
}

TEST_F(BasicAuthenticatorTest, NeedsNoResponse) {
  EXPECT_TRUE(authenticator.validateChallenge("Basic QWxhZGRpbjpvcGVuIHNlc2FtZQ==", nullptr));
}

TEST_F(BasicAuthenticatorTest, RefusesAWrongPasswordWithoutNamingTheUser) {
  accounts.answer = false;
  String response("before");
  EXPECT_FALSE(authenticator.validateChallenge("Basic QWxhZGRpbjpvcGVuIHNlc2FtZQ==", &response));
  EXPECT_TRUE(authenticator.userName().isNull());
  EXPECT_EQ(response, String("before"));
}

TEST_F(BasicAuthenticatorTest, RefusesMalformedAnswersWithoutACheck) {
  EXPECT_FALSE(authenticator.validateChallenge("Basic QWxhZGRpbg==", nullptr));
  EXPECT_THAT(accounts.asked, IsEmpty());
}

TEST_F(BasicAuthenticatorTest, RefusesANullAnswer) {
  EXPECT_FALSE(authenticator.validateChallenge(nullptr, nullptr));
}

TEST_F(BasicAuthenticatorTest, TakesOneAnswer) {
  EXPECT_TRUE(authenticator.validateChallenge("QWxhZGRpbjpvcGVuIHNlc2FtZQ==", nullptr));
  EXPECT_FALSE(authenticator.validateChallenge("QWxhZGRpbjpvcGVuIHNlc2FtZQ==", nullptr));
  EXPECT_EQ(accounts.asked.size(), 1U);
}

TEST_F(BasicAuthenticatorTest, RefusesAnyAnswerAfterAWrongOne) {
  EXPECT_FALSE(authenticator.validateChallenge("nonsense", nullptr));
  EXPECT_FALSE(authenticator.validateChallenge("QWxhZGRpbjpvcGVuIHNlc2FtZQ==", nullptr));
  EXPECT_THAT(accounts.asked, IsEmpty());
}

}  // namespace
}  // namespace keel
