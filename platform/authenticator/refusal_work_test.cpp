// SPDX-License-Identifier: Apache-2.0
#include "platform/authenticator/refusal_work.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace keel {
namespace {

const std::string kRoots = "$y$j9T$rrrr$hash";
const std::string kAlices = "$6$aaaa$hash";

class RefusalWorkTest : public ::testing::Test {
 protected:
  // Returns what is hashed, and with which setting, after refusing that user.
  std::vector<std::pair<std::string, std::string>> workFor(const std::string& user) {
    std::vector<std::pair<std::string, std::string>> made;
    const RefusalWork work(
        {.hashOf = [this](const std::string& name) -> std::optional<std::string> {
           for (const auto& [each, hash] : shadow) {
             if (each == name) return hash;
           }
           return std::nullopt;
         },
         .first = [this](const std::function<bool(const std::string&)>& isWanted)
             -> std::optional<std::string> {
           for (const auto& [each, hash] : shadow) {
             if (isWanted(hash)) return hash;
           }
           return std::nullopt;
         }},
        [&](const char* password, const char* setting) { made.emplace_back(password, setting); });
    work.make(user, "secret");
    return made;
  }
  using Work = std::vector<std::pair<std::string, std::string>>;
  static Work workLike(const std::string& hash) {
    return Work(RefusalWork::kHashCount, {"secret", hash});
  }

  std::vector<std::pair<std::string, std::string>> shadow{
      {"daemon", "*"},    {"locked", "!" + kRoots}, {"empty", ""},
      {"elsewhere", "x"}, {"alice", kAlices},       {"root", kRoots}};
};

TEST_F(RefusalWorkTest, HashesForAnUnknownUser) {
  EXPECT_EQ(workFor("nobody-here"), workLike(kRoots));
}

TEST_F(RefusalWorkTest, HashesForAccountsWithoutAUsablePassword) {
  for (const char* user : {"daemon", "locked", "empty", "elsewhere"})
    EXPECT_EQ(workFor(user), workLike(kRoots)) << user;
}

TEST_F(RefusalWorkTest, DoesNotHashAgainForAnAccountWithAPassword) {
  EXPECT_EQ(workFor("alice"), Work());
  EXPECT_EQ(workFor("root"), Work());
}

TEST_F(RefusalWorkTest, UsesAnotherAccountsSettingIfRootHasNoPassword) {
  shadow.back().second = "!";
  EXPECT_EQ(workFor("nobody-here"), workLike(kAlices));
}

TEST_F(RefusalWorkTest, UsesTheSystemsDefaultIfNoAccountHasAPassword) {
  shadow.clear();
  const Work work = workFor("nobody-here");
  ASSERT_FALSE(work.empty());
  EXPECT_TRUE(work[0].second.starts_with("$")) << work[0].second;
}

}  // namespace
}  // namespace keel
