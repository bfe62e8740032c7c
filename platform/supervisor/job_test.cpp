// SPDX-License-Identifier: Apache-2.0
#include "platform/supervisor/job.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <string>

namespace keel {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Pair;

// Returns a minimal job dictionary with `added` members.
Value jobWith(std::initializer_list<Member> more) {
  Value::Map map = {{"Label", "com.example.job"}, {"Program", "/bin/job"}};
  map.insert(map.end(), more);
  return map;
}

std::string refusalOf(const Value& dictionary) {
  const auto job = jobOf(dictionary);
  return job ? "(accepted)" : job.error().description();
}

TEST(Job, NeedsOnlyALabelAndAProgram) {
  const auto job = jobOf(jobWith({}));
  ASSERT_TRUE(job);
  EXPECT_EQ(job->label, "com.example.job");
  EXPECT_EQ(job->program, "/bin/job");
  EXPECT_THAT(job->arguments, ElementsAre("/bin/job"));
  EXPECT_TRUE(job->machServices.empty());
  EXPECT_FALSE(job->runAtLoad);
  EXPECT_FALSE(job->transient);
  EXPECT_EQ(job->restart, Job::Restart::never);
  EXPECT_EQ(job->throttleInterval, std::chrono::seconds(10));
  EXPECT_TRUE(job->unsupported.empty());
}

TEST(Job, ReadsEveryKeyOfASynthesizedJob) {
  const auto job = jobOf(Value::map(
      {{"Label", "com.vantor.keeld.mail"},
       {"Program", "/p"},
       {"Disabled", false},
       {"EnableTransactions", true},
       {"EnablePressuredExit", true},
       {"MachServices", Value::map({{"com.vantor.keeld.mail", true}})},
       {"ProgramArguments", Value::list({"/p", "-p", "keel_mail", "-m", "com.vantor.keeld.mail"})},
       {"ProcessType", "Interactive"},
       {"Transient", true}}));
  ASSERT_TRUE(job);
  EXPECT_THAT(job->arguments, ElementsAre("/p", "-p", "keel_mail", "-m", "com.vantor.keeld.mail"));
  EXPECT_THAT(job->machServices, ElementsAre("com.vantor.keeld.mail"));
  EXPECT_TRUE(job->transient);
  EXPECT_FALSE(job->background);
  EXPECT_TRUE(job->unsupported.empty());
}

TEST(Job, ReadsEveryKey) {
  const auto job =
      jobOf(jobWith({{"ProgramArguments", Value::list({"zero", "one"})},
                     {"UserName", "alice"},
                     {"GroupName", "www-data"},
                     {"WorkingDirectory", "/w"},
                     {"RootDirectory", "/r"},
                     {"StandardInPath", "/i"},
                     {"StandardOutPath", "/o"},
                     {"StandardErrorPath", "/e"},
                     {"EnvironmentVariables", Value::map({{"B", "2"}, {"A", "1 %$\n"}})},
                     {"ThrottleInterval", 3},
                     {"ExitTimeOut", 7},
                     {"Nice", -5},
                     {"Umask", "027"},
                     {"ProcessType", "Background"},
                     {"LowPriorityIO", true},
                     {"AbandonProcessGroup", true},
                     {"RunAtLoad", true}}));
  ASSERT_TRUE(job);
  EXPECT_EQ(job->program, "/bin/job");
  EXPECT_THAT(job->arguments, ElementsAre("zero", "one"));
  EXPECT_EQ(job->userName, "alice");
  EXPECT_EQ(job->groupName, "www-data");
  EXPECT_EQ(job->workingDirectory, "/w");
  EXPECT_EQ(job->rootDirectory, "/r");
  EXPECT_EQ(job->standardInPath, "/i");
  EXPECT_EQ(job->standardOutPath, "/o");
  EXPECT_EQ(job->standardErrorPath, "/e");
  EXPECT_THAT(job->environment, ElementsAre(Pair("B", "2"), Pair("A", "1 %$\n")));
  EXPECT_EQ(job->throttleInterval, std::chrono::seconds(3));
  EXPECT_EQ(job->exitTimeOut, std::chrono::seconds(7));
  EXPECT_EQ(job->nice, -5);
  EXPECT_EQ(job->umask, 027u);
  EXPECT_TRUE(job->background);
  EXPECT_TRUE(job->lowPriorityIO);
  EXPECT_TRUE(job->abandonProcessGroup);
  EXPECT_TRUE(job->runAtLoad);
  EXPECT_TRUE(job->unsupported.empty());
}

TEST(Job, DefaultsTheProgramToTheFirstArgument) {
  const auto job =
      jobOf(Value::map({{"Label", "l"}, {"ProgramArguments", Value::list({"/bin/a", "b"})}}));
  ASSERT_TRUE(job);
  EXPECT_EQ(job->program, "/bin/a");
  EXPECT_THAT(refusalOf(Value::map({{"Label", "l"}, {"ProgramArguments", Value::list({"a"})}})),
              HasSubstr("absolute path"));
  EXPECT_THAT(refusalOf(Value::map({{"Label", "l"}, {"ProgramArguments", Value::list({})}})),
              HasSubstr("is empty"));
  EXPECT_THAT(refusalOf(Value::map({{"Label", "l"}})),
              HasSubstr("has neither \"Program\" nor \"ProgramArguments\""));
}

TEST(Job, NumbersHaveBounds) {
  EXPECT_TRUE(jobOf(jobWith({{"Nice", -20}})));
  EXPECT_FALSE(jobOf(jobWith({{"Nice", -21}})));
  EXPECT_TRUE(jobOf(jobWith({{"Nice", 19}})));
  EXPECT_FALSE(jobOf(jobWith({{"Nice", 20}})));
  EXPECT_TRUE(jobOf(jobWith({{"Umask", 0777}})));
  EXPECT_FALSE(jobOf(jobWith({{"Umask", 01000}})));
  EXPECT_TRUE(jobOf(jobWith({{"Umask", "777"}})));
  EXPECT_FALSE(jobOf(jobWith({{"Umask", "1000"}})));
  EXPECT_FALSE(jobOf(jobWith({{"Umask", "9"}})));
  EXPECT_TRUE(jobOf(jobWith({{"ThrottleInterval", 0}})));
  EXPECT_FALSE(jobOf(jobWith({{"ThrottleInterval", -1}})));
  EXPECT_FALSE(jobOf(jobWith({{"ExitTimeOut", INT64_MAX}})));
}

TEST(Job, DerivesTheRestartConditionFromKeepAlive) {
  const auto kept = [](Value keepAlive) {
    return *jobOf(jobWith({{"KeepAlive", std::move(keepAlive)}}));
  };
  EXPECT_EQ(kept(true).restart, Job::Restart::always);
  EXPECT_TRUE(kept(true).runAtLoad);
  EXPECT_EQ(kept(false).restart, Job::Restart::never);
  EXPECT_FALSE(kept(false).runAtLoad);
  EXPECT_EQ(kept(Value::map({{"SuccessfulExit", true}})).restart, Job::Restart::afterSuccess);
  EXPECT_TRUE(kept(Value::map({{"SuccessfulExit", true}})).runAtLoad);
  EXPECT_EQ(kept(Value::map({{"SuccessfulExit", false}})).restart, Job::Restart::afterFailure);
  EXPECT_EQ(kept(Value::map({{"SuccessfulExit", false}, {"Crashed", true}})).restart,
            Job::Restart::afterFailure);
  EXPECT_EQ(kept(Value::map({{"Crashed", true}})).restart, Job::Restart::afterCrash);
  EXPECT_FALSE(kept(Value::map({{"Crashed", true}})).runAtLoad);
  EXPECT_EQ(kept(Value::map({{"AfterInitialDemand", true}})).restart, Job::Restart::always);
  EXPECT_FALSE(kept(Value::map({{"AfterInitialDemand", true}})).runAtLoad);
}

TEST(Job, HonoursRunAtLoadWhateverTheKeyOrder) {
  const Value demanded = Value::map({{"AfterInitialDemand", true}});
  EXPECT_TRUE(jobOf(jobWith({{"RunAtLoad", true}, {"KeepAlive", demanded}}))->runAtLoad);
  EXPECT_TRUE(jobOf(jobWith({{"KeepAlive", demanded}, {"RunAtLoad", true}}))->runAtLoad);
  EXPECT_TRUE(jobOf(jobWith({{"KeepAlive", true}, {"RunAtLoad", false}}))->runAtLoad);
}

TEST(Job, MergesSoftAndHardLimitsOfAResource) {
  const auto job =
      jobOf(jobWith({{"SoftResourceLimits", Value::map({{"NumberOfFiles", 100}, {"Core", 0}})},
                     {"HardResourceLimits", Value::map({{"NumberOfFiles", 200}, {"Stack", 7}})}}));
  ASSERT_TRUE(job);
  ASSERT_EQ(job->limits.size(), 3u);
  EXPECT_EQ(job->limits[0].resource, RLIMIT_NOFILE);
  EXPECT_EQ(job->limits[0].soft, 100u);
  EXPECT_EQ(job->limits[0].hard, 200u);
  EXPECT_EQ(job->limits[1].hard, 0u);
  EXPECT_EQ(job->limits[2].soft, 7u);
  EXPECT_THAT(refusalOf(jobWith({{"SoftResourceLimits", Value::map({{"Core", 2}})},
                                 {"HardResourceLimits", Value::map({{"Core", 1}})}})),
              HasSubstr("Core: the soft limit is above the hard one"));
}

TEST(Job, ListsUnsupportedKeys) {
  const auto job = jobOf(
      jobWith({{"StartInterval", 5},
               {"KeepAlive", Value::map({{"NetworkState", true}, {"Crashed", false}})},
               {"SoftResourceLimits", Value::map({{"Bananas", 1}})},
               {"MachServices", Value::map({{"a.b", Value::map({{"ResetAtClose", true}})}})}}));
  ASSERT_TRUE(job);
  EXPECT_THAT(job->unsupported,
              ElementsAre("MachServices.a.b", "StartInterval", "KeepAlive.NetworkState",
                          "KeepAlive.Crashed", "SoftResourceLimits.Bananas"));
}

TEST(Job, NamesTheKeyOfAWrongKind) {
  EXPECT_THAT(refusalOf(Value::list({})), HasSubstr("the job is no dictionary"));
  EXPECT_THAT(refusalOf(Value::map({{"Program", "/p"}})), HasSubstr("has no key \"Label\""));
  EXPECT_THAT(refusalOf(Value::map({{"Label", 1}, {"Program", "/p"}})),
              HasSubstr("must have a text under \"Label\""));
  for (const char* key : {"Disabled",
                          "EnableTransactions",
                          "EnablePressuredExit",
                          "Transient",
                          "RunAtLoad",
                          "KeepAlive",
                          "UserName",
                          "GroupName",
                          "WorkingDirectory",
                          "RootDirectory",
                          "StandardInPath",
                          "StandardOutPath",
                          "StandardErrorPath",
                          "EnvironmentVariables",
                          "ThrottleInterval",
                          "ExitTimeOut",
                          "Nice",
                          "Umask",
                          "ProcessType",
                          "SoftResourceLimits",
                          "HardResourceLimits",
                          "LowPriorityIO",
                          "AbandonProcessGroup",
                          "MachServices",
                          "ProgramArguments"}) {
    EXPECT_THAT(refusalOf(jobWith({{key, Value(1.5)}})),
                testing::AllOf(HasSubstr("the job \"com.example.job\": "),
                               HasSubstr(std::string("\"") + key + "\"")))
        << key;
  }
}

TEST(Job, BoundsLabelsByFileNameLength) {
  const auto labelled = [](std::string label) {
    return Value::map({{"Label", std::move(label)}, {"Program", "/p"}});
  };
  EXPECT_TRUE(jobOf(labelled(std::string(kLabelBytes, 'a'))));
  EXPECT_FALSE(jobOf(labelled(std::string(kLabelBytes + 1, 'a'))));
  EXPECT_TRUE(jobOf(labelled(std::string(kLabelBytes / 3, '/'))));
  EXPECT_FALSE(jobOf(labelled(std::string(kLabelBytes / 3 + 1, '/'))));
  EXPECT_THAT(refusalOf(labelled("")), HasSubstr("has an empty label"));
  EXPECT_THAT(refusalOf(labelled(std::string(1u << 20, 'x'))), HasSubstr("1048576 bytes"));
  EXPECT_LT(refusalOf(labelled(std::string(1u << 20, 'x'))).size(), 500u);
  EXPECT_THAT(refusalOf(labelled(std::string("a\0b", 3))), HasSubstr("no text"));
  EXPECT_TRUE(jobOf(labelled("../../etc/x y%n\n")));
}

TEST(Job, RefusesPathsThatDoNotFitOnALine) {
  const auto at = [](std::string path) {
    return Value::map({{"Label", "l"}, {"Program", std::move(path)}});
  };
  EXPECT_TRUE(jobOf(at("/a b\"'%$\\c")));
  EXPECT_FALSE(jobOf(at("relative")));
  EXPECT_FALSE(jobOf(at("")));
  EXPECT_FALSE(jobOf(at("/a\nExecStartPre=/bin/sh")));
  EXPECT_FALSE(jobOf(at("/a\\")));
  EXPECT_FALSE(jobOf(at("/a ")));
  EXPECT_FALSE(jobOf(at("/\xff")));
  EXPECT_TRUE(jobOf(at("/" + std::string(kPathBytes - 1, 'a'))));
  EXPECT_FALSE(jobOf(at("/" + std::string(kPathBytes, 'a'))));
}

TEST(Job, BoundsTextsInTotalSizeAndCount) {
  const auto with = [](std::size_t count, std::size_t size) {
    return jobWith(
        {{"ProgramArguments", Value(Value::List(count, Value(std::string(size, 'a'))))}});
  };
  EXPECT_TRUE(jobOf(with(1, kTextsBytes - 1)));
  EXPECT_FALSE(jobOf(with(1, kTextsBytes)));
  EXPECT_TRUE(jobOf(with(kTextsCount, 0)));
  EXPECT_FALSE(jobOf(with(kTextsCount + 1, 0)));
  EXPECT_FALSE(jobOf(
      jobWith({{"EnvironmentVariables", Value::map({{"A", std::string(kTextsBytes, 'a')}})}})));
  EXPECT_FALSE(jobOf(jobWith({{"EnvironmentVariables", Value::map({{"A=B", "a"}})}})));
  EXPECT_FALSE(jobOf(jobWith({{"EnvironmentVariables", Value::map({{"1A", "a"}})}})));
  EXPECT_FALSE(jobOf(jobWith({{"EnvironmentVariables", Value::map({{"A", 1}})}})));
}

TEST(Job, RefusesMachServicesThatCannotBeSocketNames) {
  EXPECT_EQ(problemOfMachService("com.vantor.keeld.mail"), "");
  EXPECT_EQ(problemOfMachService("a%n\""), "");
  for (const char* unfit :
       {"", ".", "..", ".hidden", "a/b", "a:b", "a b", "a\\", "a\nb", "\xc3\xa4"}) {
    EXPECT_NE(problemOfMachService(unfit), "") << unfit;
  }
  EXPECT_EQ(problemOfMachService(std::string(kMachServiceNameBytes, 'a')), "");
  EXPECT_NE(problemOfMachService(std::string(kMachServiceNameBytes + 1, 'a')), "");
  EXPECT_EQ(problemOfMachService("com.vantor.keeld.notify"),
            "com.vantor.keeld.notify is keeld's own service");
  EXPECT_EQ(problemOfMachService("com.vantor.keeld.auth"),
            "com.vantor.keeld.auth is keeld's own service");

  Value::Map many;
  for (std::size_t place = 0; place < kMachServiceCount; ++place)
    many.push_back({"s" + std::to_string(place), true});
  EXPECT_TRUE(jobOf(jobWith({{"MachServices", many}})));
  many.push_back({"one.more", true});
  EXPECT_FALSE(jobOf(jobWith({{"MachServices", many}})));
}

// 0xc3 0xbc is one character.
TEST(Job, CutsALongLabelBetweenCharacters) {
  const auto errorFor = [](const std::string& label) {
    return jobOf(Value::map({{"Label", label}, {"Umask", false}})).error().description();
  };
  EXPECT_THAT(errorFor(std::string(99, 'a') + "\xc3\xbc" + "b"),
              testing::HasSubstr("\"" + std::string(99, 'a') + "\"..."));
  EXPECT_THAT(errorFor(std::string(98, 'a') + "\xc3\xbc" + "b"),
              testing::HasSubstr("\"" + std::string(98, 'a') + "\xc3\xbc\"..."));
}

TEST(Job, RefusesNumericAccounts) {
  for (const char* unfit : {"", "-x", ".x", "a b", "a%n", "a\n", "root:root", "0", "1000"}) {
    EXPECT_FALSE(jobOf(jobWith({{"UserName", unfit}}))) << unfit;
  }
}

}  // namespace
}  // namespace keel
