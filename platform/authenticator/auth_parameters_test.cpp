// SPDX-License-Identifier: Apache-2.0
#include "platform/authenticator/auth_parameters.h"

#include <gtest/gtest.h>

#include <string>

namespace keel {
namespace {

// Returns the value of parameter "a", or "none" if the text is refused or lacks it.
std::string valueOfA(std::string_view text) {
  const auto parameters = AuthParameters::parse(text);
  const std::string* const value = parameters ? parameters->find("a") : nullptr;
  return value != nullptr ? *value : "none";
}

std::string list(std::size_t count) {
  std::string text = "a=x";
  for (std::size_t i = 1; i < count; ++i) text += ",p" + std::to_string(i) + "=x";
  return text;
}

TEST(AuthParameters, SchemeIsCaseInsensitive) {
  EXPECT_EQ(afterScheme("Digest a=1", "digest"), "a=1");
  EXPECT_EQ(afterScheme("dIGEST   a=1 ", "digest"), "a=1 ");
  EXPECT_EQ(afterScheme("Basic ", "basic"), "");
}

TEST(AuthParameters, RefusesAnotherScheme) {
  for (const char* text :
       {"", "Digest", "Digesta=1", "Digests a=1", "Basic a=1", " Digest a=1", "Digest\ta=1"}) {
    EXPECT_FALSE(afterScheme(text, "digest")) << text;
  }
}

TEST(AuthParameters, AcceptsTokensAndQuotedStrings) {
  EXPECT_EQ(valueOfA("a=token"), "token");
  EXPECT_EQ(valueOfA("a=\"quoted, text\""), "quoted, text");
  EXPECT_EQ(valueOfA("a=\"\""), "");
  EXPECT_EQ(valueOfA("a=\"\\\"\\\\\\a\""), "\"\\a");
  EXPECT_EQ(valueOfA("a=\"\xc3\xa4\""), "\xc3\xa4");
}

TEST(AuthParameters, NamesAreCaseInsensitive) {
  EXPECT_EQ(valueOfA("A=x"), "x");
}

TEST(AuthParameters, SkipsBlanks) {
  EXPECT_EQ(valueOfA(" b = 1 ,\ta\t=\t\"x\" , c=2 "), "x");
}

TEST(AuthParameters, RefusesMalformedText) {
  for (const char* text : {"",
                           ",",
                           "a",
                           "a=",
                           "=x",
                           "a=x,",
                           ",a=x",
                           "a=x,,b=y",
                           "a=x b=y",
                           "a=x;b=y",
                           "a=\"x",
                           "a=\"x\\",
                           "a=\"x\"y",
                           "a=x\"y\"",
                           "a=(x)",
                           "a=\xc3\xa4",
                           "\xc3\xa4=x, a=x",
                           "a=\"x\ny\"",
                           "a=\"\\\x01\"",
                           "a=\"\x7f\"",
                           "a=x\n"}) {
    EXPECT_EQ(valueOfA(text), "none") << text;
  }
  EXPECT_EQ(valueOfA(std::string_view("a=\"x\0\"", 6)), "none");
}

TEST(AuthParameters, RefusesDuplicateNames) {
  EXPECT_EQ(valueOfA("a=x, a=x"), "none");
  EXPECT_EQ(valueOfA("a=x, b=1, B=1"), "none");
}

TEST(AuthParameters, BoundsTheirNumber) {
  EXPECT_EQ(valueOfA(list(AuthParameters::kMaxCount)), "x");
  EXPECT_EQ(valueOfA(list(AuthParameters::kMaxCount + 1)), "none");
}

TEST(AuthParameters, QuotedStringsRoundTrip) {
  for (const char* text : {"", "plain", "with \"quotes\" and \\", "\\\"", "tab\t"}) {
    EXPECT_EQ(valueOfA("a=" + quotedString(text)), text);
  }
}

}  // namespace
}  // namespace keel
