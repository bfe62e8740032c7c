// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <optional>
#include <string_view>
#include <utility>

#include "auth/auth_fixture.h"
#include "runtime/foundation/random_bytes.h"

namespace keel {
namespace {

class AuthChallenge : public AuthHandler {
 protected:
  // Starts a challenge and returns its ID.
  String startDigest(AuthClient& asking) {
    const auto [challenge, authID, error] = ask<&AuthProxy::authDigestStartWithHandler>(asking);
    EXPECT_EQ(challenge, String("digest challenge"));
    EXPECT_FALSE(error);
    return authID;
  }
  String startDigest() { return startDigest(client); }
  auto validate(AuthClient& asking, const char* answer, const String& authID) {
    return ask<&AuthProxy::authValidate>(asking, String(answer), authID);
  }
  auto validate(const char* answer, const String& authID) {
    return validate(client, answer, authID);
  }

  using Outcome = std::tuple<String, String, Error>;
  const Outcome notFound{nullptr, nullptr, kAuthIDNotFound};
  const Outcome failed{nullptr, nullptr, kAuthFailed};
};

TEST_F(AuthChallenge, StartCreatesTheIDThenAnAuthenticatorForGet) {
  const String authID = startDigest();
  EXPECT_THAT(takeCalls(), ElementsAre("random", "make digest", "digest setMethod GET",
                                       "digest generateInitialResponse"));
  EXPECT_THAT(log.take(), ElementsAre(debugLine("authDigestStartWithHandler starting auth for " +
                                                std::string(authID.view()))));

  const auto [challenge, basicID, error] = ask<&AuthProxy::authBasicStartWithHandler>(client);
  EXPECT_EQ(challenge, String("basic challenge"));
  EXPECT_FALSE(error);
  EXPECT_THAT(takeCalls(), ElementsAre("random", "make basic", "basic setMethod GET",
                                       "basic generateInitialResponse"));
  EXPECT_THAT(log.take(), ElementsAre(debugLine("authBasicStartWithHandler starting auth for " +
                                                std::string(basicID.view()))));
  EXPECT_EQ(client.handler()->authsInProgress().size(), 2u);
}

TEST_F(AuthChallenge, RecordsAnAdministratorsCorrectAnswer) {
  const String authID = startDigest();
  log.take();
  EXPECT_EQ(validate("right alice", authID), Outcome("response", "alice", nullptr));
  EXPECT_TRUE(isAuthedASID(7));
  EXPECT_THAT(recorded(7), ElementsAre(String("alice")));
  EXPECT_THAT(log.linesOf("auth"), ElementsAre(debugLine("authValidate: validating auth for " +
                                                         std::string(authID.view()))));
  EXPECT_TRUE(client.handler()->authsInProgress().empty());
}

TEST_F(AuthChallenge, IsRecordedAndConsumedBeforeTheReply) {
  const String authID = startDigest();
  const auto handler = client.handler();
  std::optional<bool> isRecorded;
  handler->authValidate("right alice", authID,
                        xpc::Reply<String, String, Error>::to([&](String, String, Error error) {
                          EXPECT_FALSE(error);
                          EXPECT_TRUE(handler->authsInProgress().empty());
                          service->isAuthedASID(7, [&](bool found) { isRecorded = found; });
                        }));
  executor.runAll();
  EXPECT_EQ(isRecorded, true);
}

TEST_F(AuthChallenge, IsConsumedBeforeARefusalIsSent) {
  const auto handler = client.handler();
  for (const auto& [answer, refusal] :
       {std::pair("wrong", kAuthFailed), std::pair("right bob", kNotAdmin)}) {
    const String authID = startDigest();
    std::optional<Error> answered;
    handler->authValidate(answer, authID,
                          xpc::Reply<String, String, Error>::to([&](String, String, Error error) {
                            EXPECT_TRUE(handler->authsInProgress().empty());
                            answered = std::move(error);
                          }));
    EXPECT_EQ(answered, refusal);
  }
}

TEST_F(AuthChallenge, ResponseMayBeNull) {
  membership.administrators.insert("quiet");
  EXPECT_EQ(validate("right quiet", startDigest()), Outcome(nullptr, "quiet", nullptr));
}

TEST_F(AuthChallenge, AWrongAnswerConsumesTheChallenge) {
  const String authID = startDigest();
  log.take();
  EXPECT_EQ(validate("wrong", authID), failed);
  EXPECT_EQ(log.take().size(), 1u);
  EXPECT_EQ(validate("right alice", authID), notFound);
  EXPECT_TRUE(recorded(7).empty());
  EXPECT_TRUE(authenticators.made[0].expired());
}

TEST_F(AuthChallenge, ReturnsTheResponseWithTheErrorForANonAdministrator) {
  const String authID = startDigest();
  log.take();
  EXPECT_EQ(validate("right bob", authID), Outcome("response", "bob", kNotAdmin));
  EXPECT_THAT(log.lines(), ElementsAre(debugLine("authValidate: validating auth for " +
                                                 std::string(authID.view())),
                                       debugLine("user is not in admin group")));
  EXPECT_EQ(validate("right alice", authID), notFound);
  EXPECT_TRUE(recorded(7).empty());
}

TEST_F(AuthChallenge, ASecondAnswerIsNotFound) {
  const String authID = startDigest();
  EXPECT_EQ(validate("right alice", authID), Outcome("response", "alice", nullptr));
  EXPECT_EQ(validate("right alice", authID), notFound);
  EXPECT_EQ(recorded(7).size(), 1u);
}

TEST_F(AuthChallenge, AnAnswerToAnUnknownIDIsLoggedAndNotFound) {
  EXPECT_EQ(validate("right alice", "myob-none"), notFound);
  EXPECT_EQ(validate("right alice", nullptr), notFound);
  EXPECT_THAT(log.lines(), ElementsAre(debugLine("authValidate: validating auth for myob-none"),
                                       debugLine("authValidate: validating auth for (null)")));
  EXPECT_THAT(calls, IsEmpty());
}

TEST_F(AuthChallenge, TwoCanBeOpenConcurrently) {
  const String first = startDigest();
  const String second = startDigest();
  EXPECT_NE(first, second);
  EXPECT_EQ(validate("right alice", second), Outcome("response", "alice", nullptr));
  EXPECT_EQ(validate("right alice", first), Outcome("response", "alice", nullptr));
}

TEST_F(AuthChallenge, IsValidOnlyOnItsOwnConnection) {
  AuthClient other(executor, backEnds);
  const String authID = startDigest();
  EXPECT_EQ(validate(other, "right alice", authID), notFound);
  EXPECT_EQ(validate("right alice", authID), Outcome("response", "alice", nullptr));
}

TEST_F(AuthChallenge, ChecksMembershipForABasicAnswer) {
  const auto [challenge, authID, error] = ask<&AuthProxy::authBasicStartWithHandler>(client);
  EXPECT_EQ(validate("right bob", authID), Outcome("response", "bob", kNotAdmin));
  EXPECT_TRUE(recorded(7).empty());
}

TEST_F(AuthChallenge, OpenOnesEndOnlyWithTheHandler) {
  startDigest();
  client.sendNonsense();
  EXPECT_EQ(client.handler()->authsInProgress().size(), 1u);
  EXPECT_FALSE(authenticators.made[0].expired());
  client.die();
  executor.runAll();
  EXPECT_TRUE(authenticators.made[0].expired());
}

TEST_F(AuthChallenge, OpenOnesAreChargedToTheUsersQuota) {
  const std::size_t before = MemoryAccount::ofProcess().bytes();
  const String authID = startDigest();
  client.take();
  EXPECT_GE(MemoryAccount::ofProcess().bytes(), before + KLNAuthHandler::kChallengeBytes);
}

// Returns the ID made from these random bytes.
String authIDFor(AuthBackEnds backEnds, std::array<std::byte, 33> random) {
  backEnds.randomBytes = [random](std::span<std::byte> bytes) {
    EXPECT_EQ(bytes.size(), random.size());
    std::ranges::copy(random, bytes.begin());
    return 0;
  };
  return KLNAuthHandler(backEnds).getNextAuthID();
}

TEST_F(AuthChallenge, IDsAreTheRandomBytesModuloSixtyTwo) {
  std::array<std::byte, 33> random{};
  constexpr std::array<int, 8> kBytes{0, 25, 26, 51, 52, 61, 62, 255};
  std::ranges::transform(kBytes, random.begin(),
                         [](int byte) { return static_cast<std::byte>(byte); });
  // The last byte is drawn and discarded.
  random[32] = std::byte{7};
  EXPECT_EQ(authIDFor(backEnds, random),
            String(std::string_view("myob-azAZ09ah" + std::string(24, 'a'))));
}

TEST_F(AuthChallenge, EightLettersOccurFiveTimesOverAllBytesTheOthersFour) {
  std::array<int, 256> counts{};
  for (int from = 0; from < 256; from += 32) {
    std::array<std::byte, 33> random{};
    for (int i = 0; i < 32; ++i)
      random[static_cast<std::size_t>(i)] = static_cast<std::byte>(from + i);
    for (const char letter : authIDFor(backEnds, random).view().substr(5))
      ++counts[static_cast<unsigned char>(letter)];
  }
  for (int character = 0; character < 256; ++character) {
    const int expected = std::isalnum(character) == 0             ? 0
                         : (character >= 'a' && character <= 'h') ? 5
                                                                  : 4;
    EXPECT_EQ(counts[static_cast<std::size_t>(character)], expected)
        << static_cast<char>(character);
  }
}

TEST_F(AuthChallenge, IDsFromTheSystemsRandomBytesDiffer) {
  std::set<std::string> seen;
  const KLNAuthHandler handler(backEnds);
  for (int i = 0; i < 1000; ++i) {
    const String authID = handler.getNextAuthID();
    EXPECT_EQ(authID.view().size(), KLNAuthHandler::kAuthIDLength);
    EXPECT_TRUE(authID.view().starts_with("myob-"));
    EXPECT_TRUE(std::ranges::all_of(authID.view().substr(5),
                                    [](unsigned char each) { return std::isalnum(each) != 0; }));
    seen.emplace(authID.view());
  }
  EXPECT_EQ(seen.size(), 1000u);
}

TEST_F(AuthChallenge, AddReplacesTheOneOfTheSameID) {
  const auto handler = client.handler();
  const auto first = authenticators.serverBasicAuthenticator();
  const auto second = authenticators.serverBasicAuthenticator();
  handler->addAuthToTable(first, "id");
  handler->addAuthToTable(second, "id");
  EXPECT_EQ(handler->getAuthForID("id"), second);
  handler->removeAuthForID("other");
  EXPECT_EQ(handler->getAuthForID("id"), second);
  handler->removeAuthForID("id");
  EXPECT_EQ(handler->getAuthForID("id"), nullptr);
}

// Not reachable by clients.
class AuthBasicValidate : public AuthChallenge {
 protected:
  using BasicOutcome = std::tuple<bool, String, Error>;
  BasicOutcome basicValidate(const char* answer, const String& authID) {
    std::optional<BasicOutcome> outcome;
    client.handler()->authBasicValidate(answer, authID, [&](bool valid, String user, Error error) {
      EXPECT_FALSE(outcome);
      outcome = {valid, std::move(user), std::move(error)};
    });
    return outcome.value();
  }
};

TEST_F(AuthBasicValidate, IsNotAMethodOfTheProtocol) {
  EXPECT_EQ(std::ranges::count_if(client.daemonSelectors(),
                                  [](const std::string& selector) {
                                    return selector.starts_with("authBasicValidate");
                                  }),
            0);
}

TEST_F(AuthBasicValidate, RecordsAnyUserWithoutLogging) {
  const String authID = startDigest();
  log.take();
  takeCalls();
  EXPECT_EQ(basicValidate("right bob", authID), BasicOutcome(true, "bob", nullptr));
  EXPECT_THAT(calls, ElementsAre("digest validateChallenge right bob without a response"));
  EXPECT_THAT(recorded(7), ElementsAre(String("bob")));
  EXPECT_THAT(log.lines(), IsEmpty());
  EXPECT_EQ(basicValidate("right bob", authID), BasicOutcome(false, nullptr, kAuthIDNotFound));
}

TEST_F(AuthBasicValidate, RecordsAndConsumesTheChallengeBeforeTheReply) {
  const auto handler = client.handler();
  for (const char* answer : {"wrong", "right bob"}) {
    const String authID = startDigest();
    std::optional<bool> isRecorded;
    handler->authBasicValidate(answer, authID, [&](bool valid, String, Error) {
      EXPECT_EQ(valid, answer == std::string_view("right bob"));
      EXPECT_TRUE(handler->authsInProgress().empty());
      service->isAuthedASID(7, [&](bool found) { isRecorded = found; });
    });
    executor.runAll();
    EXPECT_EQ(isRecorded, answer == std::string_view("right bob"));
  }
}

TEST_F(AuthBasicValidate, AWrongAnswerConsumesTheChallenge) {
  const String authID = startDigest();
  EXPECT_EQ(basicValidate("wrong", authID), BasicOutcome(false, nullptr, kAuthFailed));
  EXPECT_EQ(basicValidate("right bob", authID), BasicOutcome(false, nullptr, kAuthIDNotFound));
  EXPECT_TRUE(recorded(7).empty());
}

// The dying process has no log output, so capture the message where it is written.
void startWithoutRandomBytes(AuthBackEnds backEnds) {
  const LogCapture capture([](const LogMessage& message) {
    std::fprintf(stderr, "%d %.*s: %.*s\n", static_cast<int>(message.level),
                 static_cast<int>(message.category.size()), message.category.data(),
                 static_cast<int>(message.text.size()), message.text.data());
  });
  backEnds.randomBytes = [](std::span<std::byte>) {
    errno = ENOSYS;
    return -1;
  };
  KLNAuthHandler(backEnds).authDigestStartWithHandler(
      xpc::Reply<String, String, Error>::to([](String, String, Error) {}));
}

TEST_F(AuthChallenge, WithoutRandomBytesTheProcessAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // Nothing was created yet.
  authenticators.onMake = [] { std::_Exit(0); };
  EXPECT_EXIT(startWithoutRandomBytes(backEnds), ::testing::KilledBySignal(SIGABRT),
              "2 runtime: AuthService unable to create AuthID error = 38 exiting\\.\\.\\.");
}

}  // namespace
}  // namespace keel
