// SPDX-License-Identifier: Apache-2.0
#include "runtime/foundation/check.h"

#include <gtest/gtest.h>

namespace keel {
namespace {

TEST(CheckDeathTest, AFalseConditionPrintsItsLocationAndAborts) {
  const int two = 2;
  EXPECT_DEATH(KEEL_CHECK(two == 3), "check_test\\.cpp:[0-9]+: check failed: two == 3");
}

TEST(Check, ATrueConditionIsEvaluatedOnce) {
  int evaluations = 0;
  KEEL_CHECK(++evaluations == 1);
  EXPECT_EQ(evaluations, 1);
}

}  // namespace
}  // namespace keel
