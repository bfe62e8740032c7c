// SPDX-License-Identifier: Apache-2.0
#include "runtime/foundation/error.h"

#include <gtest/gtest.h>

#include "runtime/foundation/value.h"

namespace keel {
namespace {

Dictionary described(const char* text) {
  return Dictionary(Value::map({{std::string(NSLocalizedDescriptionKey), text}}));
}

TEST(Error, IsFalseWhenNull) {
  EXPECT_FALSE(Error());
  EXPECT_FALSE(Error(nullptr));
  EXPECT_TRUE(Error("d", 0));
}

TEST(Error, KeepsDomainCodeAndUserInfo) {
  const Error error("KLNErrorDomain", -5, described("text"));
  EXPECT_EQ(error.domain().view(), "KLNErrorDomain");
  EXPECT_EQ(error.code(), -5);
  EXPECT_TRUE(error.userInfo() == described("text"));
}

TEST(Error, NullHasNoDomainNoCodeAndNoUserInfo) {
  EXPECT_TRUE(Error().domain().isNull());
  EXPECT_EQ(Error().code(), 0);
  EXPECT_TRUE(Error().userInfo().isNull());
}

TEST(Error, ANullDomainBecomesEmpty) {
  EXPECT_FALSE(Error(nullptr, 1).domain().isNull());
  EXPECT_TRUE(Error(nullptr, 1) == Error("", 1));
}

TEST(Error, ComparesDomainCodeAndUserInfo) {
  EXPECT_TRUE(Error("d", 1, described("t")) == Error("d", 1, described("t")));
  EXPECT_FALSE(Error("d", 1) == Error("e", 1));
  EXPECT_FALSE(Error("d", 1) == Error("d", 2));
  EXPECT_FALSE(Error("d", 1, described("t")) == Error("d", 1, described("u")));
  EXPECT_FALSE(Error("d", 1, described("t")) == Error("d", 1));
  EXPECT_FALSE(Error("d", 1) == Error());
  EXPECT_TRUE(Error() == Error(nullptr));
}

TEST(ErrorDescription, IsTheTextThenDomainAndCode) {
  const Error error("KLNErrorDomain", 9, described("the key a has already been published"));
  EXPECT_EQ(error.description(), "the key a has already been published (KLNErrorDomain error 9)");
}

TEST(ErrorDescription, IsDomainAndCodeWithoutAText) {
  EXPECT_EQ(Error("KLNErrorDomain", 9).description(), "KLNErrorDomain error 9");
  EXPECT_EQ(Error("d", -1, Dictionary(Value::map({{"other", "x"}}))).description(), "d error -1");
  EXPECT_EQ(Error("d", 1, Dictionary(Value::map({{std::string(NSLocalizedDescriptionKey), 5}})))
                .description(),
            "d error 1");
}

TEST(ErrorDescription, FindsTheTextBehindMembersOfOtherKinds) {
  const Dictionary userInfo(Value::map({
      {"nested", Value::map({{std::string(NSLocalizedDescriptionKey), "wrong"}})},
      {"list", Value::list({1, "two", Date{3}, Error("e", 4)})},
      {std::string(NSLocalizedDescriptionKey), "right"},
      {"after", nullptr},
  }));
  EXPECT_EQ(Error("d", 1, userInfo).description(), "right (d error 1)");
}

TEST(ErrorDescription, TheLastOfTwoTextsWins) {
  const std::string key(NSLocalizedDescriptionKey);
  EXPECT_EQ(Error("d", 1, Dictionary(Value::map({{key, "first"}, {key, "last"}}))).description(),
            "last (d error 1)");
  EXPECT_EQ(Error("d", 1, Dictionary(Value::map({{key, "first"}, {key, 2}}))).description(),
            "d error 1");
}

TEST(ErrorDescription, IsNullForNoError) {
  EXPECT_EQ(Error().description(), "(null)");
}

TEST(DescribedError, HoldsDomainCodeAndDescription) {
  const Error error = describedError("domain", 7, "no \u00fc here");
  EXPECT_EQ(error.domain(), String("domain"));
  EXPECT_EQ(error.code(), 7);
  EXPECT_EQ(error.description(), "no \u00fc here (domain error 7)");
}

TEST(DescribedError, ReplacesBytesThatAreNotUtf8) {
  EXPECT_EQ(describedError("d", 1, "file \xff\xc3").description(), "file ?? (d error 1)");
}

}  // namespace
}  // namespace keel
