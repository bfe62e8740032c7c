// SPDX-License-Identifier: Apache-2.0
#include "platform/bundle/job_description.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include "runtime/foundation/temporary_folder.h"
#include "tests/support/log_recorder.h"

namespace keel {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using JobFile = JobDescription::JobFile;

class JobDescriptionTest : public ::testing::Test {
 protected:
  void writeDictionary(const std::string& name, const std::string& members) const {
    folder_.write(name, "<plist><dict>" + members + "</dict></plist>");
  }
  JobDescription read() const { return readJobDescription(Bundle(folder_.path())); }
  // Returns the logged lines without the bundle's path that begins each.
  std::vector<std::string> logged() {
    std::vector<std::string> texts;
    for (const testing::LogLine& line : log_.take()) {
      EXPECT_EQ(line.level, LogLevel::debug);
      EXPECT_EQ(line.category, "bundle");
      EXPECT_TRUE(line.text.starts_with(folder_.path() + ": ")) << line.text;
      texts.push_back(line.text.substr(folder_.path().size() + 2));
    }
    return texts;
  }

  TemporaryFolder folder_;
  testing::LogRecorder log_{LogLevel::debug};
};

TEST_F(JobDescriptionTest, UsesTheJobFileUnchangedWithoutReadingInfo) {
  writeDictionary("launchd.plist", "<key>z</key><true/><key>a</key><false/>");
  folder_.write("Info.plist", "garbage");
  const auto description = read();
  EXPECT_EQ(description.jobFile, JobFile::used);
  EXPECT_EQ(description.job.description(), R"({"z": true, "a": false})");
  EXPECT_THAT(description.reasons, IsEmpty());
  EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(JobDescriptionTest, ReadsInfoWithoutAJobFile) {
  writeDictionary(
      "Info.plist",
      "<key>QZJobLabel</key><string>L</string><key>QZMachServiceName</key><string>S</string>");
  const auto description = read();
  EXPECT_EQ(description.jobFile, JobFile::missing);
  EXPECT_TRUE(description.job.isNull());
  EXPECT_EQ(description.label, "L");
  EXPECT_EQ(description.machServiceName, "S");
  EXPECT_THAT(description.reasons, ElementsAre("job file missing"));
  EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(JobDescriptionTest, BundleMayBeMissing) {
  const auto description = readJobDescription(Bundle(folder_.path("none")));
  EXPECT_EQ(description.jobFile, JobFile::noBundle);
  EXPECT_FALSE(description.label);
  EXPECT_THAT(description.reasons, ElementsAre("bundle missing"));
  EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(JobDescriptionTest, ReportsABadJobFileAndReadsInfo) {
  folder_.write("launchd.plist", "<plist>\n<dict>\n<key>a</key>\n</dict></plist>");
  writeDictionary("Info.plist", "<key>QZJobLabel</key><string>L</string>");
  const auto description = read();
  EXPECT_EQ(description.jobFile, JobFile::unusable);
  EXPECT_TRUE(description.job.isNull());
  EXPECT_EQ(description.label, "L");
  const std::string reason = "job file: " + folder_.path("launchd.plist") +
                             " is no property list: line 4: key \"a\" without a value";
  EXPECT_THAT(description.reasons, ElementsAre(reason));
  EXPECT_THAT(logged(), ElementsAre(reason));
}

TEST_F(JobDescriptionTest, ReportsAJobFileOfTheWrongKind) {
  folder_.write("launchd.plist", "<plist><array/></plist>");
  EXPECT_EQ(read().jobFile, JobFile::unusable);
  EXPECT_THAT(logged(),
              ElementsAre("job file: " + folder_.path("launchd.plist") + " holds no dictionary"));
  ASSERT_EQ(::unlink(folder_.path("launchd.plist").c_str()), 0);
  ASSERT_EQ(::mkfifo(folder_.path("launchd.plist").c_str(), 0600), 0);
  EXPECT_EQ(read().jobFile, JobFile::unusable);
  EXPECT_THAT(logged(), ElementsAre("job file: cannot read " + folder_.path("launchd.plist") +
                                    ": not a regular file"));
}

TEST_F(JobDescriptionTest, ReportsAndIgnoresBadInfo) {
  folder_.write("Info.plist", "garbage");
  const auto description = read();
  EXPECT_FALSE(description.label);
  const std::string reason =
      "Info.plist: " + folder_.path("Info.plist") + " is no property list: line 1: syntax error";
  EXPECT_THAT(description.reasons, ElementsAre("job file missing", reason));
  EXPECT_THAT(logged(), ElementsAre(reason));
}

TEST_F(JobDescriptionTest, ReportsAndIgnoresInfoOfTheWrongKind) {
  writeDictionary("Info.plist",
                  "<key>QZJobLabel</key><integer>5</integer><key>QZMachServiceName</key><dict/>");
  const auto description = read();
  EXPECT_FALSE(description.label);
  EXPECT_FALSE(description.machServiceName);
  EXPECT_THAT(description.reasons,
              ElementsAre("job file missing", "Info.plist: \"QZJobLabel\" is no text",
                          "Info.plist: \"QZMachServiceName\" is no text"));
  EXPECT_THAT(logged(), ElementsAre("Info.plist: \"QZJobLabel\" is no text",
                                    "Info.plist: \"QZMachServiceName\" is no text"));
}

TEST_F(JobDescriptionTest, ReportsServicesOfTheWrongKindAndUsesTheJob) {
  writeDictionary("launchd.plist", "<key>MachServices</key><array/>");
  EXPECT_EQ(read().jobFile, JobFile::used);
  EXPECT_THAT(logged(), ElementsAre("job file: \"MachServices\" is no dictionary"));
}

}  // namespace
}  // namespace keel
