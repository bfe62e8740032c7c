// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include "modules/modules_fixture.h"
#include "runtime/foundation/exception.h"

namespace keel {
namespace {

using ::testing::ElementsAre;

constexpr const char* kProgram =
    "/Applications/Calder.app/Contents/CalderRoot/System/Library/CoreServices/KeelDaemon.bundle/"
    "Contents/MacOS/keeld";
constexpr const char* kMaking =
    "debug: synthesizeJobFromBundle: did not find a custom launchd.plist, creating one";

class JobSynthesis : public ModulesFixture {
 protected:
  Value job() {
    return manager_.synthesizeJobFromBundle(folder_.path("keel_mail.bundle"), &name_, &machName_);
  }
  void write(const std::string& file, const std::string& content) {
    folder_.write("keel_mail.bundle/" + file, content);
  }
  std::string path(const std::string& file) const {
    return folder_.path("keel_mail.bundle/" + file);
  }

  static Value madeJob(const char* label, const char* service) {
    return Value::map(
        {{"Label", label},
         {"Program", kProgram},
         {"Disabled", false},
         {"EnableTransactions", true},
         {"EnablePressuredExit", true},
         {"MachServices", Value::map({{service, true}})},
         {"ProgramArguments", Value::list({kProgram, "-p", "keel_mail", "-m", service})},
         {"ProcessType", "Interactive"},
         {"Transient", true}});
  }
  static Value defaultJob() { return madeJob("com.vantor.keeld.mail", "com.vantor.keeld.mail"); }

