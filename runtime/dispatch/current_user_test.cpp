// SPDX-License-Identifier: Apache-2.0
#include "runtime/dispatch/current_user.h"

#include <gtest/gtest.h>

#include <thread>

namespace keel {
namespace {

TEST(CurrentUser, NobodyAtFirst) {
  EXPECT_EQ(currentUser(), std::nullopt);
}

TEST(WorkingFor, NestsAndRestores) {
  const WorkingFor alice(501);
  EXPECT_EQ(currentUser(), 501);
  {
    const WorkingFor root(0);
    EXPECT_EQ(currentUser(), 0);
    const WorkingFor nobody(std::nullopt);
    EXPECT_EQ(currentUser(), std::nullopt);
  }
  EXPECT_EQ(currentUser(), 501);
}

TEST(WorkingFor, HoldsForItsThreadAlone) {
  const WorkingFor alice(501);
  std::optional<uid_t> other = 7;
  std::thread([&other] { other = currentUser(); }).join();
  EXPECT_EQ(other, std::nullopt);
}

}  // namespace
}  // namespace keel
