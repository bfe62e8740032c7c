// SPDX-License-Identifier: Apache-2.0
#include "platform/authorization/authorization.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include "platform/authorization/external_form.h"
#include "platform/authorization/polkit.h"

namespace keel {
namespace {

constexpr AuthorizationItem kRight[] = {{.name = "com.vantor.ServiceManagement.daemons.modify"}};

xpc::PeerIdentity identity(uid_t uid = 501) {
  return {.pid = 345,
          .uid = uid,
          .gid = 20,
          .startTime = 777,
          .auditSession = 3,
          .processName = "test"};
}

AuthorizationExternalForm formOf(const xpc::PeerIdentity& process) {
  return externalFormOf({static_cast<std::uint32_t>(process.pid), process.uid, process.startTime});
}

class SystemAuthorization : public testing::Test {
 protected:
  // There is no bus there, so the test does not query this machine.
  SystemAuthorization() {
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus", /*replace=*/1);
  }

  OSStatus create(const AuthorizationExternalForm& form, const xpc::PeerIdentity& peer) {
    return authorization.AuthorizationCreateFromExternalForm(form, peer, reference);
  }

  Authorization& authorization = systemAuthorization();
  AuthorizationRef reference;
};

TEST_F(SystemAuthorization, AcceptsAFormFromItsOwnProcess) {
  EXPECT_EQ(create(formOf(identity()), identity()), errAuthorizationSuccess);
  ASSERT_TRUE(reference);
  EXPECT_EQ(reference->pid, 345);
}

TEST_F(SystemAuthorization, RefusesAFormOfAnotherProcess) {
  for (int which = 0; which < 3; ++which) {
    xpc::PeerIdentity other = identity();
    if (which == 0) ++other.pid;
    if (which == 1) ++other.uid;
    if (which == 2) ++other.startTime;
    EXPECT_EQ(create(formOf(other), identity()), errAuthorizationInvalidRef) << which;
  }
  EXPECT_FALSE(reference);
}

TEST_F(SystemAuthorization, RefusesAMalformedForm) {
  EXPECT_EQ(create({}, identity()), errAuthorizationInvalidRef);
}

TEST_F(SystemAuthorization, RefusesAProcessWithoutAStartTime) {
  xpc::PeerIdentity unknown = identity();
  unknown.startTime = 0;
  EXPECT_EQ(create(formOf(unknown), unknown), errAuthorizationInvalidRef);
  EXPECT_EQ(askPolkit(unknown, kRight[0].name, Interaction::none, std::chrono::seconds(1)).status,
            errAuthorizationInvalidRef);
}

TEST_F(SystemAuthorization, WithoutPolkitOnlyTheSuperuserHoldsRights) {
  ASSERT_EQ(create(formOf(identity(0)), identity(0)), errAuthorizationSuccess);
  EXPECT_EQ(authorization.AuthorizationCopyRights(reference, kRight, kAuthorizationFlagDefaults),
            errAuthorizationSuccess);
  ASSERT_EQ(create(formOf(identity()), identity()), errAuthorizationSuccess);
  EXPECT_EQ(authorization.AuthorizationCopyRights(reference, kRight, kAuthorizationFlagDefaults),
            errAuthorizationDenied);
}

TEST_F(SystemAuthorization, RefusesInvalidArguments) {
  EXPECT_EQ(authorization.AuthorizationCopyRights(nullptr, kRight, 0), errAuthorizationInvalidRef);
  EXPECT_EQ(authorization.AuthorizationFree(reference, 0), errAuthorizationInvalidRef);
  ASSERT_EQ(create(formOf(identity(0)), identity(0)), errAuthorizationSuccess);
  EXPECT_EQ(authorization.AuthorizationCopyRights(reference, {}, 0), errAuthorizationInvalidSet);
  EXPECT_EQ(authorization.AuthorizationCopyRights(reference, kRight, 1),
            errAuthorizationInvalidFlags);
  EXPECT_EQ(authorization.AuthorizationFree(reference, 1), errAuthorizationInvalidFlags);
}

TEST_F(SystemAuthorization, RefusesAFreedReference) {
  ASSERT_EQ(create(formOf(identity(0)), identity(0)), errAuthorizationSuccess);
  EXPECT_EQ(authorization.AuthorizationFree(reference, 0), errAuthorizationSuccess);
  EXPECT_EQ(authorization.AuthorizationCopyRights(reference, kRight, 0),
            errAuthorizationInvalidRef);
}

}  // namespace
}  // namespace keel
