// SPDX-License-Identifier: Apache-2.0
#include "client/challenge_answer.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "platform/authenticator/basic_answer.h"
#include "platform/authenticator/digest_answer.h"
#include "platform/authenticator/digest_hash.h"

namespace keel {
namespace {

const Secret kPassword("Circle of Life");

std::string line(const char* algorithm) {
  return fmt::format(
      R"(Digest realm="a realm", qop="auth", algorithm={}, nonce="7ypf", opaque="FQhe", charset=UTF-8, userhash=true)",
      algorithm);
}

TEST(BasicAnswer, MatchesTheStandardsExample) {
  // RFC 7617, section 2.
  EXPECT_EQ(basicAnswer("Aladdin", Secret("open sesame"))->text(),
            "Basic QWxhZGRpbjpvcGVuIHNlc2FtZQ==");
  EXPECT_EQ(basicAnswer("test", Secret("123\xc2\xa3"))->text(), "Basic dGVzdDoxMjPCow==");
}

TEST(BasicAnswer, ANameWithAColonIsRefused) {
  EXPECT_FALSE(basicAnswer("a:b", kPassword));
  EXPECT_EQ(basicAnswer("", Secret(""))->text(), "Basic Og==");
}

TEST(DigestReply, MatchesTheServersProof) {
  const auto reply = DigestReply::to(line("SHA-256") + "\n" + line("MD5"), "Mufasa", kPassword);
  ASSERT_TRUE(reply);
  const auto answer = DigestAnswer::parse(reply->answer().text());
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->user, "Mufasa");
  EXPECT_EQ(answer->realm, "a realm");
  EXPECT_EQ(answer->nonce, "7ypf");
  EXPECT_EQ(answer->opaque, "FQhe");
  EXPECT_EQ(answer->algorithm, DigestAlgorithm::sha256);
  const auto secret = digestOf(DigestAlgorithm::sha256, {"Mufasa", "a realm", "Circle of Life"});
  const auto request = digestOf(DigestAlgorithm::sha256, {"GET", answer->uri});
  const auto expected =
      digestOf(DigestAlgorithm::sha256,
               {secret->text(), "7ypf", "00000001", answer->clientNonce, "auth", request->text()});
  EXPECT_EQ(answer->response, expected->text());

  const auto back = digestOf(DigestAlgorithm::sha256, {"", answer->uri});
  const auto confirmation =
      digestOf(DigestAlgorithm::sha256,
               {secret->text(), "7ypf", "00000001", answer->clientNonce, "auth", back->text()});
  EXPECT_TRUE(reply->isConfirmedBy(fmt::format("qop=auth, rspauth=\"{}\"", confirmation->text())));
  EXPECT_FALSE(reply->isConfirmedBy(fmt::format("qop=auth, rspauth=\"{}\"", expected->text())));
  EXPECT_FALSE(reply->isConfirmedBy("qop=auth"));
  EXPECT_FALSE(reply->isConfirmedBy(""));
}

TEST(DigestReply, NamesAreQuoted) {
  const auto reply = DigestReply::to(line("MD5"), R"(a"b\c)", kPassword);
  ASSERT_TRUE(reply);
  EXPECT_EQ(DigestAnswer::parse(reply->answer().text())->user, R"(a"b\c)");
  EXPECT_EQ(DigestAnswer::parse(reply->answer().text())->algorithm, DigestAlgorithm::md5);
}

TEST(DigestReply, TwoAnswersToOneChallengeDiffer) {
  EXPECT_NE(DigestReply::to(line("MD5"), "Mufasa", kPassword)->answer().text(),
            DigestReply::to(line("MD5"), "Mufasa", kPassword)->answer().text());
}

TEST(DigestReply, UnsupportedChallengesAreRefused) {
  for (const std::string& challenge :
       {std::string(), std::string("Basic realm=\"x\""), line("SHA-512"), std::string("Digest"),
        std::string("Digest realm=\"a\", nonce=\"b\", algorithm=MD5")}) {
    EXPECT_FALSE(DigestReply::to(challenge, "Mufasa", kPassword)) << challenge;
  }
}

}  // namespace
}  // namespace keel
