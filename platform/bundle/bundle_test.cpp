// SPDX-License-Identifier: Apache-2.0
#include "platform/bundle/bundle.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "runtime/foundation/temporary_folder.h"

namespace keel {
namespace {

class ABundle : public ::testing::Test {
 protected:
  // Writes a description or job that contains its own file name.
  void writeDictionary(const std::string& name) const {
    folder_.write(name, "<plist><dict><key>file</key><string>" + name + "</string></dict></plist>");
  }
  std::string job() const {
    const auto path = bundle_.pathForResource("launchd", "plist");
    return path ? path->substr(folder_.path().size() + 1) : "none";
  }
  Value info() const { return bundle_.infoDictionary().value(); }

  TemporaryFolder folder_;
  Bundle bundle_{folder_.path()};
};

TEST_F(ABundle, WithContentsFindsEverythingInside) {
  writeDictionary("Contents/Info.plist");
  writeDictionary("Contents/Resources/launchd.plist");
  EXPECT_EQ(info(), Value::map({{"file", "Contents/Info.plist"}}));
  EXPECT_EQ(job(), "Contents/Resources/launchd.plist");
}

TEST_F(ABundle, WithContentsIgnoresFilesOutside) {
  folder_.makeFolder("Contents");
  writeDictionary("Info.plist");
  writeDictionary("launchd.plist");
  writeDictionary("Resources/launchd.plist");
  writeDictionary("Contents/launchd.plist");
  EXPECT_EQ(info(), Value(Value::Map()));
  EXPECT_EQ(job(), "none");
}

TEST_F(ABundle, FlatFindsFilesAtTheTop) {
  writeDictionary("Info.plist");
  writeDictionary("launchd.plist");
  EXPECT_EQ(info(), Value::map({{"file", "Info.plist"}}));
  EXPECT_EQ(job(), "launchd.plist");
}

TEST_F(ABundle, FlatFindsResourcesInAFolder) {
  writeDictionary("launchd.plist");
  writeDictionary("Resources/launchd.plist");
  EXPECT_EQ(job(), "Resources/launchd.plist");
}

TEST_F(ABundle, WithAFileNamedContentsIsFlat) {
  folder_.write("Contents", "");
  writeDictionary("Info.plist");
  EXPECT_EQ(info(), Value::map({{"file", "Info.plist"}}));
}

TEST_F(ABundle, FollowsALinkToItsContents) {
  writeDictionary("Versions/A/Info.plist");
  ASSERT_EQ(::symlink("Versions/A", folder_.path("Contents").c_str()), 0);
  EXPECT_EQ(info(), Value::map({{"file", "Versions/A/Info.plist"}}));
}

TEST_F(ABundle, IsReadAnewEachTime) {
  EXPECT_EQ(job(), "none");
  writeDictionary("launchd.plist");
  EXPECT_EQ(job(), "launchd.plist");
  writeDictionary("Contents/Resources/launchd.plist");
  EXPECT_EQ(job(), "Contents/Resources/launchd.plist");
}

TEST_F(ABundle, FindsAnythingThatExists) {
  ASSERT_EQ(::mkfifo(folder_.path("launchd.plist").c_str(), 0600), 0);
  EXPECT_EQ(job(), "launchd.plist");
  folder_.makeFolder("Resources");
  ASSERT_EQ(::symlink("nothing", folder_.path("Resources/launchd.plist").c_str()), 0);
  EXPECT_EQ(job(), "Resources/launchd.plist");
}

TEST_F(ABundle, ADescriptionThatCannotBeReadIsAnError) {
  folder_.write("Info.plist", "<plist>");
  EXPECT_EQ(bundle_.infoDictionary().error().code(), EBADMSG);
  folder_.write("Info.plist", "<plist><array/></plist>");
  EXPECT_EQ(bundle_.infoDictionary().error().description(),
            folder_.path("Info.plist") + " holds no dictionary (NSPOSIXErrorDomain error 74)");
}

TEST(NoBundle, HasNoDescriptionAndNoResources) {
  const TemporaryFolder folder;
  folder.write("file", "text");
  for (const char* name : {"file", "none", "none/below"}) {
    const Bundle bundle(folder.path(name));
    EXPECT_EQ(bundle.infoDictionary(), Value(Value::Map()));
    EXPECT_FALSE(bundle.pathForResource("launchd", "plist"));
  }
}

TEST(NoBundle, ReportsALoopOfLinksOnReading) {
  const TemporaryFolder folder;
  ASSERT_EQ(::symlink("loop", folder.path("loop").c_str()), 0);
  const Bundle bundle(folder.path("loop"));
  EXPECT_EQ(bundle.infoDictionary().error().code(), ELOOP);
  EXPECT_EQ(readDictionary(bundle.pathForResource("launchd", "plist").value()).error().code(),
            ELOOP);
}

}  // namespace
}  // namespace keel
