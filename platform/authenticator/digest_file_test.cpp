// SPDX-License-Identifier: Apache-2.0
#include "platform/authenticator/digest_file.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "runtime/foundation/file_descriptor.h"
#include "runtime/foundation/temporary_folder.h"
#include "runtime/foundation/value.h"

namespace keel {
namespace {

namespace fs = std::filesystem;

using ::testing::UnorderedElementsAre;

const std::string kLine = "alice:r:" + std::string(32, 'a') + "\n";

class DigestFile : public ::testing::Test {
 protected:
  DigestFile() { ::umask(022); }

  void write(const std::string& text, mode_t mode = 0600) const {
    std::ofstream(path) << text;
    ::chmod(path.c_str(), mode);
  }
  std::string written() const {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
  }
  std::vector<std::string> namesInDirectory() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(directory))
      names.push_back(entry.path().filename());
    return names;
  }
  // Returns 0 if it can be read.
  std::int64_t readingFails() const {
    const auto text = readDigestFile(path);
    return text ? 0 : text.error().code();
  }
  std::expected<void, Error> add(const std::string& user) const {
    return changeDigestFile(
        path, [&](const DigestCredentials& present) -> std::expected<Secret, Error> {
          return present.with(user, "r", std::array{Secret(std::string(32, 'b'))});
        });
  }

  const TemporaryFolder folder;
  const std::string directory = folder.path();
  const std::string path = folder.path("digest");
};

TEST_F(DigestFile, IsRead) {
  write(kLine);
  const auto text = readDigestFile(path);
  ASSERT_TRUE(text);
  EXPECT_EQ(text->text(), kLine);
}

TEST_F(DigestFile, MayBeMissing) {
  EXPECT_EQ(readingFails(), ENOENT);
}

TEST_F(DigestFile, RefusesAFileAccessibleToOthers) {
  for (const mode_t mode : {0600U, 0400U}) {
    write(kLine, mode);
    EXPECT_EQ(readingFails(), 0);
  }
  for (const mode_t mode : {0640U, 0604U, 0620U, 0602U}) {
    write(kLine, mode);
    EXPECT_EQ(readingFails(), EPERM) << std::oct << mode;
  }
}

TEST_F(DigestFile, RefusesAFileOfAnotherOwner) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can give files away";
  write(kLine);
  ASSERT_EQ(::chown(path.c_str(), 1, 0), 0);
  EXPECT_EQ(readingFails(), EPERM);
}

TEST_F(DigestFile, RefusesADirectoryWritableByOthers) {
  write(kLine);
  ::chmod(directory.c_str(), 0777);
  EXPECT_EQ(readingFails(), EPERM);
  ::chmod(directory.c_str(), 0755);
  EXPECT_EQ(readingFails(), 0);
}

TEST_F(DigestFile, RefusesOtherFileTypesWithoutBlocking) {
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  EXPECT_EQ(readingFails(), EPERM);
  fs::remove(path);
  fs::create_directory(path);
  EXPECT_EQ(readingFails(), EPERM);
  fs::remove(path);
  fs::create_symlink("/dev/null", path);
  EXPECT_EQ(readingFails(), EPERM);
}

TEST_F(DigestFile, SizeIsBounded) {
  write(std::string(kDigestFileBytes, '#'));
  EXPECT_EQ(readingFails(), 0);
  write(std::string(kDigestFileBytes + 1, '#'));
  EXPECT_EQ(readingFails(), EFBIG);
}

TEST_F(DigestFile, CreatesAMissingFileAndDirectory) {
  fs::remove(directory);
  ASSERT_TRUE(add("bob"));
  EXPECT_EQ(written(), "bob:r:" + std::string(32, 'b') + "\n");
  struct stat status{};
  ASSERT_EQ(::stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600U);
  ASSERT_EQ(::stat(directory.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0755U);
}

TEST_F(DigestFile, ReplacesTheFileAtomically) {
  write(kLine);
  std::ifstream reader(path);
  ASSERT_TRUE(add("bob"));
  std::ostringstream before;
  before << reader.rdbuf();
  EXPECT_EQ(before.str(), kLine);
  EXPECT_EQ(written(), kLine + "bob:r:" + std::string(32, 'b') + "\n");
}

TEST_F(DigestFile, OverwritesALeftoverTemporaryFile) {
  write(kLine);
  std::ofstream(directory + "/.digest.new") << "half";
  ASSERT_TRUE(add("bob"));
  EXPECT_THAT(namesInDirectory(), UnorderedElementsAre("digest", ".digest.lock"));
}

TEST_F(DigestFile, DoesNotChangeAnUnsafeFile) {
  write(kLine, 0644);
  const auto changed = add("bob");
  ASSERT_FALSE(changed);
  EXPECT_EQ(changed.error().code(), EPERM);
  EXPECT_EQ(written(), kLine);
}

TEST_F(DigestFile, LeavesTheFileUnchangedIfTheChangeFails) {
  write(kLine);
  const auto changed =
      changeDigestFile(path, [](const DigestCredentials&) -> std::expected<Secret, Error> {
        return std::unexpected(Error("mine", 7));
      });
  ASSERT_FALSE(changed);
  EXPECT_EQ(changed.error().code(), 7);
  EXPECT_EQ(written(), kLine);
}

TEST_F(DigestFile, DoesNotGrowBeyondItsBound) {
  write(std::string(kDigestFileBytes - 10, '#'));
  const auto changed = add("bob");
  ASSERT_FALSE(changed);
  EXPECT_EQ(changed.error().code(), EFBIG);
  EXPECT_EQ(fs::file_size(path), kDigestFileBytes - 10);
  EXPECT_THAT(namesInDirectory(), UnorderedElementsAre("digest", ".digest.lock"));
}

TEST_F(DigestFile, LocksNothingThatOthersCanOpen) {
  write(kLine);
  const FileDescriptor held(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  ASSERT_EQ(::flock(held.get(), LOCK_EX), 0);
  EXPECT_TRUE(add("bob"));
  // The lock file itself is inaccessible to others.
  struct stat status{};
  ASSERT_EQ(::stat((directory + "/.digest.lock").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600U);
}

TEST_F(DigestFile, RefusesALockAccessibleToOthers) {
  const std::string lock = directory + "/.digest.lock";
  std::ofstream(lock).close();
  ::chmod(lock.c_str(), 0644);
  EXPECT_FALSE(add("bob"));
  fs::remove(lock);
  fs::create_symlink("/dev/null", lock);
  EXPECT_FALSE(add("bob"));
  fs::remove(lock);
  EXPECT_TRUE(add("bob"));
}

TEST_F(DigestFile, ConcurrentChangesAreAllApplied) {
  constexpr std::size_t kCount = 8;
  {
    std::vector<std::jthread> writers;
    for (std::size_t i = 0; i < kCount; ++i) {
      writers.emplace_back([this, i] { EXPECT_TRUE(add("user" + std::to_string(i))); });
    }
  }
  auto text = readDigestFile(path);
  ASSERT_TRUE(text);
  EXPECT_EQ(DigestCredentials(std::move(*text)).lines().size(), kCount);
}

}  // namespace
}  // namespace keel
