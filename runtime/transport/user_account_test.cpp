// SPDX-License-Identifier: Apache-2.0
#include "runtime/transport/user_account.h"

#include <gtest/gtest.h>

#include <limits>

#include "runtime/wire/limits.h"

namespace keel::xpc {
namespace {

TEST(MemoryQuota, AUserIsGrantedAtMostWhatIsStillFree) {
  MemoryAccount all;
  MemoryAccount alice(all);
  MemoryAccount bob(all);
  const MemoryQuota quota{
      .account = &bob, .limitBytes = 50'000, .total = &all, .totalLimitBytes = 100'000};
  EXPECT_EQ(quota.grantedBytes(), 50'000u);
  alice.charge(80'000);
  EXPECT_EQ(quota.grantedBytes(), 20'000u);
  EXPECT_EQ(quota.grantedNameBytes(), 30'000u);
  alice.charge(80'000);
  EXPECT_EQ(quota.grantedBytes(), 0u);
  alice.refund(160'000);
  EXPECT_EQ(quota.grantedBytes(), 50'000u);
}

TEST(MemoryQuota, RootHasNoLimit) {
  EXPECT_EQ(UserAccount::of(0).quota.grantedBytes(), std::numeric_limits<std::size_t>::max());
  EXPECT_EQ(UserAccount::of(0).quota.grantedNameBytes(), std::numeric_limits<std::size_t>::max());
  EXPECT_LE(UserAccount::of(501).quota.grantedBytes(), limits::kMemoryOfOneUserBytes);
}

}  // namespace
}  // namespace keel::xpc
