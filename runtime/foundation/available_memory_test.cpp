// SPDX-License-Identifier: Apache-2.0
#include "runtime/foundation/available_memory.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <filesystem>
#include <fstream>
#include <limits>

#include "runtime/foundation/temporary_folder.h"

namespace keel {
namespace {

TEST(AvailableMemory, IsNoMoreThanTheAddressSpace) {
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_AS, &before), 0);
  rlimit limit = before;
  limit.rlim_cur = rlim_t{1} << 40;
  if (availableMemoryBytes() < limit.rlim_cur) limit.rlim_cur = availableMemoryBytes() - 4096;
  ASSERT_EQ(::setrlimit(RLIMIT_AS, &limit), 0);
  EXPECT_EQ(availableMemoryBytes(), limit.rlim_cur);
  ASSERT_EQ(::setrlimit(RLIMIT_AS, &before), 0);
}

TEST(ControlGroupLimit, IsTheSmallestOfTheGroupAndThoseAboveIt) {
  const TemporaryFolder folder;
  const std::filesystem::path root = folder.path();
  std::filesystem::create_directories(root / "a/b/c");
  const auto write = [&](const char* group, const char* text) {
    std::ofstream(root / group / "memory.max") << text << '\n';
  };
  const auto limitOf = [&](const char* path) { return controlGroupLimitBytes(root, path); };
  write("a/b/c", "max");
  EXPECT_EQ(limitOf("/a/b/c"), std::numeric_limits<std::size_t>::max());
  write("a", "300");
  EXPECT_EQ(limitOf("/a/b/c"), 300u);
  write("a/b/c", "200");
  EXPECT_EQ(limitOf("/a/b/c"), 200u);
  write("a/b", "100");
  EXPECT_EQ(limitOf("/a/b/c"), 100u);
  EXPECT_EQ(limitOf("/"), std::numeric_limits<std::size_t>::max());
  EXPECT_EQ(limitOf(""), std::numeric_limits<std::size_t>::max());
}

}  // namespace
}  // namespace keel
