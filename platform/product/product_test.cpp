// SPDX-License-Identifier: Apache-2.0
#include "platform/product/product.h"

#include <gtest/gtest.h>

namespace keel {
namespace {

TEST(TBCopyCalderBuildVersion, IsTheBuildVersion) {
  EXPECT_FALSE(TBCopyCalderBuildVersion().isNull());
  EXPECT_EQ(TBCopyCalderBuildVersion().view(), KEEL_BUILD_VERSION);
}

}  // namespace
}  // namespace keel