  // Does not use a supervisor.
  KLNModuleManager manager_;
  String name_;
  String machName_;
};

TEST_F(JobSynthesis, WithoutFilesCreatesTheDefaultJobOfNineKeysInOrder) {
  folder_.makeFolder("keel_mail.bundle");
  EXPECT_EQ(job(), defaultJob());
  EXPECT_EQ(name_, String("mail"));
  EXPECT_EQ(machName_, String("com.vantor.keeld.mail"));
  EXPECT_THAT(logged(), ElementsAre(kMaking));
}

TEST_F(JobSynthesis, InfoMaySetOnlyTheLabel) {
  write("Contents/Info.plist", dictionary(text("QZJobLabel", "L")));
  EXPECT_EQ(job(), madeJob("L", "com.vantor.keeld.mail"));
  EXPECT_EQ(machName_, String("com.vantor.keeld.mail"));
}

TEST_F(JobSynthesis, InfoMaySetOnlyTheService) {
  write("Contents/Info.plist",
        dictionary(text("QZMachServiceName", "S") + text("Other", "ignored")));
  EXPECT_EQ(job(), madeJob("com.vantor.keeld.mail", "S"));
  EXPECT_EQ(name_, String("mail"));
  EXPECT_EQ(machName_, String("S"));
}

TEST_F(JobSynthesis, InfoMaySetBoth) {
  write("Info.plist", dictionary(text("QZJobLabel", "L") + text("QZMachServiceName", "S")));
  EXPECT_EQ(job(), madeJob("L", "S"));
  EXPECT_THAT(logged(), ElementsAre(kMaking));
}

TEST_F(JobSynthesis, AnEmptyTextIsAText) {
  write("Info.plist", dictionary(text("QZJobLabel", "") + text("QZMachServiceName", "")));
  EXPECT_EQ(job(), madeJob("", ""));
}

TEST_F(JobSynthesis, UsesTheBundlesOwnJobUnchanged) {
  write("Contents/Info.plist",
        dictionary(text("QZJobLabel", "L") + text("QZMachServiceName", "S")));
  write("Contents/Resources/launchd.plist",
        dictionary(text("Other", "x") + services("<key>z</key><false/><key>a</key><true/>") +
                   text("Label", "own")));
  EXPECT_EQ(job().description(),
            R"({"Other": "x", "MachServices": {"z": false, "a": true}, "Label": "own"})");
  EXPECT_EQ(name_, String("mail"));
  EXPECT_EQ(machName_, String("z"));
  EXPECT_THAT(logged(), ElementsAre());
}

TEST_F(JobSynthesis, TheBundlesOwnJobMayBeEmpty) {
  write("launchd.plist", dictionary(""));
  EXPECT_EQ(job(), Value(Value::Map()));
  EXPECT_EQ(name_, String("mail"));
  EXPECT_TRUE(machName_.isNull());
  EXPECT_THAT(logged(), ElementsAre());
}

TEST_F(JobSynthesis, AnOwnJobWithoutServicesHasNoServiceName) {
  machName_ = "before";
  write("launchd.plist", dictionary(text("Label", "own")));
  EXPECT_EQ(job(), Value::map({{"Label", "own"}}));
  EXPECT_TRUE(machName_.isNull());
}

TEST_F(JobSynthesis, AnOwnJobWithEmptyServicesRaisesARangeException) {
  write("launchd.plist", dictionary(services("")));
  try {
    job();
    FAIL() << "nothing was raised";
  } catch (const Exception& raised) {
    EXPECT_EQ(raised.name(), "NSRangeException");
  }
  // Even if the caller does not request the name.
  EXPECT_THROW(manager_.synthesizeJobFromBundle(path(""), nullptr, nullptr), Exception);
}

TEST_F(JobSynthesis, IgnoresServicesThatAreNotADictionary) {
  write("launchd.plist", dictionary("<key>MachServices</key><array><string>a</string></array>"));
  EXPECT_EQ(job(), Value::map({{"MachServices", Value::list({"a"})}}));
  EXPECT_TRUE(machName_.isNull());
  EXPECT_THAT(logged(), ElementsAre());
}

TEST_F(JobSynthesis, AllowsNullOutputArguments) {
  write("Info.plist", dictionary(text("QZJobLabel", "L")));
  const std::string bundle = folder_.path("keel_mail.bundle");
  const Value job = madeJob("L", "com.vantor.keeld.mail");
  EXPECT_EQ(manager_.synthesizeJobFromBundle(bundle, nullptr, nullptr), job);
  EXPECT_EQ(manager_.synthesizeJobFromBundle(bundle, &name_, nullptr), job);
  EXPECT_EQ(manager_.synthesizeJobFromBundle(bundle, nullptr, &machName_), job);
  EXPECT_EQ(name_, String("mail"));
  EXPECT_EQ(machName_, String("com.vantor.keeld.mail"));
  write("launchd.plist", dictionary(text("Label", "own") + services("<key>s</key><true/>")));
  EXPECT_EQ(manager_.synthesizeJobFromBundle(bundle, nullptr, nullptr).textOf("Label"), "own");
}

TEST_F(JobSynthesis, CreatesTheDefaultJobForWhatIsNotABundle) {
  EXPECT_EQ(job(), defaultJob());
  folder_.write("keel_mail.bundle", "a file");
  EXPECT_EQ(job(), defaultJob());
  EXPECT_THAT(logged(), ElementsAre(kMaking, kMaking));
}

TEST_F(JobSynthesis, SilentlyReplacesAnUnreadableOwnJob) {
  write("launchd.plist", "garbage");
  EXPECT_EQ(job(), defaultJob());
  EXPECT_THAT(logged(), ElementsAre(kMaking));
}

TEST_F(JobSynthesis, SilentlyReplacesAnOwnJobThatIsNotADictionary) {
  write("launchd.plist", "<plist><array/></plist>");
  EXPECT_EQ(job(), defaultJob());
  EXPECT_THAT(logged(), ElementsAre(kMaking));
}

TEST_F(JobSynthesis, IgnoresFilesThatAreNotRegular) {
  folder_.makeFolder("keel_mail.bundle");
  ASSERT_EQ(::mkfifo(path("launchd.plist").c_str(), 0600), 0);
  ASSERT_EQ(::symlink("/dev/zero", path("Info.plist").c_str()), 0);
  EXPECT_EQ(job(), defaultJob());
  EXPECT_THAT(logged(), ElementsAre(kMaking));
}

TEST_F(JobSynthesis, IgnoresInfoOfTheWrongKind) {
  write("Info.plist",
        dictionary("<key>QZJobLabel</key><integer>5</integer><key>QZMachServiceName</key><dict/>"));
  EXPECT_EQ(job(), defaultJob());
  EXPECT_THAT(logged(), ElementsAre(kMaking));
}

TEST_F(JobSynthesis, IgnoresUnreadableInfo) {
  write("Info.plist", "garbage");
  EXPECT_EQ(job(), defaultJob());
  EXPECT_THAT(logged(), ElementsAre(kMaking));
}

}  // namespace
}  // namespace keel
