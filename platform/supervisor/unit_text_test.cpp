// SPDX-License-Identifier: Apache-2.0
#include "platform/supervisor/unit_text.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace keel {
namespace {

TEST(UnitName, KeepsOrdinaryLabels) {
  EXPECT_EQ(unitNameOf("com.vantor.keeld.mail-2_x"), "com.vantor.keeld.mail-2_x");
}

TEST(UnitName, CannotEscapeTheFolder) {
  EXPECT_EQ(unitNameOf("../../etc/x"), ":2e.:2f..:2fetc:2fx");
  EXPECT_EQ(unitNameOf("-.mount"), ":2d.mount");
  EXPECT_EQ(unitNameOf("a b%n\n@"), "a:20b:25n:0a:40");
  EXPECT_EQ(unitNameOf("\xc3\xa4"), ":c3:a4");
  EXPECT_EQ(unitNameOf("a:2e"), "a:3a2e");
}

TEST(UnitName, DiffersForDifferentTexts) {
  const std::string alphabet = ".:-2e/";
  std::set<std::string> names;
  std::size_t count = 0;
  for (const char first : alphabet) {
    for (const char second : alphabet) {
      for (const char third : alphabet) {
        names.insert(unitNameOf(std::string{first, second, third}));
        ++count;
      }
    }
  }
  EXPECT_EQ(names.size(), count);
}

TEST(QuotedWord, EscapesQuotes) {
  EXPECT_EQ(quotedWord(""), "\"\"");
  EXPECT_EQ(quotedWord("a b"), "\"a b\"");
  EXPECT_EQ(quotedWord("a\"b\\"), "\"a\\\"b\\\\\"");
  EXPECT_EQ(quotedWord("%n%"), "\"%%n%%\"");
  EXPECT_EQ(quotedWord("a\nExecStart=/bin/sh\t\x7f"), "\"a\\x0aExecStart=/bin/sh\\x09\\x7f\"");
  EXPECT_EQ(quotedWord("$HOME;'\xc3\xa4"), "\"$HOME;'\xc3\xa4\"");
}

TEST(CommandLine, ExpandsNothing) {
  EXPECT_EQ(commandLine("/p q", {"zero", "$X", ";"}), ":@\"/p q\" \"zero\" \"$X\" \";\"");
}

TEST(PlainSetting, HasNoSpecifiers) {
  EXPECT_EQ(plainSetting("/a b/%n"), "/a b/%%n");
}

TEST(DescribedText, IsASingleLine) {
  EXPECT_EQ(describedText("a\n\x01\\b"), "a???b");
}

}  // namespace
}  // namespace keel
