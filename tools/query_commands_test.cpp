// SPDX-License-Identifier: Apache-2.0
#include "tools/query_commands.h"

#include <gmock/gmock.h>

#include "tools/local_zone.h"

namespace keel {
namespace {

using testing::HasSubstr;
using testing::Not;

const Console kNoTerminal(-1, -1, -1);

const DumpEntry kPublished{"weather",
                           "<connection 1>",
                           Date{0},
                           {{"<connection 2>", Date{60}}, {{}, {}}},
                           Value::map({{"n", 1}})};
const DumpEntry kPlaceholder{"later", {}, {}, {}, {}};

TEST(DumpTable, ShowsPublishersAndSubscribers) {
  const LocalZone zone("CET-1");
  EXPECT_EQ(tableOf({kPlaceholder, kPublished}, /*withData=*/false, kNoTerminal),
            "NAME     ROLE        CONNECTION      LAST CHANGE\n"
            "later    publisher   (nobody)        (never published)\n"
            "weather  publisher   <connection 1>  1970-01-01 01:00:00.000 +0100\n"
            "         subscriber  <connection 2>  1970-01-01 01:01:00.000 +0100\n"
            "         subscriber  (gone)          (never updated)\n");
}

TEST(DumpTable, ShowsDataIfRequested) {
  const std::string table = tableOf({kPlaceholder, kPublished}, /*withData=*/true, kNoTerminal);
  EXPECT_THAT(table, HasSubstr(R"({"n":1})"));
  EXPECT_THAT(table, HasSubstr("(none)"));
}

TEST(DumpTable, AnEmptyNameIsVisible) {
  EXPECT_THAT(tableOf({DumpEntry{}}, /*withData=*/false, kNoTerminal), HasSubstr("(empty)"));
}

TEST(DumpJson, AnEntryIsOneLine) {
  EXPECT_EQ(
      jsonLineOf(kPublished, /*withData=*/true, JsonLetters::utf8),
      R"({"name":"weather","publisher":"<connection 1>","publishDate":{"$date":0},"subscribers":[)"
      R"({"subscriber":"<connection 2>","updateDate":{"$date":60}},{"subscriber":null,"updateDate":null}],)"
      R"("publishedData":{"n":1}})"
      "\n");
}

TEST(DumpJson, AbsentMembersAreNullAndDataIsOptional) {
  EXPECT_EQ(jsonLineOf(kPlaceholder, /*withData=*/true, JsonLetters::utf8),
            "{\"name\":\"later\",\"publisher\":null,\"publishDate\":null,\"subscribers\":[],"
            "\"publishedData\":null}\n");
  EXPECT_THAT(jsonLineOf(kPublished, /*withData=*/false, JsonLetters::utf8),
              Not(HasSubstr("publishedData")));
}

TEST(DumpJson, NamesAreUnchanged) {
  DumpEntry entry;
  entry.name = std::string("a\nb\0c", 5);
  EXPECT_THAT(jsonLineOf(entry, /*withData=*/false, JsonLetters::utf8),
              HasSubstr(R"("a\nb\u0000c")"));
  entry.name = std::string(1u << 20, 'x');
  EXPECT_GT(jsonLineOf(entry, /*withData=*/false, JsonLetters::utf8).size(), 1u << 20);
}

TEST(ModuleJob, IsShownInPlainWords) {
  JobState job{.label = "l", .known = true, .enabled = true, .listening = true};
  EXPECT_EQ(shownJob(job), "ready");
  job.program = JobState::Program::running;
  job.processId = 7;
  EXPECT_EQ(shownJob(job), "running as process 7");
  job.program = JobState::Program::starting;
  job.problem = "its last run\n\x1b[31m";
  EXPECT_THAT(shownJob(job), testing::StartsWith("about to start: its last run"));
  EXPECT_THAT(shownJob(job), Not(HasSubstr("\x1b")));
  job = {.label = "l", .known = true};
  EXPECT_EQ(shownJob(job), "disabled, not listening");
}

TEST(ModuleJob, AnUnknownStateIsShownAsUnknown) {
  EXPECT_EQ(shownJob({.label = "l", .problem = "systemd did not answer within 5 s"}),
            "unknown: systemd did not answer within 5 s");
  EXPECT_EQ(shownJob({.problem = "no job has that service"}), "unknown: no job has that service");
  EXPECT_EQ(shownJob({}), "unknown");
}

TEST(ModuleJob, JsonHasEveryMember) {
  EXPECT_EQ(
      jsonOfJob({.label = "l",
                 .known = true,
                 .enabled = true,
                 .listening = true,
                 .program = JobState::Program::running,
                 .processId = 7,
                 .problem = "\""},
                JsonLetters::utf8),
      R"({"label":"l","enabled":true,"listening":true,"program":"running","pid":7,"problem":"\""})");
  EXPECT_EQ(
      jsonOfJob({.label = "l", .known = true}, JsonLetters::utf8),
      R"({"label":"l","enabled":false,"listening":false,"program":"none","pid":null,"problem":null})");
}

TEST(ModuleJob, JsonOmitsUnknownMembers) {
  EXPECT_EQ(
      jsonOfJob({.label = "l", .problem = "p"}, JsonLetters::utf8),
      R"({"label":"l","enabled":null,"listening":null,"program":"unknown","pid":null,"problem":"p"})");
  EXPECT_EQ(
      jsonOfJob({}, JsonLetters::utf8),
      R"({"label":null,"enabled":null,"listening":null,"program":"unknown","pid":null,"problem":null})");
}

TEST(ModuleJob, AJobFromTheBundleHasNoRemark) {
  const JobDescription own{.jobFile = JobDescription::JobFile::used};
  EXPECT_EQ(shownSynthesis("keel_mail", own), "");
  EXPECT_EQ(jsonOfSynthesis(own, JsonLetters::utf8), R"("synthesized":false,"reason":null)");
}

TEST(ModuleJob, ASynthesizedJobIsShownWithItsReasons) {
  const JobDescription missing{.jobFile = JobDescription::JobFile::missing,
                               .reasons = {"job file missing"}};
  EXPECT_EQ(shownSynthesis("keel_mail", missing),
            "keel_mail has a synthesized job: job file missing");
  EXPECT_EQ(jsonOfSynthesis(missing, JsonLetters::utf8),
            R"("synthesized":true,"reason":"job file missing")");
  const JobDescription bad{.jobFile = JobDescription::JobFile::unusable,
                           .reasons = {"job file: \x1b[31m", "Info.plist: y"}};
  EXPECT_THAT(shownSynthesis("keel_mail", bad),
              testing::StartsWith("keel_mail has a synthesized job: job file: "));
  EXPECT_THAT(shownSynthesis("keel_mail", bad), testing::EndsWith("; Info.plist: y"));
  EXPECT_THAT(shownSynthesis("keel_mail", bad), Not(HasSubstr("\x1b")));
  EXPECT_EQ(jsonOfSynthesis(bad, JsonLetters::utf8),
            R"("synthesized":true,"reason":"job file: \u001b[31m; Info.plist: y")");
}

TEST(ModuleJob, AJobWithAnUnreadableFileMayBeSynthesized) {
  using JobFile = JobDescription::JobFile;
  for (const JobFile jobFile : {JobFile::noBundle, JobFile::denied}) {
    const JobDescription unseen{.jobFile = jobFile, .reasons = {"r"}};
    EXPECT_EQ(shownSynthesis("keel_mail", unseen), "keel_mail may have a synthesized job: r");
    EXPECT_EQ(jsonOfSynthesis(unseen, JsonLetters::utf8), R"("synthesized":null,"reason":"r")");
  }
}

}  // namespace
}  // namespace keel
