// SPDX-License-Identifier: Apache-2.0
#include "platform/authenticator/digest_credentials.h"

#include <gmock/gmock.h>

#include <array>
#include <string>

namespace keel {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

const std::string kMd5(32, 'a');
const std::string kSha256(64, 'b');

DigestCredentials credentials(std::string_view text) {
  return DigestCredentials(Secret(text));
}

TEST(DigestCredentials, DerivesTheAlgorithmFromTheDigestLength) {
  const auto found = credentials("alice:realm one:" + kMd5 + "\nalice:realm one:" + kSha256 + "\n");
  ASSERT_EQ(found.lines().size(), 2U);
  EXPECT_EQ(found.lines()[0].user, "alice");
  EXPECT_EQ(found.lines()[0].realm, "realm one");
  EXPECT_EQ(found.lines()[0].digest, kMd5);
  EXPECT_EQ(found.lines()[0].algorithm, DigestAlgorithm::md5);
  EXPECT_EQ(found.lines()[1].algorithm, DigestAlgorithm::sha256);
  EXPECT_THAT(found.badLines(), IsEmpty());
}

TEST(DigestCredentials, AcceptsALastLineWithoutANewline) {
  EXPECT_EQ(credentials("a:r:" + kMd5).lines().size(), 1U);
}

TEST(DigestCredentials, EmptyLinesAndCommentsAreNotBad) {
  const auto found = credentials("\n# a:r:" + kMd5 + "\n\n");
  EXPECT_THAT(found.lines(), IsEmpty());
  EXPECT_THAT(found.badLines(), IsEmpty());
}

TEST(DigestCredentials, ReportsMalformedLines) {
  const auto found =
      credentials("a:r:" + kMd5 + "\nno colon\na:one colon\n:r:" + kMd5 + "\na::" + kMd5 +
                  "\na:r:" + kMd5 + "a\na:r:" + std::string(32, 'A') +
                  "\na:r:" + std::string(32, 'g') + "\na:r:x:" + kMd5 + "\na:r:" + kMd5 + "\r\n");
  EXPECT_EQ(found.lines().size(), 1U);
  EXPECT_THAT(found.badLines(), ElementsAre(2, 3, 4, 5, 6, 7, 8, 9, 10));
}

TEST(DigestCredentials, AppendsANewUser) {
  const std::array digests{Secret(kSha256), Secret(kMd5)};
  EXPECT_EQ(credentials("").with("bob", "r", digests).text(),
            "bob:r:" + kSha256 + "\nbob:r:" + kMd5 + "\n");
  EXPECT_EQ(credentials("# mine\na:r:" + kMd5).with("bob", "r", digests).text(),
            "# mine\na:r:" + kMd5 + "\nbob:r:" + kSha256 + "\nbob:r:" + kMd5 + "\n");
}

TEST(DigestCredentials, ReplacesTheLinesOfAUser) {
  const std::array digests{Secret(std::string(32, 'c'))};
  const auto before = credentials("bob:r:" + kSha256 + "\n\nbob:other:" + kMd5 + "\nbob:r:" + kMd5 +
                                  "\nbobby:r:" + kMd5 + "\n");
  EXPECT_EQ(before.with("bob", "r", digests).text(),
            "\nbob:other:" + kMd5 + "\nbobby:r:" + kMd5 + "\nbob:r:" + std::string(32, 'c') + "\n");
}

TEST(DigestCredentials, RemovesOnlyThatUser) {
  const auto before = credentials("x\nbob:r:" + kMd5 + "\n#bob:r:" + kMd5 + "\nal:r:" + kMd5 +
                                  "\nbob:r:" + kSha256);
  EXPECT_EQ(before.without("bob", "r").text(), "x\n#bob:r:" + kMd5 + "\nal:r:" + kMd5 + "\n");
  EXPECT_EQ(before.without("bob", "q").text(), "x\nbob:r:" + kMd5 + "\n#bob:r:" + kMd5 +
                                                   "\nal:r:" + kMd5 + "\nbob:r:" + kSha256 + "\n");
}

TEST(DigestCredentials, RefusesNamesThatWouldBreakALine) {
  for (const char* text : {"", "a:b", "a\nb", "\x7f", "a\r"}) {
    EXPECT_FALSE(DigestCredentials::canBeUser(text)) << text;
    EXPECT_FALSE(DigestCredentials::canBeRealm(text)) << text;
  }
  EXPECT_FALSE(DigestCredentials::canBeUser("#a"));
  EXPECT_TRUE(DigestCredentials::canBeRealm("#a"));
  EXPECT_TRUE(DigestCredentials::canBeUser("J\xc3\xa4s\xc3\xb8n Doe"));
}

}  // namespace
}  // namespace keel
