// SPDX-License-Identifier: Apache-2.0
#include "runtime/transport/unclaimed_files.h"

#include <gtest/gtest.h>

#include <array>

namespace keel::xpc {
namespace {

struct Stream {};
struct User {};
using Files = UnclaimedFiles<Stream, User>;

constexpr std::size_t kLimit = limits::kUnclaimedDescriptors;

class UnclaimedFilesTest : public ::testing::Test {
 protected:
  Files files;
  std::array<Stream, 4> streams;
  User alice, bob;
};

TEST_F(UnclaimedFilesTest, AsManyAsMayBeOffendNobody) {
  files.note(&streams[0], &alice, kLimit);
  EXPECT_EQ(files.offender(), nullptr);
  files.note(&streams[0], &alice, kLimit + 1);
  EXPECT_EQ(files.offender(), &streams[0]);
}

TEST_F(UnclaimedFilesTest, TheOldestStreamOfWhomHoldsMostOffends) {
  files.note(&streams[0], &bob, 8);
  files.note(&streams[1], &alice, kLimit / 2);
  files.note(&streams[2], &alice, kLimit / 2);
  files.note(&streams[3], &bob, 1);
  EXPECT_EQ(files.offender(), &streams[1]);
}

TEST_F(UnclaimedFilesTest, ThatAreClaimedCountNoMore) {
  files.note(&streams[0], &alice, kLimit);
  files.note(&streams[1], &bob, 1);
  files.note(&streams[0], &alice, 0);
  EXPECT_EQ(files.offender(), nullptr);
  files.note(&streams[2], &bob, kLimit);
  EXPECT_EQ(files.offender(), &streams[1]);
}

TEST_F(UnclaimedFilesTest, OfAStreamThatHoldsNoneAreNotNoted) {
  files.note(&streams[0], &alice, 0);
  files.note(&streams[1], &alice, kLimit + 1);
  EXPECT_EQ(files.offender(), &streams[1]);
}

}  // namespace
}  // namespace keel::xpc
