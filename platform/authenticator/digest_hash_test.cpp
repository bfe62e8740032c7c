// SPDX-License-Identifier: Apache-2.0
#include "platform/authenticator/digest_hash.h"

#include <gtest/gtest.h>

#include <string>

namespace keel {
namespace {

std::string digest(DigestAlgorithm algorithm, std::initializer_list<std::string_view> parts) {
  const auto found = digestOf(algorithm, parts);
  return found ? std::string(found->text()) : "none";
}

// RFC 1321, appendix A.5, and FIPS 180-2, appendix B.
TEST(DigestHash, TestVectors) {
  EXPECT_EQ(digest(DigestAlgorithm::md5, {""}), "d41d8cd98f00b204e9800998ecf8427e");
  EXPECT_EQ(digest(DigestAlgorithm::md5, {"message digest"}), "f96b697d7cb7938d525a2f31aaf161d0");
  EXPECT_EQ(digest(DigestAlgorithm::sha256, {"abc"}),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

TEST(DigestHash, PartsAreJoinedByColons) {
  EXPECT_EQ(digest(DigestAlgorithm::md5, {"a", "", "c"}), digest(DigestAlgorithm::md5, {"a::c"}));
  EXPECT_EQ(digest(DigestAlgorithm::md5, {"", "x"}), digest(DigestAlgorithm::md5, {":x"}));
}

TEST(DigestHash, BothAlgorithmsAreOffered) {
  EXPECT_TRUE(isOffered(DigestAlgorithm::md5));
  EXPECT_TRUE(isOffered(DigestAlgorithm::sha256));
}

TEST(DigestHash, AreEqualOnlyForEqualTexts) {
  EXPECT_TRUE(areEqual("abc", "abc"));
  EXPECT_TRUE(areEqual("", ""));
  EXPECT_FALSE(areEqual("abc", "abd"));
  EXPECT_FALSE(areEqual("abc", "ab"));
}

}  // namespace
}  // namespace keel
