// SPDX-License-Identifier: Apache-2.0
#include "tools/digest_command.h"

#include <gmock/gmock.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "runtime/foundation/file_descriptor.h"
#include "runtime/foundation/temporary_folder.h"
#include "tools/password_input.h"

namespace keel {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

FileDescriptor fileOf(std::string_view text) {
  FileDescriptor file(::memfd_create("text", MFD_CLOEXEC));
  EXPECT_EQ(::write(file.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
  ::lseek(file.get(), 0, SEEK_SET);
  return file;
}

std::string contentOf(int file) {
  std::string content(static_cast<std::size_t>(::lseek(file, 0, SEEK_END)), '\0');
  EXPECT_EQ(::pread(file, content.data(), content.size(), 0), static_cast<ssize_t>(content.size()));
  return content;
}

class DigestCommand : public testing::Test {
 protected:
  DigestCommand() {
    options.file = folder.path("keeld/digest");
    options.user = "Mufasa";
    options.realm = "http-auth@example.org";
  }

  int set(std::string_view password) {
    const FileDescriptor source = fileOf(password);
    options.passwordDescriptor = source.get();
    return digestSetCommand(console, options);
  }
  std::string written() const {
    std::ostringstream text;
    text << std::ifstream(options.file).rdbuf();
    return text.str();
  }
  std::string said() const { return contentOf(errors.get()); }

  const TemporaryFolder folder;
  DigestOptions options;
  const FileDescriptor output = fileOf("");
  const FileDescriptor errors = fileOf("");
  Console console{-1, output.get(), errors.get()};
};

// The user of the examples of RFC 7616, section 3.9.1.
constexpr const char* kMufasa =
    "Mufasa:http-auth@example.org:"
    "7987c64c30e25f1b74be53f966b49b90f2808aa92faf9a00262392d7b4794232\n"
    "Mufasa:http-auth@example.org:3d78807defe7de2157e2b0b6573a855f\n";

TEST_F(DigestCommand, SetWritesADigestForEachAlgorithm) {
  EXPECT_EQ(set("Circle of Life\n"), kExitOk);
  EXPECT_EQ(written(), kMufasa);
  EXPECT_EQ(said(), "");
}

TEST_F(DigestCommand, SetReadsTheFirstLineTerminatedOrNot) {
  EXPECT_EQ(set("Circle of Life"), kExitOk);
  EXPECT_EQ(written(), kMufasa);
  EXPECT_EQ(set("Circle of Life\nmore"), kExitOk);
  EXPECT_EQ(written(), kMufasa);
}

TEST_F(DigestCommand, SetReplacesTheUserAndKeepsOthers) {
  EXPECT_EQ(set("old"), kExitOk);
  options.user = "Scar";
  EXPECT_EQ(set("x"), kExitOk);
  options.user = "Mufasa";
  EXPECT_EQ(set("Circle of Life"), kExitOk);
  EXPECT_THAT(written(), testing::AllOf(testing::StartsWith("Scar:"), testing::EndsWith(kMufasa)));
}

TEST_F(DigestCommand, SetRefusesUnusablePasswords) {
  for (const auto& password : {std::string(), std::string("\n"), std::string("\xff\n"),
                               std::string(kLongestPasswordBytes + 1, 'p')}) {
    EXPECT_EQ(set(password), kExitUsage) << password.size();
  }
  EXPECT_FALSE(fs::exists(options.file));
  EXPECT_EQ(set(std::string(kLongestPasswordBytes, 'p')), kExitOk);
}

TEST_F(DigestCommand, SetReportsAMissingDescriptor) {
  options.passwordDescriptor = 1'000'000;
  EXPECT_EQ(digestSetCommand(console, options), kExitUsage);
  EXPECT_THAT(said(), HasSubstr("cannot read the password: Bad file descriptor"));
}

TEST_F(DigestCommand, NamesWithLineBreaksAreRefused) {
  for (const char* user : {"", "a:b", "#a", "a\nb", "\xff"}) {
    options.user = user;
    EXPECT_EQ(set("x"), kExitUsage) << user;
    EXPECT_EQ(digestRemoveCommand(console, options), kExitUsage) << user;
  }
  options.user = "a";
  options.realm = "r:";
  EXPECT_EQ(set("x"), kExitUsage);
}

TEST_F(DigestCommand, RemoveDeletesTheUser) {
  EXPECT_EQ(set("Circle of Life"), kExitOk);
  EXPECT_EQ(digestRemoveCommand(console, options), kExitOk);
  EXPECT_EQ(written(), "");
}

TEST_F(DigestCommand, RemovingAnUnknownUserFailsAndCreatesNoFile) {
  EXPECT_EQ(digestRemoveCommand(console, options), kExitRefused);
  EXPECT_THAT(said(),
              HasSubstr("Mufasa has no digest credentials in the realm http-auth@example.org"));
  EXPECT_FALSE(fs::exists(folder.path("keeld")));
  EXPECT_EQ(set("Circle of Life"), kExitOk);
  options.realm = "other";
  EXPECT_EQ(digestRemoveCommand(console, options), kExitRefused);
  EXPECT_EQ(written(), kMufasa);
}

TEST_F(DigestCommand, AFileReadableByOthersIsNotChanged) {
  EXPECT_EQ(set("Circle of Life"), kExitOk);
  ::chmod(options.file.c_str(), 0644);
  EXPECT_EQ(set("x"), kExitRefused);
  EXPECT_EQ(digestRemoveCommand(console, options), kExitRefused);
  EXPECT_EQ(digestListCommand(console, {}, options), kExitRefused);
  EXPECT_EQ(written(), kMufasa);
  EXPECT_THAT(said(), HasSubstr("fix its owner and mode\n"));
}

TEST_F(DigestCommand, ListShowsUsersAndNoDigests) {
  EXPECT_EQ(digestListCommand(console, {}, options), kExitOk);
  EXPECT_EQ(contentOf(output.get()), "");
  EXPECT_EQ(set("Circle of Life"), kExitOk);
  std::ofstream(options.file, std::ios::app)
      << "nonsense\nal \"x\":r:" << std::string(32, 'a') << "\n";
  EXPECT_EQ(digestListCommand(console, {}, options), kExitOk);
  EXPECT_EQ(contentOf(output.get()),
            "{\"user\":\"Mufasa\",\"realm\":\"http-auth@example.org\",\"algorithms\":[\"SHA-256\","
            "\"MD5\"]}\n"
            "{\"user\":\"al \\\"x\\\"\",\"realm\":\"r\",\"algorithms\":[\"MD5\"]}\n");
  EXPECT_THAT(said(), HasSubstr("line 3 of"));
}

}  // namespace
}  // namespace keel
