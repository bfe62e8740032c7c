// SPDX-License-Identifier: Apache-2.0
#include "platform/bundle/regular_file.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "runtime/foundation/file_descriptor.h"
#include "runtime/foundation/temporary_folder.h"
#include "runtime/foundation/test_bytes.h"

namespace keel {
namespace {

std::string outcomeOf(const std::string& path, std::size_t limitBytes = 100) {
  const auto bytes = readRegularFile(path, limitBytes);
  return bytes ? std::to_string(bytes->size()) + " bytes" : bytes.error().description();
}

TEST(RegularFile, IsReadWhole) {
  const TemporaryFolder folder;
  folder.write("file", "abc");
  folder.write("empty", "");
  EXPECT_EQ(readRegularFile(folder.path("file"), 100), bytesOfText("abc"));
  EXPECT_EQ(outcomeOf(folder.path("empty")), "0 bytes");
  // More than one read's worth.
  const std::string large(100000, 'x');
  folder.write("large", large);
  EXPECT_EQ(readRegularFile(folder.path("large"), 100000), bytesOfText(large));
}

TEST(RegularFile, RefusesMoreThanTheLimit) {
  const TemporaryFolder folder;
  folder.write("file", "abc");
  EXPECT_EQ(outcomeOf(folder.path("file"), 3), "3 bytes");
  EXPECT_EQ(
      outcomeOf(folder.path("file"), 2),
      "cannot read " + folder.path("file") + ": more than 2 bytes (NSPOSIXErrorDomain error 27)");
}

// Such files report size 0.
TEST(RegularFile, ReadsFilesOfTheKernel) {
  EXPECT_EQ(outcomeOf("/proc/self/status", 2).find("cannot read"), 0U);
  EXPECT_GT(readRegularFile("/proc/self/status", 100000).value().size(), 100U);
}

TEST(RegularFile, FollowsLinks) {
  const TemporaryFolder folder;
  folder.write("file", "abc");
  ASSERT_EQ(::symlink("file", folder.path("link").c_str()), 0);
  EXPECT_EQ(outcomeOf(folder.path("link")), "3 bytes");
}

TEST(RegularFile, NamesAnUnreadableFile) {
  const TemporaryFolder folder;
  EXPECT_EQ(outcomeOf(folder.path("none")),
            "cannot read " + folder.path("none") +
                ": No such file or directory (NSPOSIXErrorDomain error 2)");
  ASSERT_EQ(::symlink("loop", folder.path("loop").c_str()), 0);
  EXPECT_EQ(readRegularFile(folder.path("loop"), 100).error().code(), ELOOP);
}

TEST(RegularFile, DoesNotOpenOtherKinds) {
  const TemporaryFolder folder;
  // Opening a FIFO without a writer would block forever.
  ASSERT_EQ(::mkfifo(folder.path("pipe").c_str(), 0600), 0);
  ASSERT_EQ(::symlink("pipe", folder.path("link").c_str()), 0);
  const FileDescriptor listening(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
  std::strncpy(address.sun_path, folder.path("socket").c_str(), sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(listening.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address),
            0);
  for (const std::string& path : {folder.path("pipe"), folder.path("link"), folder.path("socket"),
                                  folder.path(""), std::string("/dev/zero")}) {
    EXPECT_EQ(outcomeOf(path),
              "cannot read " + path + ": not a regular file (NSPOSIXErrorDomain error 22)");
  }
}

}  // namespace
}  // namespace keel
