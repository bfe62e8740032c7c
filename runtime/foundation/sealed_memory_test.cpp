// SPDX-License-Identifier: Apache-2.0
#include "runtime/foundation/sealed_memory.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include "runtime/foundation/test_bytes.h"

namespace keel {
namespace {

constexpr int kAllSeals = F_SEAL_WRITE | F_SEAL_GROW | F_SEAL_SHRINK;

// Creates a memory file of four bytes with those seals.
FileDescriptor memoryFile(int seals, unsigned flags = MFD_ALLOW_SEALING) {
  FileDescriptor file(::memfd_create("test", MFD_CLOEXEC | flags));
  EXPECT_EQ(::write(file.get(), "abcd", 4), 4);
  EXPECT_EQ(seals == 0 ? 0 : ::fcntl(file.get(), F_ADD_SEALS, seals), 0);
  return file;
}

int errnoOfOpening(FileDescriptor file, std::size_t sizeBytes) {
  const auto opened = openSealedMemory(std::move(file), sizeBytes);
  return opened ? 0 : opened.error().value();
}

TEST(SealedMemory, ReadsBackUnchanged) {
  std::vector<std::byte> bytes(3'000'001);
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<std::byte>(i * 7);
  auto file = sealedMemoryOf(bytes);
  ASSERT_TRUE(file.has_value());
  const auto buffer = openSealedMemory(std::move(*file), bytes.size());
  ASSERT_TRUE(buffer.has_value());
  EXPECT_TRUE(std::ranges::equal((*buffer)->bytes(), bytes));
}

TEST(SealedMemory, CannotBeWrittenGrownShrunkOrUnsealed) {
  const auto file = sealedMemoryOf(bytesOfText("abcd"));
  ASSERT_TRUE(file.has_value());
  const FileDescriptor second(::fcntl(file->get(), F_DUPFD_CLOEXEC, 0));
  EXPECT_EQ(::pwrite(second.get(), "x", 1, 0), -1);
  EXPECT_EQ(errno, EPERM);
  EXPECT_EQ(::ftruncate(second.get(), 3), -1);
  EXPECT_EQ(::ftruncate(second.get(), 5), -1);
  EXPECT_EQ(::mmap(nullptr, 4, PROT_READ | PROT_WRITE, MAP_SHARED, second.get(), 0), MAP_FAILED);
  EXPECT_EQ(::fcntl(second.get(), F_ADD_SEALS, F_SEAL_FUTURE_WRITE), -1);
  EXPECT_EQ(errno, EPERM);
}

TEST(SealedMemory, ClosesOnExec) {
  const auto file = sealedMemoryOf(bytesOfText("abcd"));
  ASSERT_TRUE(file.has_value());
  EXPECT_EQ(::fcntl(file->get(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}

TEST(SealedMemory, StaysReadableWhenOtherDescriptorsAreClosed) {
  auto file = sealedMemoryOf(bytesOfText("abcd"));
  ASSERT_TRUE(file.has_value());
  FileDescriptor passed(::fcntl(file->get(), F_DUPFD_CLOEXEC, 0));
  const auto buffer = openSealedMemory(std::move(passed), 4);
  ASSERT_TRUE(buffer.has_value());
  file->reset();
  EXPECT_EQ(hexOf((*buffer)->bytes()), "61626364");
}

TEST(SealedMemory, IsUnmappedAndClosedWithItsBuffer) {
  auto file = sealedMemoryOf(bytesOfText("abcd"));
  ASSERT_TRUE(file.has_value());
  const int number = file->get();
  const std::size_t before = Buffer::liveBytes();
  void* mapping = nullptr;
  {
    const auto buffer = openSealedMemory(std::move(*file), 4);
    ASSERT_TRUE(buffer.has_value());
    EXPECT_EQ((*buffer)->sealedFile(), number);
    EXPECT_EQ(Buffer::liveBytes(), before + 4 + sizeof(Buffer));
    EXPECT_GE(::fcntl(number, F_GETFD), 0);
    mapping = const_cast<std::byte*>((*buffer)->bytes().data());
    EXPECT_EQ(::msync(mapping, 4, MS_ASYNC), 0);
  }
  EXPECT_EQ(::fcntl(number, F_GETFD), -1);
  EXPECT_EQ(::msync(mapping, 4, MS_ASYNC), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(Buffer::liveBytes(), before);
}

TEST(SealedMemory, HashesLikeTheSameBytesOnTheHeap) {
  auto file = sealedMemoryOf(bytesOfText("abcd"));
  ASSERT_TRUE(file.has_value());
  const auto buffer = openSealedMemory(std::move(*file), 4);
  ASSERT_TRUE(buffer.has_value());
  EXPECT_EQ((*buffer)->hash(), Buffer::copyOf(bytesOfText("abcd"))->hash());
}

TEST(SealedMemoryWriter, HoldsEverythingAppended) {
  auto growing = SealedMemoryWriter::create();
  ASSERT_TRUE(growing.has_value());
  std::vector<std::byte> all;
  for (std::size_t size :
       {std::size_t{1}, std::size_t{70'000}, std::size_t{0}, std::size_t{4096}}) {
    const std::vector<std::byte> portion(size, static_cast<std::byte>(size + 3));
    ASSERT_TRUE(growing->append(portion).has_value());
    all.insert(all.end(), portion.begin(), portion.end());
  }
  const auto buffer = std::move(*growing).seal();
  ASSERT_TRUE(buffer.has_value());
  EXPECT_TRUE(std::ranges::equal((*buffer)->bytes(), all));
}

TEST(SealedMemoryWriter, SealsItsFile) {
  auto growing = SealedMemoryWriter::create();
  ASSERT_TRUE(growing.has_value());
  ASSERT_TRUE(growing->append(bytesOfText("abcd")).has_value());
  const auto buffer = std::move(*growing).seal();
  ASSERT_TRUE(buffer.has_value());
  EXPECT_EQ(::fcntl((*buffer)->sealedFile(), F_GET_SEALS) & kAllSeals, kAllSeals);
  EXPECT_EQ(::pwrite((*buffer)->sealedFile(), "x", 1, 0), -1);
  EXPECT_EQ(::ftruncate((*buffer)->sealedFile(), 5), -1);
}

TEST(OpenSealedMemory, AcceptsAFileWithTheThreeSeals) {
  EXPECT_EQ(errnoOfOpening(memoryFile(kAllSeals), 4), 0);
}

TEST(OpenSealedMemory, AFileThatLacksASealIsRefused) {
  EXPECT_EQ(errnoOfOpening(memoryFile(0), 4), EPERM);
  EXPECT_EQ(errnoOfOpening(memoryFile(F_SEAL_GROW | F_SEAL_SHRINK), 4), EPERM);
  EXPECT_EQ(errnoOfOpening(memoryFile(F_SEAL_WRITE | F_SEAL_SHRINK), 4), EPERM);
  EXPECT_EQ(errnoOfOpening(memoryFile(F_SEAL_WRITE | F_SEAL_GROW), 4), EPERM);
  EXPECT_EQ(errnoOfOpening(memoryFile(F_SEAL_FUTURE_WRITE | F_SEAL_GROW | F_SEAL_SHRINK), 4),
            EPERM);
  EXPECT_EQ(errnoOfOpening(memoryFile(0, 0), 4), EPERM);
}

TEST(OpenSealedMemory, AnotherSizeIsRefused) {
  EXPECT_EQ(errnoOfOpening(memoryFile(kAllSeals), 3), EINVAL);
  EXPECT_EQ(errnoOfOpening(memoryFile(kAllSeals), 5), EINVAL);
}

TEST(OpenSealedMemory, AnEmptyFileIsRefused) {
  auto file = sealedMemoryOf({});
  ASSERT_TRUE(file.has_value());
  EXPECT_EQ(errnoOfOpening(std::move(*file), 0), EINVAL);
}

TEST(OpenSealedMemory, OtherKindsOfFilesAreRefused) {
  EXPECT_EQ(errnoOfOpening(FileDescriptor(::open("/proc/self/exe", O_RDONLY | O_CLOEXEC)), 4),
            EINVAL);
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  const FileDescriptor writing(ends[1]);
  EXPECT_EQ(errnoOfOpening(FileDescriptor(ends[0]), 4), EINVAL);
  EXPECT_EQ(errnoOfOpening(FileDescriptor(), 4), EBADF);
}

TEST(OpenSealedMemory, AFileOnHugePagesIsRefused) {
  constexpr std::size_t kHugePage = 2 << 20;
  FileDescriptor file(::memfd_create("test", MFD_CLOEXEC | MFD_ALLOW_SEALING | MFD_HUGETLB));
  if (!file) GTEST_SKIP() << "this kernel has no huge pages";
  ASSERT_EQ(::ftruncate(file.get(), kHugePage), 0);
  ASSERT_EQ(::fcntl(file.get(), F_ADD_SEALS, kAllSeals), 0);
  EXPECT_EQ(errnoOfOpening(std::move(file), kHugePage), EPERM);
}

TEST(OpenSealedMemory, ClosesARefusedFile) {
  FileDescriptor file = memoryFile(0);
  const int number = file.get();
  EXPECT_EQ(errnoOfOpening(std::move(file), 4), EPERM);
  EXPECT_EQ(::fcntl(number, F_GETFD), -1);
}

}  // namespace
}  // namespace keel
