// SPDX-License-Identifier: Apache-2.0
#include "auth/auth_handler.h"

#include "auth/auth_fixture.h"

namespace keel {
namespace {

TEST_F(AuthHandler, ServiceCheckRepliesWithoutSideEffects) {
  EXPECT_FALSE(std::get<0>(ask<&AuthProxy::authServiceCheckWithHandler>(client)));
  EXPECT_THAT(calls, IsEmpty());
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(AuthHandler, RecordsAnAdministratorInTheCallersSession) {
  EXPECT_FALSE(authenticate(client, "alice", "right"));
  EXPECT_THAT(recorded(7), ElementsAre(String("alice")));
  EXPECT_EQ(service->authTable().size(), 1u);
  EXPECT_THAT(calls, ElementsAre("verify alice", "shortName alice", "user alice", "group admin"));
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(AuthHandler, RecordsASuccessBeforeTheReply) {
  // A query sent right after the reply is ordered after the recording.
  std::optional<bool> isRecorded;
  client.handler()->authenticateUser("alice", "right", xpc::Reply<Error>::to([&](Error error) {
                                       EXPECT_FALSE(error);
                                       service->isAuthedASID(
                                           7, [&](bool found) { isRecorded = found; });
                                     }));
  executor.runAll();
  EXPECT_EQ(isRecorded, true);
  EXPECT_FALSE(isAuthedASID(8));
}

TEST_F(AuthHandler, RecordsAreNotChargedToTheClient) {
  static MemoryAccount account;
  membership.shortNames["Alice Liddell"] = "alice";
  for (int count = 0; count < 3; ++count) {
    client.handler()->authenticateUser(String("Alice Liddell", account, 0), "right",
                                       xpc::Reply<Error>::to([&](Error error) {
                                         EXPECT_FALSE(error);
                                         EXPECT_GT(account.bytes(), 0u);
                                       }));
  }
  EXPECT_THAT(recorded(7), ElementsAre(String("Alice Liddell"), String("Alice Liddell"),
                                       String("Alice Liddell")));
  EXPECT_EQ(account.bytes(), 0u);
}

TEST_F(AuthHandler, RefusesAWrongPasswordWithoutLogging) {
  EXPECT_EQ(authenticate(client, "alice", "wrong"), kAuthFailed);
  EXPECT_THAT(calls, ElementsAre("verify alice"));
  EXPECT_THAT(log.lines(), IsEmpty());
  EXPECT_TRUE(recorded(7).empty());
}

TEST_F(AuthHandler, RefusesACorrectPasswordOfANonAdministrator) {
  EXPECT_EQ(authenticate(client, "bob", "right"), kNotAdmin);
  EXPECT_THAT(log.lines(), ElementsAre(debugLine("user is not in admin group")));
  EXPECT_TRUE(recorded(7).empty());
}

TEST_F(AuthHandler, RefusesNullArguments) {
  EXPECT_EQ(authenticate(client, nullptr, "right"), kAuthFailed);
  EXPECT_EQ(authenticate(client, "alice", nullptr), kAuthFailed);
  EXPECT_TRUE(recorded(7).empty());
}

TEST_F(AuthHandler, ChecksTheShortNameAndRecordsTheNameSent) {
  membership.shortNames["Alice Liddell"] = "alice";
  EXPECT_FALSE(authenticate(client, "Alice Liddell", "right"));
  EXPECT_THAT(calls, ElementsAre("verify Alice Liddell", "shortName Alice Liddell", "user alice",
                                 "group admin"));
  EXPECT_THAT(recorded(7), ElementsAre(String("Alice Liddell")));
}

TEST_F(AuthHandler, AFailedMembershipCheckIsARefusal) {
  for (int* problem :
       {&membership.userProblem, &membership.groupProblem, &membership.checkProblem}) {
    *problem = ENOENT;
    EXPECT_EQ(authenticate(client, "alice", "right"), kNotAdmin);
    *problem = 0;
  }
  EXPECT_EQ(log.take().size(), 3u);
  EXPECT_TRUE(recorded(7).empty());
  EXPECT_FALSE(client.handler()->isAdminUser(nullptr));
  EXPECT_TRUE(client.handler()->isAdminUser("alice"));
}

TEST_F(AuthHandler, QueriesMembershipEveryTime) {
  EXPECT_TRUE(client.handler()->isAdminUser("alice"));
  membership.administrators.clear();
  EXPECT_FALSE(client.handler()->isAdminUser("alice"));
}

TEST_F(AuthHandler, ANegativeSessionIsLikeAnyOther) {
  AuthClient unset(executor, backEnds, -1);
  EXPECT_FALSE(authenticate(unset, "alice", "right"));
  EXPECT_TRUE(isAuthedASID(-1));
  EXPECT_FALSE(isAuthedASID(7));
}

TEST_F(AuthHandler, RecordsNothingWithoutAConnection) {
  KLNAuthHandler alone(backEnds);
  Error error("none", 0);
  alone.authenticateUser("alice", "right",
                         xpc::Reply<Error>::to([&](Error given) { error = std::move(given); }));
  EXPECT_FALSE(error);
  executor.runAll();
  EXPECT_TRUE(service->authTable().empty());
}

constexpr const char* kRequested = "authenitcateForUser: auth request with authRef for alice";

TEST_F(AuthHandler, FreesAReferenceWithTheRightAndRecordsTheUser) {
  EXPECT_FALSE(authenticate(client, "alice", 32));
  EXPECT_THAT(calls, ElementsAre("create from pid 100",
                                 "copy com.vantor.ServiceManagement.daemons.modify flags 0",
                                 "shortName alice", "user alice", "group admin", "free flags 0"));
  EXPECT_THAT(recorded(7), ElementsAre(String("alice")));
  EXPECT_THAT(log.lines(), ElementsAre(debugLine(kRequested)));
}

TEST_F(AuthHandler, FreesTheReferenceThenRecordsTheUserThenReplies) {
  std::optional<bool> wasRecordedWhenFreed;
  std::optional<bool> isRecorded;
  authorization.onFree = [&] {
    service->isAuthedASID(7, [&](bool found) { wasRecordedWhenFreed = found; });
  };
  client.handler()->authenticateForUser(
      "alice", Data(std::vector(32, std::byte{'f'})), xpc::Reply<Error>::to([&](Error error) {
        EXPECT_FALSE(error);
        EXPECT_EQ(calls.back(), "free flags 0");
        service->isAuthedASID(7, [&](bool found) { isRecorded = found; });
      }));
  executor.runAll();
  EXPECT_EQ(wasRecordedWhenFreed, false);
  EXPECT_EQ(isRecorded, true);
}

TEST_F(AuthHandler, RefusesAnInvalidReferenceWithItsStatus) {
  authorization.createStatus = errAuthorizationInvalidRef;
  EXPECT_EQ(authenticate(client, "alice", 32), Error(NSOSStatusErrorDomain, -60002));
  EXPECT_THAT(calls, ElementsAre("create from pid 100"));
  EXPECT_THAT(log.lines(), ElementsAre(debugLine(kRequested),
                                       LogLine{LogLevel::fault, "auth",
                                               "authenitcateForUser: failed to unpack the authRef "
                                               "error = NSOSStatusErrorDomain error -60002"}));
  EXPECT_TRUE(recorded(7).empty());
}

TEST_F(AuthHandler, RefusesAReferenceWithoutTheRightAndDoesNotFreeIt) {
  authorization.copyStatus = errAuthorizationDenied;
  EXPECT_EQ(authenticate(client, "alice", 32), Error(NSOSStatusErrorDomain, -60005));
  EXPECT_THAT(calls, ElementsAre("create from pid 100",
                                 "copy com.vantor.ServiceManagement.daemons.modify flags 0"));
  EXPECT_THAT(
      log.lines(),
      ElementsAre(
          debugLine(kRequested),
          LogLine{LogLevel::fault, "auth",
                  "authenitcateForUser: didn't find the correct right in the authRef error = "
                  "NSOSStatusErrorDomain error -60005"}));
  EXPECT_TRUE(recorded(7).empty());
}

TEST_F(AuthHandler, RefusesAReferenceForANonAdministratorAndDoesNotFreeIt) {
  EXPECT_EQ(authenticate(client, "bob", 32), kNotAdmin);
  EXPECT_THAT(calls, ElementsAre("create from pid 100",
                                 "copy com.vantor.ServiceManagement.daemons.modify flags 0",
                                 "shortName bob", "user bob", "group admin"));
  EXPECT_EQ(log.lines().back(), debugLine("user is not in admin group"));
  EXPECT_TRUE(recorded(7).empty());
  // Although never freed, it is gone.
  EXPECT_TRUE(authorization.reference.expired());
}

TEST_F(AuthHandler, LogsAFaultForFormsOfAnotherLengthAndUsesThem) {
  for (const std::size_t size : {0u, 31u, 33u, 4096u}) {
    EXPECT_FALSE(authenticate(client, "alice", size));
    const auto lines = log.take();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], debugLine(kRequested));
    EXPECT_EQ(lines[1],
              (LogLine{LogLevel::fault, "auth",
                       "authenitcateForUser: authRefext is the wrong size (expected 32 got " +
                           std::to_string(size) + ")"}));
    std::array<std::byte, 32> expected{};
    std::fill_n(expected.begin(), std::min<std::size_t>(size, 32), std::byte{'f'});
    EXPECT_EQ(authorization.given.bytes, expected) << size;
  }
}

TEST_F(AuthHandler, TreatsANullFormAsEmpty) {
  authorization.createStatus = errAuthorizationInvalidRef;
  EXPECT_EQ(std::get<0>(ask<&AuthProxy::authenticateForUser>(client, String(), Data())),
            Error(NSOSStatusErrorDomain, -60002));
  EXPECT_EQ(log.lines()[0].text, "authenitcateForUser: auth request with authRef for (null)");
  EXPECT_EQ(log.lines()[1].text,
            "authenitcateForUser: authRefext is the wrong size (expected 32 got 0)");
}

TEST_F(AuthHandler, ReturnsTheDefaultRealm) {
  const auto [realm, error] = ask<&AuthProxy::authGetDefaultRealm>(client);
  EXPECT_EQ(realm, String("a realm"));
  EXPECT_FALSE(error);
  EXPECT_THAT(log.lines(), ElementsAre(debugLine("authGetDefaultRealm: returning a realm")));
}

TEST_F(AuthHandler, AnySessionCanBeQueried) {
  service->addUser("somebody", -2147483648);
  EXPECT_TRUE(isAuthedASID(-2147483648));
  EXPECT_FALSE(isAuthedASID(2147483647));
  EXPECT_THAT(log.linesOf("auth"), IsEmpty());
}

TEST_F(AuthHandler, InterruptionAndInvalidationOnlyLog) {
  authenticate(client, "alice", "right");
  client.handler()->connectionInterupted();
  client.handler()->connectionInvalidated();
  EXPECT_THAT(
      log.lines(),
      ElementsAre(
          LogLine{LogLevel::debug, "runtime", "AuthService connection from 7 interrupted"},
          LogLine{LogLevel::debug, "runtime", "AuthService connection from 7 invalidated"}));
  client.die();
  executor.runAll();
  EXPECT_TRUE(isAuthedASID(7));
}

TEST_F(AuthHandler, OnlyTheConnectionOwnsItsHandler) {
  const std::weak_ptr<KLNAuthHandler> handler = client.handler();
  EXPECT_FALSE(handler.expired());
  client.die();
  executor.runAll();
  EXPECT_TRUE(handler.expired());
}

}  // namespace
}  // namespace keel
