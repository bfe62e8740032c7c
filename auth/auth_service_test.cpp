// SPDX-License-Identifier: Apache-2.0
#include "auth/auth_service.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <latch>
#include <limits>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "runtime/dispatch/manual_executor.h"
#include "runtime/dispatch/worker_pool.h"

namespace keel {
namespace {

using ::testing::ElementsAre;

class AuthService : public ::testing::Test {
 protected:
  // Runs the strand and returns the answer; expects exactly one and no error.
  bool isAuthedUser(String user, std::int32_t asid) {
    std::optional<bool> answer;
    service->isAuthedUser(std::move(user), asid, [&](bool authenticated, Error error) {
      EXPECT_FALSE(answer);
      EXPECT_FALSE(error);
      answer = authenticated;
    });
    EXPECT_FALSE(answer);
    executor.runAll();
    EXPECT_TRUE(answer);
    return answer.value_or(false);
  }
  bool isAuthedASID(std::int32_t asid) {
    std::optional<bool> answer;
    service->isAuthedASID(asid, [&](bool authenticated) {
      EXPECT_FALSE(answer);
      answer = authenticated;
    });
    EXPECT_FALSE(answer);
    executor.runAll();
    EXPECT_TRUE(answer);
    return answer.value_or(false);
  }

  ManualExecutor executor;
  std::shared_ptr<KLNAuthService> service = std::make_shared<KLNAuthService>(executor);
};

TEST_F(AuthService, BeginsWithAnEmptyTable) {
  EXPECT_TRUE(service->authTable().empty());
  EXPECT_FALSE(isAuthedUser("alice", 5));
  EXPECT_FALSE(isAuthedASID(5));
}

TEST_F(AuthService, ARecordedUserIsAuthenticatedInThatSessionOnly) {
  service->addUser("alice", 5);
  EXPECT_TRUE(isAuthedUser("alice", 5));
  EXPECT_TRUE(isAuthedASID(5));
  EXPECT_FALSE(isAuthedUser("alice", 6));
  EXPECT_FALSE(isAuthedASID(6));
}

TEST_F(AuthService, AnotherUserOfThatSessionIsNotAuthenticated) {
  service->addUser("alice", 5);
  EXPECT_FALSE(isAuthedUser("bob", 5));
  EXPECT_TRUE(isAuthedASID(5));
}

TEST_F(AuthService, NamesAreComparedExactly) {
  service->addUser("alice", 5);
  EXPECT_FALSE(isAuthedUser("Alice", 5));
  EXPECT_FALSE(isAuthedUser("alic", 5));
  EXPECT_FALSE(isAuthedUser("alice ", 5));
  EXPECT_FALSE(isAuthedUser("", 5));
  EXPECT_FALSE(isAuthedUser(nullptr, 5));
}

TEST_F(AuthService, NamesAreKeptInOrderAndMayRepeat) {
  for (const char* user : {"alice", "alice", "bob", "alice"}) service->addUser(user, 5);
  executor.runAll();
  EXPECT_THAT(service->authTable().at("5"),
              ElementsAre(String("alice"), String("alice"), String("bob"), String("alice")));
  EXPECT_TRUE(isAuthedUser("alice", 5));
  EXPECT_TRUE(isAuthedUser("bob", 5));
}

TEST_F(AuthService, SessionsAreKeyedInDecimal) {
  constexpr auto kLeast = std::numeric_limits<std::int32_t>::min();
  constexpr auto kGreatest = std::numeric_limits<std::int32_t>::max();
  for (const std::int32_t asid : {42, -3, 0, kLeast, kGreatest}) service->addUser("alice", asid);
  executor.runAll();
  for (const char* key : {"42", "-3", "0", "-2147483648", "2147483647"})
    EXPECT_EQ(service->authTable().count(key), 1u) << key;
  EXPECT_EQ(service->authTable().size(), 5u);
}

TEST_F(AuthService, ANegativeSessionIsFoundAgain) {
  service->addUser("alice", -1);
  EXPECT_TRUE(isAuthedUser("alice", -1));
  EXPECT_TRUE(isAuthedASID(-1));
  EXPECT_FALSE(isAuthedASID(1));
}

TEST_F(AuthService, RemoveDropsTheSession) {
  service->addUser("alice", 5);
  service->addUser("alice", 6);
  service->removeASID(5);
  EXPECT_FALSE(isAuthedUser("alice", 5));
  EXPECT_FALSE(isAuthedASID(5));
  EXPECT_TRUE(isAuthedASID(6));
}

TEST_F(AuthService, RemoveOfAnUnknownSessionChangesNothing) {
  service->addUser("alice", 5);
  service->removeASID(6);
  EXPECT_TRUE(isAuthedUser("alice", 5));
  EXPECT_EQ(service->authTable().size(), 1u);
}

TEST_F(AuthService, OperationsRunInCallOrder) {
  std::vector<bool> answers;
  const auto note = [&answers](bool answer, const Error&) { answers.push_back(answer); };
  service->isAuthedUser("alice", 5, note);
  service->addUser("alice", 5);
  service->isAuthedUser("alice", 5, note);
  service->removeASID(5);
  service->isAuthedUser("alice", 5, note);
  EXPECT_TRUE(answers.empty());
  EXPECT_TRUE(service->authTable().empty());
  executor.runAll();
  EXPECT_THAT(answers, ElementsAre(false, true, false));
}

TEST_F(AuthService, ANullUserIsNotRecorded) {
  service->addUser(nullptr, 5);
  EXPECT_FALSE(isAuthedASID(5));
  EXPECT_FALSE(isAuthedUser(nullptr, 5));
}

TEST_F(AuthService, TheTableCanBeReplaced) {
  service->addUser("alice", 5);
  executor.runAll();
  service->setAuthTable({{"7", {"bob"}}});
  EXPECT_FALSE(isAuthedASID(5));
  EXPECT_TRUE(isAuthedUser("bob", 7));
}

TEST_F(AuthService, PendingWorkKeepsTheServiceAlive) {
  const std::weak_ptr<KLNAuthService> watched = service;
  bool answered = false;
  service->isAuthedASID(5, [&](bool) { answered = true; });
  service = nullptr;
  EXPECT_FALSE(watched.expired());
  executor.runAll();
  EXPECT_TRUE(answered);
  EXPECT_TRUE(watched.expired());
}

TEST_F(AuthService, DefaultServiceIsOneUnlessOverridden) {
  const auto first = KLNAuthService::defaultService();
  EXPECT_NE(first, nullptr);
  {
    const KLNAuthService::Override override(service);
    EXPECT_EQ(KLNAuthService::defaultService(), service);
  }
  EXPECT_EQ(KLNAuthService::defaultService(), first);
}

TEST(AuthServiceOnThreads, KeepsRecordsOfManyThreadsInEachThreadsOrder) {
  constexpr int kThreads = 4;
  constexpr int kEach = 500;
  WorkerPool pool(3);
  const auto service = std::make_shared<KLNAuthService>(pool);
  std::latch answered(kThreads);
  std::atomic<int> missed{0};
  {
    std::vector<std::jthread> callers;
    for (int asid = 0; asid < kThreads; ++asid) {
      callers.emplace_back([&, asid] {
        for (int i = 0; i < kEach; ++i) {
          const String name(std::to_string(i));
          service->addUser(name, asid);
          service->isAuthedUser(
              name, asid, [&](bool authenticated, Error) { missed += authenticated ? 0 : 1; });
        }
        service->isAuthedASID(asid, [&](bool) { answered.count_down(); });
      });
    }
  }
  answered.wait();
  EXPECT_EQ(missed, 0);
  std::promise<KLNAuthService::AuthTable> table;
  service->continueWithBlock([&] { table.set_value(service->authTable()); });
  for (const auto& [key, names] : table.get_future().get()) {
    ASSERT_EQ(names.size(), static_cast<std::size_t>(kEach)) << key;
    for (int i = 0; i < kEach; ++i)
      EXPECT_EQ(names[static_cast<std::size_t>(i)], String(std::to_string(i)));
  }
}

}  // namespace
}  // namespace keel
