// SPDX-License-Identifier: Apache-2.0
#include "daemon/name_files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "runtime/foundation/temporary_folder.h"

namespace keel {
namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::IsEmpty;

class NameFiles : public ::testing::Test {
 protected:
  void write(const std::string& name, std::string_view text, mode_t mode = 0644) {
    folder_.write(name, text);
    ASSERT_EQ(::chmod(folder_.path(name).c_str(), mode), 0);
  }
  NamesRead read() const { return readNameReservations(folder_.path()); }

  TemporaryFolder folder_;
};

TEST_F(NameFiles, AMissingFolderMeansNoRules) {
  const NamesRead read = readNameReservations(folder_.path("missing"));
  EXPECT_EQ(read.reservations.count(), 0U);
  EXPECT_THAT(read.problems, IsEmpty());
}

TEST_F(NameFiles, AreReadInTheOrderOfTheirNames) {
  write("b.conf", "weather 2\nnews 2\n");
  write("a.conf", "weather 1\n");
  const NamesRead read = this->read();
  EXPECT_EQ(read.reservations.ownerOf("weather"), 1);
  EXPECT_EQ(read.reservations.ownerOf("news"), 2);
  EXPECT_THAT(
      read.problems,
      ElementsAre(folder_.path("b.conf") + ":1: weather is reserved for uid 1 already, at " +
                  folder_.path("a.conf") +
                  ":1; remove one of the two lines, until then the first counts"));
}

TEST_F(NameFiles, UsersAreTheSystems) {
  write("a.conf", "weather root\nnews no-such-user\n");
  const NamesRead read = this->read();
  EXPECT_EQ(read.reservations.ownerOf("weather"), 0);
  EXPECT_THAT(read.problems,
              ElementsAre(EndsWith("a.conf:2: there is no user no-such-user; until the line names "
                                   "one and keeld is restarted, only root may publish news")));
}

TEST_F(NameFiles, OthersThanConfAreLeftAlone) {
  for (const char* name : {"a.conf~", "a.txt", ".a.conf", "conf"}) write(name, "weather 1\n");
  folder_.makeFolder("folder");
  const NamesRead read = this->read();
  EXPECT_EQ(read.reservations.count(), 0U);
  EXPECT_THAT(read.problems, IsEmpty());
}

TEST_F(NameFiles, ThatOthersCanWriteAreRefusedAndTheRestCounts) {
  write("a.conf", "weather 1\n", 0664);
  write("b.conf", "news 1\n", 0646);
  write("c.conf", "mail 1\n", 0600);
  const NamesRead read = this->read();
  EXPECT_EQ(read.reservations.count(), 1U);
  EXPECT_EQ(read.reservations.ownerOf("mail"), 1);
  const auto refusal = [this](const char* name) {
    return folder_.path(name) +
           " can be written by others than root, so its rules do not count; give it to root, with "
           "mode 0644";
  };
  EXPECT_THAT(read.problems, ElementsAre(refusal("a.conf"), refusal("b.conf")));
}

TEST_F(NameFiles, InAFolderThatOthersCanWriteAreRefused) {
  write("a.conf", "weather 1\n");
  ASSERT_EQ(::chmod(folder_.path().c_str(), 0777), 0);
  const NamesRead read = this->read();
  EXPECT_EQ(read.reservations.count(), 0U);
  EXPECT_THAT(read.problems,
              ElementsAre(folder_.path() +
                          " can be written by others than root, so none of its rules counts; give "
                          "it to root, with mode 0755"));
}

TEST_F(NameFiles, ThatAreNoFilesAreRefused) {
  write("real", "weather 1\n");
  ASSERT_EQ(::symlink(folder_.path("real").c_str(), folder_.path("a.conf").c_str()), 0);
  ASSERT_EQ(::mkfifo(folder_.path("b.conf").c_str(), 0600), 0);
  folder_.makeFolder("c.conf");
  const NamesRead read = this->read();
  EXPECT_EQ(read.reservations.count(), 0U);
  EXPECT_THAT(
      read.problems,
      ElementsAre(folder_.path("a.conf") +
                      " is a link; put the file itself there, until then its rules do not count",
                  folder_.path("b.conf") + " is no ordinary file; remove it",
                  folder_.path("c.conf") + " is no ordinary file; remove it"));
}

TEST_F(NameFiles, OfTheLargestSizeAreReadAndLargerOnesRefused) {
  std::string text = "weather 1\n";
  text.append(kNamesFileBytes - text.size(), '\n');
  write("a.conf", text);
  write("b.conf", "news 1\n" + std::string(kNamesFileBytes, '\n'));
  const NamesRead read = this->read();
  EXPECT_EQ(read.reservations.ownerOf("weather"), 1);
  EXPECT_EQ(read.reservations.ownerOf("news"), std::nullopt);
  EXPECT_THAT(read.problems,
              ElementsAre(folder_.path("b.conf") +
                          " has more than 1048576 bytes; split it, until then its rules do not "
                          "count"));
}

}  // namespace
}  // namespace keel
