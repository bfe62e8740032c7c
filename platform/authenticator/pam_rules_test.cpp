// SPDX-License-Identifier: Apache-2.0
#include "platform/authenticator/pam_rules.h"

#include <gtest/gtest.h>

#include <string>

#include "runtime/foundation/temporary_folder.h"

namespace keel {
namespace {

class PamRulesTest : public ::testing::Test {
 protected:
  void write(const std::string& service, const std::string& text) const {
    folder.write(service, text);
  }
  // Returns the rule types of the service "own" when its file is `text`.
  std::string typesOf(const std::string& text) const {
    write("own", text);
    const PamRules rules(directory);
    return std::string(rules.has("own", "auth") ? "auth " : "") +
           (rules.has("own", "account") ? "account " : "");
  }

  const TemporaryFolder folder;
  const std::string directory = folder.path();
};

TEST_F(PamRulesTest, CountsRulesOfTheFileItself) {
  EXPECT_EQ(typesOf("auth required pam_unix.so\n"), "auth ");
  EXPECT_EQ(typesOf("# first\n\n\tACCOUNT\trequired pam_unix.so nullok # last"), "account ");
  EXPECT_EQ(typesOf("auth [success=1 default=ignore] pam_unix.so\naccount [success=ok] x.so"),
            "auth account ");
  EXPECT_EQ(typesOf("auth \\\n required \\\n pam_unix.so\n"), "auth ");
}

TEST_F(PamRulesTest, IgnoresWhatIsNotARule) {
  EXPECT_FALSE(PamRules(directory).has("missing", "auth"));
  for (const char* text :
       {"", "#auth required pam_unix.so\n", "nonsense\n", "auth", "auth required\n",
        "auth required # pam_unix.so", "auth [success=1 default=ignore]\n",
        "# \\\nauthx required pam_unix.so", "password required pam_unix.so",
        "session required pam_unix.so", "-auth required pam_unix.so"}) {
    EXPECT_EQ(typesOf(text), "") << text;
  }
}

TEST_F(PamRulesTest, CountsRulesOfIncludedFiles) {
  write("both", "auth required pam_unix.so\naccount required pam_unix.so\n");
  write("one", "auth required pam_unix.so\n");
  write("none", "session required pam_unix.so\n");
  EXPECT_EQ(typesOf("@include both"), "auth account ");
  EXPECT_EQ(typesOf("@include one"), "auth ");
  EXPECT_EQ(typesOf("@include none\n"), "");
  EXPECT_EQ(typesOf("@include missing"), "");
  EXPECT_EQ(typesOf("@include"), "");
  EXPECT_EQ(typesOf("@include missing\n@include one\naccount substack both"), "auth account ");
  for (const std::string control : {"include", "substack", "Include"}) {
    EXPECT_EQ(typesOf("auth " + control + " both"), "auth ");
    EXPECT_EQ(typesOf("account " + control + " both"), "account ");
    EXPECT_EQ(typesOf("account " + control + " one"), "");
    EXPECT_EQ(typesOf("auth " + control + " none\naccount " + control + " none"), "");
    EXPECT_EQ(typesOf("auth " + control), "");
  }
}

TEST_F(PamRulesTest, IgnoresFilesOutsideTheDirectory) {
  write("one", "auth required pam_unix.so\n");
  write(".hidden", "auth required pam_unix.so\n");
  folder.makeFolder("deeper");
  write("deeper/one", "auth required pam_unix.so\n");
  for (const std::string& name :
       {directory + "/one", std::string("../x/one"), std::string("deeper/one"),
        std::string("./one"), std::string(".hidden"), std::string("deeper")}) {
    EXPECT_EQ(typesOf("@include " + name), "") << name;
  }
}

TEST_F(PamRulesTest, DepthIsBounded) {
  for (std::size_t number = 2; number <= PamRules::kDepth; ++number) {
    write("file" + std::to_string(number), "@include file" + std::to_string(number + 1));
  }
  write("file" + std::to_string(PamRules::kDepth), "auth required pam_unix.so");
  EXPECT_EQ(typesOf("@include file2"), "auth ");
  EXPECT_EQ(typesOf("@include file1"), "");
  write("file1", "@include file2");
  EXPECT_EQ(typesOf("@include file1"), "");
}

TEST_F(PamRulesTest, BoundsFilesThatIncludeThemselves) {
  std::string text;
  for (int i = 0; i < 100; ++i) text += "@include own\n";
  EXPECT_EQ(typesOf(text), "");
  EXPECT_EQ(typesOf(text + "auth required pam_unix.so\n"), "auth ");
}

}  // namespace
}  // namespace keel
