// SPDX-License-Identifier: Apache-2.0
#include "modules/module_name.h"

#include <gtest/gtest.h>

namespace keel {
namespace {

TEST(ModuleName, AModuleHasTheExactPrefixAndSuffix) {
  for (const char* name : {"keel_a.bundle", "keel_.bundle", "keel_a.b.bundle"})
    EXPECT_TRUE(isModuleBundle(name)) << name;
  for (const char* name :
       {"", "keel_", ".bundle", "a.bundle", "keel_b.plist", "Keel_c.bundle", "keel_d.Bundle",
        "keel_e.bundle ", " keel_f.bundle", "keel-g.bundle", "keel_h.bundle.old", "keel_ibundle"}) {
    EXPECT_FALSE(isModuleBundle(name)) << name;
  }
}

TEST(ModuleName, TheShortNameLacksFolderPrefixAndExtension) {
  EXPECT_EQ(shortNameOfBundle("/a/keel_mail.bundle"), "mail");
  EXPECT_EQ(shortNameOfBundle("keel_mail.bundle"), "mail");
  EXPECT_EQ(shortNameOfBundle("/a.b/keel_mail.bundle/"), "mail");
  EXPECT_EQ(shortNameOfBundle("/a/keel_a.b.bundle"), "a.b");
  EXPECT_EQ(shortNameOfBundle("/a.b/keel_mail"), "mail");
  EXPECT_EQ(shortNameOfBundle("/a/keel_.bundle"), "");
}

TEST(ModuleName, SkipsAPrefixLengthOfAnyCharacters) {
  EXPECT_EQ(shortNameOfBundle("/a/other_mail.bundle"), "_mail");
  EXPECT_EQ(withoutModulePrefix("keel_x"), "x");
  EXPECT_EQ(withoutModulePrefix("KEEL-x"), "x");
  EXPECT_EQ(withoutModulePrefix("üüüüüü"), "ü");
  EXPECT_EQ(withoutModulePrefix("12345"), "");
  EXPECT_EQ(withoutModulePrefix("1234"), "");
  EXPECT_EQ(withoutModulePrefix(""), "");
}

TEST(ModuleName, TheDefaultLabelEndsWithTheShortName) {
  EXPECT_EQ(defaultModuleLabel("mail"), "com.vantor.keeld.mail");
  EXPECT_EQ(defaultModuleLabel(""), "com.vantor.keeld.");
}

}  // namespace
}  // namespace keel
