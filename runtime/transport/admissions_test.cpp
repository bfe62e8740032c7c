// SPDX-License-Identifier: Apache-2.0
#include "runtime/transport/admissions.h"

#include <gtest/gtest.h>

#include <vector>

#include "runtime/wire/limits.h"

namespace keel::xpc {
namespace {

using Refusal = Admissions::Refusal;

class AdmissionsTest : public ::testing::Test {
 protected:
  // Returns how many are admitted.
  std::size_t fill(uid_t uid) {
    std::size_t count = 0;
    for (Admission admission; admissions.admit(uid, admission) == Refusal::none; ++count) {
      held.push_back(std::move(admission));
    }
    return count;
  }
  Refusal admit(uid_t uid) {
    Admission admission;
    const Refusal refusal = admissions.admit(uid, admission);
    if (refusal == Refusal::none) held.push_back(std::move(admission));
    return refusal;
  }

  Admissions admissions{80};  // 70 of them for users
  std::vector<Admission> held;
};

TEST_F(AdmissionsTest, AUserIsGrantedAsManyAsAreStillFree) {
  EXPECT_EQ(fill(501), 35u);
  EXPECT_EQ(admit(501), Refusal::tooManyOfUser);
  EXPECT_EQ(fill(502), 18u);
  EXPECT_EQ(fill(503), 9u);
}

TEST_F(AdmissionsTest, TheLastOnesAreReservedForRoot) {
  for (uid_t uid = 1000; admit(uid) == Refusal::none; ++uid) {
  }
  EXPECT_EQ(held.size(), 70u);
  EXPECT_EQ(admit(501), Refusal::tooManyOfUsers);
  EXPECT_EQ(fill(0), 10u);
  EXPECT_TRUE(admissions.full());
  EXPECT_EQ(admit(0), Refusal::full);
}

TEST_F(AdmissionsTest, RootMayHoldAll) {
  EXPECT_EQ(fill(0), 80u);
}

TEST_F(AdmissionsTest, AShortageIsOverWhenOneTenthIsFree) {
  fill(0);
  held.resize(73);
  EXPECT_FALSE(admissions.full());
  EXPECT_FALSE(admissions.hasRoom());
  held.resize(71);
  EXPECT_TRUE(admissions.hasRoom());
  EXPECT_EQ(admit(501), Refusal::tooManyOfUsers);
}

}  // namespace
}  // namespace keel::xpc
