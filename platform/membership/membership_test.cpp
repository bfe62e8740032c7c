// SPDX-License-Identifier: Apache-2.0
#include "platform/membership/membership.h"

#include <gtest/gtest.h>

#include <cerrno>

// Uses accounts that every system has. The end-to-end tests create their own.

namespace keel {
namespace {

using Identifier = Membership::Identifier;

TEST(Membership, ShortNameIsTheAccountsCanonicalName) {
  EXPECT_EQ(systemMembership().shortName("root"), "root");
}

TEST(Membership, UnknownAccountsHaveNoShortName) {
  EXPECT_FALSE(systemMembership().shortName("nobody-of-that-name"));
  EXPECT_FALSE(systemMembership().shortName(""));
}

TEST(Membership, RefusesNamesWithANul) {
  const std::string name("root\0x", 6);
  Identifier found;
  EXPECT_FALSE(systemMembership().shortName(name));
  EXPECT_EQ(systemMembership().mbr_user_name_to_uuid(name, found), EINVAL);
  EXPECT_EQ(systemMembership().mbr_group_name_to_uuid(name, found), EINVAL);
  EXPECT_EQ(found.user(), nullptr);
  EXPECT_EQ(found.group(), nullptr);
}

TEST(Membership, BoundsTheNameLength) {
  Identifier found;
  EXPECT_EQ(systemMembership().mbr_user_name_to_uuid(std::string(255, 'x'), found), ENOENT);
  EXPECT_EQ(systemMembership().mbr_user_name_to_uuid(std::string(256, 'x'), found), EINVAL);
  EXPECT_EQ(systemMembership().mbr_group_name_to_uuid(std::string(255, 'x'), found), ENOENT);
  EXPECT_EQ(systemMembership().mbr_group_name_to_uuid(std::string(256, 'x'), found), EINVAL);
}

TEST(Membership, UnknownNamesAreNotFound) {
  Identifier found;
  EXPECT_EQ(systemMembership().mbr_user_name_to_uuid("nobody-of-that-name", found), ENOENT);
  EXPECT_EQ(systemMembership().mbr_group_name_to_uuid("no-group-of-that-name", found), ENOENT);
}

TEST(Membership, IncludesThePrimaryGroup) {
  Identifier root, group;
  ASSERT_EQ(systemMembership().mbr_user_name_to_uuid("root", root), 0);
  ASSERT_EQ(systemMembership().mbr_group_name_to_uuid("root", group), 0);
  bool isMember = false;
  EXPECT_EQ(systemMembership().mbr_check_membership(root, group, isMember), 0);
  EXPECT_TRUE(isMember);
}

TEST(Membership, IsFalseForAnotherGroup) {
  Identifier root, group;
  ASSERT_EQ(systemMembership().mbr_user_name_to_uuid("root", root), 0);
  ASSERT_EQ(systemMembership().mbr_group_name_to_uuid("nogroup", group), 0);
  bool isMember = true;
  EXPECT_EQ(systemMembership().mbr_check_membership(root, group, isMember), 0);
  EXPECT_FALSE(isMember);
}

TEST(Membership, RefusesIdentifiersOfTheWrongKind) {
  Identifier root, group;
  ASSERT_EQ(systemMembership().mbr_user_name_to_uuid("root", root), 0);
  ASSERT_EQ(systemMembership().mbr_group_name_to_uuid("root", group), 0);
  bool isMember = false;
  EXPECT_EQ(systemMembership().mbr_check_membership(group, group, isMember), EINVAL);
  EXPECT_EQ(systemMembership().mbr_check_membership(root, root, isMember), EINVAL);
  EXPECT_EQ(systemMembership().mbr_check_membership(Identifier(), group, isMember), EINVAL);
  EXPECT_FALSE(isMember);
}

}  // namespace
}  // namespace keel
