// SPDX-License-Identifier: Apache-2.0
#include "runtime/foundation/file_descriptor.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>

namespace keel {
namespace {

int openAny() {
  return ::open("/dev/null", O_RDONLY | O_CLOEXEC);
}
bool isOpen(int descriptor) {
  return ::fcntl(descriptor, F_GETFD) >= 0;
}

TEST(FileDescriptor, ClosesItsDescriptorOnDestruction) {
  const int number = openAny();
  {
    const FileDescriptor owner(number);
  }
  EXPECT_FALSE(isOpen(number));
}

TEST(FileDescriptor, OwnsNothingByDefault) {
  const FileDescriptor none;
  EXPECT_FALSE(none);
  EXPECT_EQ(none.get(), -1);
}

TEST(FileDescriptor, ReleaseDoesNotClose) {
  FileDescriptor owner(openAny());
  FileDescriptor next(owner.release());
  EXPECT_FALSE(owner);
  EXPECT_TRUE(isOpen(next.get()));
}

TEST(FileDescriptor, AssignmentClosesTheOldDescriptor) {
  const int first = openAny();
  FileDescriptor owner(first);
  FileDescriptor other(openAny());
  const int second = other.get();
  owner = std::move(other);
  EXPECT_FALSE(isOpen(first));
  EXPECT_EQ(owner.get(), second);
  EXPECT_TRUE(isOpen(second));
}

TEST(FileDescriptor, SelfAssignmentKeepsItOpen) {
  FileDescriptor owner(openAny());
  FileDescriptor& same = owner;
  owner = std::move(same);
  EXPECT_TRUE(isOpen(owner.get()));
}

TEST(FileDescriptorReset, PreservesErrno) {
  FileDescriptor bad(1'000'000);  // Not open: its close fails.
  errno = ENOENT;
  bad.reset();
  EXPECT_EQ(errno, ENOENT);
}

}  // namespace
}  // namespace keel
