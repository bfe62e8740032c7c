// SPDX-License-Identifier: Apache-2.0
#include "runtime/transport/user_account.h"

#include <gtest/gtest.h>

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
  EXPECT_EQ(quota.grantedNameBytes(), 22'500u);
  alice.charge(80'000);
  EXPECT_EQ(quota.grantedBytes(), 0u);
  alice.refund(160'000);
  EXPECT_EQ(quota.grantedBytes(), 50'000u);
}

TEST(MemoryQuota, WhatFitsLeavesItsAccountWithinItsGrant) {
  MemoryAccount all;
  MemoryAccount alice(all);
  MemoryAccount bob(all);
  const MemoryQuota quota{.account = &bob, .total = &all, .totalLimitBytes = 10'000'000};
  alice.charge(1'000'000);
  for (const bool isName : {false, true}) {
    const auto limit = [&] { return isName ? quota.grantedNameBytes() : quota.grantedBytes(); };
    for (std::size_t bytes = 3'000'000; bytes >= 10'000; bytes /= 2) {
      while (bytes <= quota.roomBytes(limit())) bob.charge(bytes);
      EXPECT_LE(bob.bytes(), limit());
    }
  }
  EXPECT_GT(bob.bytes(), 4'000'000u);
  bob.refund(bob.bytes());
  alice.refund(1'000'000);
}

TEST(MemoryQuota, RootIsGrantedWhatTheOthersLeave) {
  MemoryAccount all;
  MemoryAccount alice(all);
  MemoryAccount root(all);
  const MemoryQuota quota{
      .account = &root, .total = &all, .totalLimitBytes = 100'000, .mayTakeAll = true};
  root.charge(100);  // too little to be in the total yet
  EXPECT_EQ(quota.grantedBytes(), 100'000u);
  root.refund(100);
  root.charge(80'000);
  EXPECT_EQ(quota.grantedBytes(), 100'000u);
  alice.charge(20'000);
  EXPECT_EQ(quota.grantedBytes(), 80'000u);
  EXPECT_FALSE(quota.isExceeded());
  alice.charge(20'000);
  EXPECT_TRUE(quota.isExceeded());
  alice.refund(40'000);
  root.refund(80'000);
}

TEST(UserAccount, OneUserAloneMayHoldHalfOfTheBudget) {
  const MemoryQuota& quota = UserAccount::of(501).quota;
  EXPECT_LE(quota.grantedBytes(), limits::kClientMemoryBytes);
  const std::size_t half = quota.grantedBytes() / 2;
  quota.account->charge(half);
  EXPECT_FALSE(quota.isExceeded());
  EXPECT_NEAR(static_cast<double>(quota.grantedBytes()), static_cast<double>(half), 10'000);
  quota.account->refund(half);
  EXPECT_EQ(&UserAccount::of(501).quota, &quota);
}

}  // namespace
}  // namespace keel::xpc
