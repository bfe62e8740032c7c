// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>

#include "modules/fake_supervisor.h"
#include "modules/modules_fixture.h"
#include "platform/bundle/directory_listing.h"

namespace keel {
namespace {

using ::testing::ElementsAre;
using ::testing::Eq;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

class ModuleLoading : public ModulesFixture {
 protected:
  void makeBundle(const std::string& name) { folder_.makeFolder(name); }
  void makeBundle(const std::string& name, const std::string& job) {
    folder_.write(name + "/launchd.plist", job);
  }
  Value table() { return manager_.moduleTable().dictionary().value(); }
  bool load(const std::string& name) {
    return manager_.loadModuleIfNeededFromPath(folder_.path(name), nullptr);
  }

  // Returns the log lines for a bundle with its own job labelled `label`, from the first query to
  // the last.
  static std::vector<std::string> linesOf(const std::string& label) {
    return {"debug: loadModuleIfNeededFromPath service " + label + " is not enabled ",
            "debug: loadModuleIfNeededFromPath created " + label,
            "debug: loadModuleIfNeededFromPath enabled " + label};
  }
  std::string ownJob(const std::string& label) const {
    return dictionary(text("Label", label) +
                      services("<key>service of " + label + "</key><true/>"));
  }

  FakeSupervisor supervisor_;
  KLNModuleManager manager_{supervisor_, folder_.path() + "/"};
};

TEST_F(ModuleLoading, OnlyEntriesWithPrefixAndSuffixAreModules) {
  for (const char* name : {"keel_a.bundle", "a.bundle", "keel_b.plist", "Keel_c.bundle"})
    makeBundle(name);
  manager_.loadAllModules();
  EXPECT_EQ(table(), Value::map({{"keel_a", "com.vantor.keeld.a"}}));
  EXPECT_THAT(
      supervisor_.calls(),
      ElementsAre("authorize", "auth: enabled? com.vantor.keeld.a", "create com.vantor.keeld.a",
                  "enable com.vantor.keeld.a", "enabled? com.vantor.keeld.a"));
  EXPECT_THAT(
      logged(),
      ElementsAre(
          "debug: synthesizeJobFromBundle: did not find a custom launchd.plist, creating one",
          "debug: loadModuleIfNeededFromPath service com.vantor.keeld.a is not enabled ",
          "debug: loadModuleIfNeededFromPath created com.vantor.keeld.a",
          "debug: loadModuleIfNeededFromPath enabled com.vantor.keeld.a",
          "debug: loadAllModules: loaded " + folder_.path("keel_a.bundle"),
          R"(debug: loadAllModules: moduleTable is {"keel_a": "com.vantor.keeld.a"})"));
}

TEST_F(ModuleLoading, AFileCountsAsABundle) {
  folder_.write("keel_a.bundle", "");
  manager_.loadAllModules();
  EXPECT_EQ(table(), Value::map({{"keel_a", "com.vantor.keeld.a"}}));
}

TEST_F(ModuleLoading, AnEmptyDirectoryLogsAnEmptyTable) {
  manager_.loadAllModules();
  EXPECT_EQ(table(), Value::map({}));
  EXPECT_THAT(supervisor_.calls(), ElementsAre("authorize"));
  EXPECT_THAT(logged(), ElementsAre("debug: loadAllModules: moduleTable is {}"));
}

TEST_F(ModuleLoading, AMissingDirectoryIsAnErrorAndStops) {
  KLNModuleManager manager(supervisor_, folder_.path("none/"));
  manager.loadAllModules();
  EXPECT_EQ(manager.moduleTable().count(), 0U);
  EXPECT_THAT(supervisor_.calls(), IsEmpty());
  EXPECT_THAT(logged(),
              ElementsAre("error: loadAllModules: can't find " + folder_.path("none/") +
                          " error No such file or directory (NSPOSIXErrorDomain error 2)"));
}

TEST_F(ModuleLoading, LoadsInDirectoryOrder) {
  for (int number = 0; number < 30; ++number)
    makeBundle("keel_" + std::to_string(number * 7919 % 30) + ".bundle");
  const auto names = contentsOfDirectory(folder_.path()).value();
  std::vector<std::string> expected;
  for (const std::string& name : names) {
    expected.push_back("com.vantor.keeld." + name.substr(5, name.size() - 12));
  }
  std::vector<std::string> created;
  manager_.loadAllModules();
  for (const Value& job : supervisor_.createdJobs) created.emplace_back(job.textOf("Label"));
  EXPECT_EQ(created, expected);
}

TEST_F(ModuleLoading, AcceptsADirectoryWithoutATrailingSlash) {
  makeBundle("keel_a.bundle");
  KLNModuleManager manager(supervisor_, folder_.path());
  manager.loadAllModules();
  EXPECT_EQ(logged().at(4), "debug: loadAllModules: loaded " + folder_.path("keel_a.bundle"));
}

TEST_F(ModuleLoading, KeepsTheAuthorization) {
  manager_.loadAllModules();
  EXPECT_TRUE(supervisor_.keepsAuthorization());
}

TEST_F(ModuleLoading, OnlyRecordsAJobThatIsAlreadyEnabled) {
  makeBundle("keel_a.bundle");
  supervisor_.enabled = {"com.vantor.keeld.a"};
  // An error beside the answer "enabled" is ignored.
  supervisor_.queryFaults = {FakeSupervisor::fault("unused")};
  manager_.loadAllModules();
  EXPECT_EQ(table(), Value::map({{"keel_a", "com.vantor.keeld.a"}}));
  EXPECT_THAT(supervisor_.calls(), ElementsAre("authorize", "auth: enabled? com.vantor.keeld.a"));
  EXPECT_THAT(
      logged(),
      ElementsAre(
          "debug: synthesizeJobFromBundle: did not find a custom launchd.plist, creating one",
          "debug: loadAllModules: loaded " + folder_.path("keel_a.bundle"),
          R"(debug: loadAllModules: moduleTable is {"keel_a": "com.vantor.keeld.a"})"));
}

TEST_F(ModuleLoading, DoesNotRecordAJobThatStaysDisabled) {
  for (const char* name : {"keel_a.bundle", "keel_b.bundle", "keel_c.bundle"}) makeBundle(name);
  supervisor_.onQuery = [this](const String&) { supervisor_.enabled.erase("com.vantor.keeld.b"); };
  manager_.loadAllModules();
  EXPECT_EQ(table(),
            Value::map({{"keel_a", "com.vantor.keeld.a"}, {"keel_c", "com.vantor.keeld.c"}}));
  const auto lines = logged();
  EXPECT_THAT(lines, ::testing::Contains("error: loadAllModules: can't load module at " +
                                         folder_.path("keel_b.bundle")));
  EXPECT_THAT(lines,
              ::testing::Contains("debug: loadModuleIfNeededFromPath enabled com.vantor.keeld.b"));
}

TEST_F(ModuleLoading, PassesTheWholeJob) {
  makeBundle("keel_a.bundle", dictionary(text("x", "y") + text("Label", "own")));
  EXPECT_TRUE(load("keel_a.bundle"));
  EXPECT_THAT(supervisor_.createdJobs, ElementsAre(Eq(Value::map({{"x", "y"}, {"Label", "own"}}))));
}

TEST_F(ModuleLoading, UsesTheOwnLabelAndKeysTheTableByBundleName) {
  makeBundle("keel_a.bundle", ownJob("L"));
  manager_.loadAllModules();
  EXPECT_THAT(supervisor_.calls(),
              ElementsAre("authorize", "auth: enabled? L", "create L", "enable L", "enabled? L"));
  EXPECT_EQ(table(), Value::map({{"keel_a", "service of L"}}));
}

TEST_F(ModuleLoading, UsesTheGivenAuthorizationOnlyForTheFirstQuery) {
  makeBundle("keel_a.bundle", ownJob("L"));
  const auto authorization =
      supervisor_.QZSupervisorCreateCommandAuthorizationWithCredentials(nullptr, nullptr, nullptr);
  supervisor_.calls();
  EXPECT_TRUE(
      manager_.loadModuleIfNeededFromPath(folder_.path("keel_a.bundle"), authorization.get()));
  EXPECT_THAT(supervisor_.calls(),
              ElementsAre("auth: enabled? L", "create L", "enable L", "enabled? L"));
}

TEST_F(ModuleLoading, AFailedFirstQueryIsLoggedAndMeansNotEnabled) {
  makeBundle("keel_a.bundle", ownJob("L"));
  supervisor_.queryFaults = {FakeSupervisor::fault("first")};
  EXPECT_TRUE(load("keel_a.bundle"));
  auto expected = linesOf("L");
  expected.insert(expected.begin(),
                  "error: loadModuleIfNeededFromPath QZSupervisorGetServiceEnabled returns first "
                  "(test error 1)");
  EXPECT_EQ(logged(), expected);
}

TEST_F(ModuleLoading, AFailedLastQueryIsLoggedWhateverItsResult) {
  makeBundle("keel_a.bundle", ownJob("L"));
  supervisor_.queryFaults = {nullptr, FakeSupervisor::fault("last")};
  EXPECT_TRUE(load("keel_a.bundle"));
  auto expected = linesOf("L");
  expected.emplace_back(
      "error: loadModuleIfNeededFromPath QZSupervisorGetServiceEnabled returns last (test error "
      "1)");
  EXPECT_EQ(logged(), expected);

  supervisor_.enabled.clear();
  supervisor_.enablingWorks = false;
  supervisor_.queryFaults = {nullptr, FakeSupervisor::fault("last")};
  EXPECT_FALSE(load("keel_a.bundle"));
  EXPECT_EQ(logged(), expected);
}

TEST_F(ModuleLoading, TheFirstQuerysErrorIsNotReportedForTheLast) {
  makeBundle("keel_a.bundle", ownJob("L"));
  supervisor_.queryFaults = {FakeSupervisor::fault("first"), nullptr};
  supervisor_.enablingWorks = false;
  EXPECT_FALSE(load("keel_a.bundle"));
  EXPECT_EQ(logged().size(), 4U);
}

TEST_F(ModuleLoading, AFailedCreationDoesNotStopAndItsErrorIsDropped) {
  makeBundle("keel_a.bundle", ownJob("L"));
  supervisor_.creationWorks = false;
  supervisor_.creationFaults = {FakeSupervisor::fault("dropped")};
  EXPECT_TRUE(load("keel_a.bundle"));
  EXPECT_THAT(supervisor_.calls(), ElementsAre("enabled? L", "create L", "enable L", "enabled? L"));
  EXPECT_EQ(logged(), linesOf("L"));
}

TEST_F(ModuleLoading, ASuccessfulCreationsErrorIsReportedByTheNextStep) {
  makeBundle("keel_a.bundle", ownJob("L"));
  supervisor_.creationFaults = {FakeSupervisor::fault("carried over")};
  EXPECT_TRUE(load("keel_a.bundle"));
  auto expected = linesOf("L");
  expected.insert(expected.begin() + 2,
                  "error: loadModuleIfNeededFromPath QZSupervisorSetServiceEnabled returns carried "
                  "over (test error 1)");
  EXPECT_EQ(logged(), expected);
}

TEST_F(ModuleLoading, TheNextStepsOwnErrorReplacesIt) {
  makeBundle("keel_a.bundle", ownJob("L"));
  supervisor_.creationFaults = {FakeSupervisor::fault("carried over")};
  supervisor_.enablingFaults = {FakeSupervisor::fault("its own")};
  EXPECT_TRUE(load("keel_a.bundle"));
  EXPECT_EQ(logged().at(2),
            "error: loadModuleIfNeededFromPath QZSupervisorSetServiceEnabled returns its own (test "
            "error 1)");
}

TEST_F(ModuleLoading, AFailedEnablingIsLoggedAndTheLastQueryDecides) {
  makeBundle("keel_a.bundle", ownJob("L"));
  supervisor_.enablingFaults = {FakeSupervisor::fault("refused")};
  supervisor_.enablingWorks = false;
  EXPECT_FALSE(load("keel_a.bundle"));
  auto expected = linesOf("L");
  expected.insert(expected.begin() + 2,
                  "error: loadModuleIfNeededFromPath QZSupervisorSetServiceEnabled returns refused "
                  "(test error 1)");
  EXPECT_EQ(logged(), expected);
  EXPECT_EQ(table(), Value::map({}));
}

TEST_F(ModuleLoading, AJobWithoutServicesIsEnabledButNotInTheTable) {
  makeBundle("keel_a.bundle", dictionary(text("Label", "L")));
  manager_.moduleTable().set("keel_a", "before");
  manager_.moduleTable().set("keel_b", "other");
  manager_.loadAllModules();
  EXPECT_TRUE(supervisor_.enabled.contains("L"));
  EXPECT_EQ(table(), Value::map({{"keel_b", "other"}}));
  EXPECT_THAT(logged(), ::testing::Contains("debug: loadAllModules: loaded " +
                                            folder_.path("keel_a.bundle")));
}

TEST_F(ModuleLoading, AJobWithoutALabelTextHasTheNullLabel) {
  makeBundle("keel_a.bundle",
             dictionary("<key>Label</key><integer>1</integer>" + services("<key>s</key><true/>")));
  makeBundle("keel_b.bundle", dictionary(services("<key>s</key><true/>")));
  for (const char* name : {"keel_a.bundle", "keel_b.bundle"}) {
    EXPECT_FALSE(load(name));
    EXPECT_THAT(supervisor_.calls(), ElementsAre("enabled? (null)", "create (null)",
                                                 "enable (null)", "enabled? (null)"));
    EXPECT_EQ(logged(), linesOf("(null)"));
  }
}

// The middle one of three, in directory order, has a job with empty services.
TEST_F(ModuleLoading, AnExceptionStopsTheWalkAndKeepsLoadedModules) {
  for (const char* name : {"keel_a.bundle", "keel_b.bundle", "keel_c.bundle"}) makeBundle(name);
  const auto names = contentsOfDirectory(folder_.path()).value();
  makeBundle(names[1], dictionary(services("")));
  manager_.loadAllModules();
  const std::string key = names[0].substr(0, 6);
  EXPECT_EQ(table(), Value::map({{key, "com.vantor.keeld." + key.substr(5)}}));
  const auto lines = logged();
  ASSERT_EQ(lines.size(), 7U);
  EXPECT_EQ(lines[4], "debug: loadAllModules: loaded " + folder_.path(names[0]));
  EXPECT_EQ(lines[5],
            "error: loadAllModules: received an exception NSRangeException: index 0 beyond the end "
            "of the empty "
            "\"MachServices\" of " +
                folder_.path(names[1]));
  EXPECT_EQ(lines[6], "debug: loadAllModules: moduleTable is " + table().description());
}

TEST_F(ModuleLoading, AnExceptionOfTheSupervisorStopsTheWalk) {
  makeBundle("keel_a.bundle");
  supervisor_.onQuery = [](const String&) { throw Exception(NSGenericException, "no"); };
  manager_.loadAllModules();
  EXPECT_THAT(
      logged(),
      ElementsAre(
          "debug: synthesizeJobFromBundle: did not find a custom launchd.plist, creating one",
          "error: loadAllModules: received an exception NSGenericException: no",
          "debug: loadAllModules: moduleTable is {}"));
}

TEST_F(ModuleLoading, DoesNotCatchOtherExceptionTypes) {
  makeBundle("keel_a.bundle");
  supervisor_.onQuery = [](const String&) { throw std::runtime_error("no"); };
  EXPECT_THROW(manager_.loadAllModules(), std::runtime_error);
}

TEST_F(ModuleLoading, ABundleThatVanishesDuringTheWalkGetsItsDefaultJob) {
  for (const char* name : {"keel_a.bundle", "keel_b.bundle", "keel_c.bundle"})
    makeBundle(name, ownJob(name));
  supervisor_.onQuery = [this](const String&) {
    for (const char* name : {"keel_a.bundle", "keel_b.bundle", "keel_c.bundle"})
      std::filesystem::remove_all(folder_.path(name));
  };
  const std::string first = contentsOfDirectory(folder_.path()).value().front();
  manager_.loadAllModules();
  EXPECT_EQ(manager_.moduleTable().count(), 3U);
  for (const char* key : {"keel_a", "keel_b", "keel_c"}) {
    const bool isFirst = first.starts_with(key);
    EXPECT_EQ(
        manager_.moduleTable().at(key),
        String(isFirst ? "service of " + first : std::string("com.vantor.keeld.").append(key + 5)));
  }
}

TEST_F(ModuleLoading, LogsAndSkipsANameThatIsNotUtf8) {
  makeBundle("keel_\xff.bundle");
  makeBundle("keel_a.bundle");
  manager_.loadAllModules();
  EXPECT_EQ(table(), Value::map({{"keel_a", "com.vantor.keeld.a"}}));
  const std::string path = folder_.path("keel_\xff.bundle");
  EXPECT_THAT(logged(),
              ::testing::IsSupersetOf({"error: loadAllModules: the name of " + path +
                                           " is not UTF-8; give it another one",
                                       "error: loadAllModules: can't load module at " + path}));
}

class ManagerWithoutJobs final : public KLNModuleManager {
 public:
  using KLNModuleManager::KLNModuleManager;
  Value synthesizeJobFromBundle(const std::string&, String*, String*) override { return nullptr; }
};

TEST_F(ModuleLoading, WithoutAJobDoesNotCallTheSupervisor) {
  makeBundle("keel_a.bundle");
  ManagerWithoutJobs manager(supervisor_, folder_.path());
  manager.loadAllModules();
  EXPECT_EQ(manager.moduleTable().count(), 0U);
  EXPECT_THAT(supervisor_.calls(), ElementsAre("authorize"));
  const std::string path = folder_.path("keel_a.bundle");
  EXPECT_THAT(logged(),
              ElementsAre("error: loadModuleIfNeededFromPath failed to crete a jobDict for " + path,
                          "error: loadAllModules: can't load module at " + path,
                          "debug: loadAllModules: moduleTable is {}"));
}

TEST_F(ModuleLoading, UnloadingDisablesOnlyTheDefaultLabelOfEachKey) {
  manager_.moduleTable().set("keel_x", "s");
  manager_.unloadAllModules();
  EXPECT_THAT(supervisor_.calls(), ElementsAre("disable without slot com.vantor.keeld.x"));
  EXPECT_EQ(table(), Value::map({{"keel_x", "s"}}));
  EXPECT_THAT(logged(), IsEmpty());

  manager_.moduleTable().set("other", "t");
  manager_.unloadAllModules();
  EXPECT_THAT(supervisor_.calls(), UnorderedElementsAre("disable without slot com.vantor.keeld.x",
                                                        "disable without slot com.vantor.keeld."));
}

TEST_F(ModuleLoading, UnloadingIgnoresTheBundlesOwnLabels) {
  makeBundle("keel_a.bundle", ownJob("L"));
  manager_.loadAllModules();
  supervisor_.calls();
  manager_.unloadAllModules();
  EXPECT_THAT(supervisor_.calls(), ElementsAre("disable without slot com.vantor.keeld.a"));
  EXPECT_EQ(table(), Value::map({{"keel_a", "service of L"}}));
}

}  // namespace
}  // namespace keel
