// SPDX-License-Identifier: Apache-2.0
#include "notify/name_reservations.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace keel {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr uid_t kAlice = 501;
constexpr uid_t kBob = 502;

class NameReservationsTest : public ::testing::Test {
 protected:
  std::vector<std::string> add(std::string_view text, const std::string& file = "a.conf") {
    return reservations_.add(text, file, [](const std::string& name) -> std::optional<uid_t> {
      if (name == "alice") return kAlice;
      if (name == "bob") return kBob;
      return std::nullopt;
    });
  }

  NameReservations reservations_;
};

TEST_F(NameReservationsTest, WithoutRulesEverybodyMayPublishEverything) {
  EXPECT_EQ(reservations_.count(), 0U);
  EXPECT_EQ(reservations_.ownerOf("weather"), std::nullopt);
  EXPECT_TRUE(reservations_.mayPublish(kBob, "weather"));
}

TEST_F(NameReservationsTest, ANameIsReservedForItsUserAndRoot) {
  EXPECT_THAT(add("weather alice\n"), IsEmpty());
  EXPECT_EQ(reservations_.count(), 1U);
  EXPECT_EQ(reservations_.ownerOf("weather"), kAlice);
  EXPECT_TRUE(reservations_.mayPublish(kAlice, "weather"));
  EXPECT_TRUE(reservations_.mayPublish(0, "weather"));
  EXPECT_FALSE(reservations_.mayPublish(kBob, "weather"));
  for (const char* other : {"weathe", "weather2", "Weather", ""})
    EXPECT_TRUE(reservations_.mayPublish(kBob, other)) << other;
}

TEST_F(NameReservationsTest, APrefixReservesAllNamesThatBeginWithIt) {
  EXPECT_THAT(add("mail.* alice\n"), IsEmpty());
  for (const char* name : {"mail.", "mail.new", "mail.*"})
    EXPECT_EQ(reservations_.ownerOf(name), kAlice) << name;
  for (const char* name : {"mail", "mai", "xmail.new"})
    EXPECT_EQ(reservations_.ownerOf(name), std::nullopt) << name;
}

TEST_F(NameReservationsTest, TheLongestPrefixWinsAndAnExactNameOverAll) {
  EXPECT_THAT(add("* 1\nmail.* 2\nmail.inbox.* 3\nmail.inbox.new 4\nmail.inbox.newest* 5\n"),
              IsEmpty());
  EXPECT_EQ(reservations_.count(), 5U);
  EXPECT_EQ(reservations_.ownerOf("weather"), 1);
  EXPECT_EQ(reservations_.ownerOf(""), 1);
  EXPECT_EQ(reservations_.ownerOf("mail.x"), 2);
  EXPECT_EQ(reservations_.ownerOf("mail.inbox.old"), 3);
  EXPECT_EQ(reservations_.ownerOf("mail.inbox.new"), 4);
  EXPECT_EQ(reservations_.ownerOf("mail.inbox.newer"), 3);
  EXPECT_EQ(reservations_.ownerOf("mail.inbox.newest"), 5);
}

TEST_F(NameReservationsTest, AnExactNameWinsOverAPrefixOfItsLength) {
  EXPECT_THAT(add("mail* 1\nmail 2\n"), IsEmpty());
  EXPECT_EQ(reservations_.ownerOf("mail"), 2);
  EXPECT_EQ(reservations_.ownerOf("mails"), 1);
}

TEST_F(NameReservationsTest, TheUserIsTheLastWordOfALine) {
  EXPECT_THAT(add("  the weather \t alice  \r\n\nnews 4711"), IsEmpty());
  EXPECT_EQ(reservations_.ownerOf("the weather"), kAlice);
  EXPECT_EQ(reservations_.ownerOf("news"), 4711);
}

TEST_F(NameReservationsTest, CommentsBeginAtTheBeginningOfAWord) {
  EXPECT_THAT(add("# all of them\nweather alice # hers\n  # indented bob\nc#minor bob\n"),
              IsEmpty());
  EXPECT_EQ(reservations_.count(), 2U);
  EXPECT_EQ(reservations_.ownerOf("weather"), kAlice);
  EXPECT_EQ(reservations_.ownerOf("c#minor"), kBob);
}

TEST_F(NameReservationsTest, MalformedLinesAreIgnoredAndReported) {
  EXPECT_THAT(
      add("weather\nnews bob\n\xff alice\n"),
      ElementsAre("a.conf:1: not a rule, and ignored; write NAME USER or PREFIX* USER, in UTF-8, a "
                  "rule a line",
                  "a.conf:3: not a rule, and ignored; write NAME USER or PREFIX* USER, in UTF-8, a "
                  "rule a line"));
  EXPECT_EQ(reservations_.count(), 1U);
}

TEST_F(NameReservationsTest, AnUnknownUserReservesForRootAlone) {
  EXPECT_THAT(add("weather alcie\nnews 4294967295\n"),
              ElementsAre("a.conf:1: there is no user alcie; until the line names one and keeld is "
                          "restarted, only root may publish weather",
                          "a.conf:2: there is no user 4294967295; until the line names one and "
                          "keeld is restarted, only root may publish news"));
  EXPECT_FALSE(reservations_.mayPublish(kAlice, "weather"));
  EXPECT_TRUE(reservations_.mayPublish(0, "weather"));
}

TEST_F(NameReservationsTest, TheFirstOfContradictingRulesCounts) {
  add("weather alice\nmail* alice\n");
  EXPECT_THAT(add("weather bob\nmail* bob\nmail bob\n", "b.conf"),
              ElementsAre("b.conf:1: weather is reserved for uid 501 already, at a.conf:1; remove "
                          "one of the two lines, until then the first counts",
                          "b.conf:2: mail* is reserved for uid 501 already, at a.conf:2; remove "
                          "one of the two lines, until then the first counts"));
  EXPECT_EQ(reservations_.ownerOf("weather"), kAlice);
  EXPECT_EQ(reservations_.ownerOf("mails"), kAlice);
  EXPECT_EQ(reservations_.ownerOf("mail"), kBob);
}

TEST_F(NameReservationsTest, TheSameRuleTwiceIsNoProblem) {
  EXPECT_THAT(add("weather alice\nweather 501\nmail* alice\nmail* alice\n"), IsEmpty());
  EXPECT_EQ(reservations_.count(), 2U);
}

}  // namespace
}  // namespace keel
