// SPDX-License-Identifier: Apache-2.0
#include "platform/bundle/directory_listing.h"

#include <dirent.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "runtime/foundation/temporary_folder.h"

namespace keel {
namespace {

using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

TEST(DirectoryListing, ListsEverythingButDotAndDotDot) {
  const TemporaryFolder folder;
  EXPECT_THAT(contentsOfDirectory(folder.path()).value(), IsEmpty());
  folder.write("file", "");
  folder.write("folder/below", "");
  folder.write(".hidden", "");
  folder.write("...", "");
  folder.write("\xff", "");
  EXPECT_THAT(contentsOfDirectory(folder.path()).value(),
              UnorderedElementsAre("file", "folder", ".hidden", "...", "\xff"));
  EXPECT_THAT(contentsOfDirectory(folder.path() + "/").value(),
              UnorderedElementsAre("file", "folder", ".hidden", "...", "\xff"));
}

TEST(DirectoryListing, KeepsTheSystemsOrder) {
  const TemporaryFolder folder;
  for (int number = 0; number < 50; ++number) folder.write(std::to_string(number * 7919 % 50), "");
  std::vector<std::string> names;
  DIR* directory = ::opendir(folder.path().c_str());
  while (const dirent* entry = ::readdir(directory)) {
    if (entry->d_name[0] != '.') names.emplace_back(entry->d_name);
  }
  ::closedir(directory);
  EXPECT_EQ(contentsOfDirectory(folder.path()), names);
}

TEST(DirectoryListing, FailsWithoutADirectory) {
  const TemporaryFolder folder;
  folder.write("file", "");
  EXPECT_EQ(contentsOfDirectory(folder.path("none")).error().description(),
            "No such file or directory (NSPOSIXErrorDomain error 2)");
  EXPECT_EQ(contentsOfDirectory(folder.path("file")).error().code(), ENOTDIR);
}

}  // namespace
}  // namespace keel
