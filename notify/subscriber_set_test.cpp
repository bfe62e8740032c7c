// SPDX-License-Identifier: Apache-2.0
#include "notify/subscriber_set.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "notify/subscription_object.h"
#include "runtime/dispatch/manual_executor.h"
#include "tests/support/fake_client.h"

namespace keel {
namespace {

using ::testing::ElementsAre;
using testing::FakeClient;
using ::testing::IsEmpty;

using Subscriptions = std::vector<std::shared_ptr<KLNSubscriptionObject>>;

std::shared_ptr<KLNSubscriptionObject> subscriptionOf(
    const std::shared_ptr<xpc::Connection>& owner = nullptr) {
  return KLNSubscriptionObject::initWithName("n", owner);
}

std::vector<KLNSubscriptionObject*> visited(SubscriberSet& set) {
  std::vector<KLNSubscriptionObject*> seen;
  set.forEach([&seen](KLNSubscriptionObject& subscription) { seen.push_back(&subscription); });
  return seen;
}

std::vector<KLNSubscriptionObject*> addressesOf(const Subscriptions& subscriptions) {
  std::vector<KLNSubscriptionObject*> addresses;
  for (const auto& each : subscriptions) addresses.push_back(each.get());
  return addresses;
}

// The set behaves the same whether it searches (up to 16 members) or keeps indexes (from 17 on).
class SubscriberSetOfSize : public ::testing::TestWithParam<std::size_t> {
 protected:
  SubscriberSetOfSize() {
    for (std::size_t i = 0; i < GetParam(); ++i) {
      clients.push_back(std::make_unique<FakeClient>(executor));
      members.push_back(subscriptionOf(clients.back()->connection()));
      set.add(members.back());
    }
  }

  const std::shared_ptr<xpc::Connection>& connectionOf(std::size_t index) const {
    return clients[index]->connection();
  }

  ManualExecutor executor;
  std::vector<std::unique_ptr<FakeClient>> clients;
  Subscriptions members;
  SubscriberSet set;
};

INSTANTIATE_TEST_SUITE_P(SearchedAndIndexed, SubscriberSetOfSize,
                         ::testing::Values(2, 15, 16, 17, 18, 40, 1000));

TEST_P(SubscriberSetOfSize, EnumeratesInTheOrderOfAdding) {
  EXPECT_EQ(visited(set), addressesOf(members));
  EXPECT_EQ(set.allObjects(), members);
  EXPECT_EQ(set.count(), GetParam());
}

TEST_P(SubscriberSetOfSize, AddingAMemberAgainChangesNothing) {
  set.add(members.front());
  EXPECT_EQ(set.allObjects(), members);
  EXPECT_EQ(set.count(), GetParam());
}

TEST_P(SubscriberSetOfSize, RemovedMembersAreGoneAndTheOthersKeepTheirOrder) {
  Subscriptions left;
  for (std::size_t i = 0; i < members.size(); ++i) {
    if (i % 3 == 1) {
      left.push_back(members[i]);
    } else {
      set.remove(members[i]);
    }
  }
  EXPECT_EQ(set.allObjects(), left);
  EXPECT_EQ(visited(set), addressesOf(left));
  EXPECT_EQ(set.count(), left.size());
  for (std::size_t i = 0; i < members.size(); ++i) {
    EXPECT_EQ(set.contains(members[i]), i % 3 == 1);
    EXPECT_EQ(set.lastOwnedBy(connectionOf(i)), i % 3 == 1 ? members[i] : nullptr);
  }
  set.add(members.front());
  left.push_back(members.front());
  EXPECT_EQ(set.allObjects(), left);
}

TEST_P(SubscriberSetOfSize, CanBeEmptiedFromEitherEnd) {
  for (std::size_t i = 0; i < members.size() / 2; ++i) set.remove(members[i]);
  for (std::size_t i = members.size(); i-- > members.size() / 2;) set.remove(members[i]);
  EXPECT_TRUE(set.empty());
  EXPECT_THAT(visited(set), IsEmpty());
  set.add(members.back());
  EXPECT_THAT(set.allObjects(), ElementsAre(members.back()));
}

TEST_P(SubscriberSetOfSize, ARemovedMemberIsReleasedAtOnce) {
  const std::weak_ptr<KLNSubscriptionObject> watched = members.front();
  set.remove(members.front());
  members.front() = nullptr;
  EXPECT_TRUE(watched.expired());
}

TEST_P(SubscriberSetOfSize, AMemberCanBeRemovedThroughItsOnlyReference) {
  const std::weak_ptr<KLNSubscriptionObject> watched = members.front();
  members.front() = nullptr;
  set.remove(set.allObjects().front());
  EXPECT_TRUE(watched.expired());
}

TEST_P(SubscriberSetOfSize, RemovingANonMemberChangesNothing) {
  set.remove(subscriptionOf());
  set.remove(nullptr);
  EXPECT_EQ(set.allObjects(), members);
}

TEST_P(SubscriberSetOfSize, EachOwnerHasItsMember) {
  for (std::size_t i = 0; i < members.size(); ++i)
    EXPECT_EQ(set.lastOwnedBy(connectionOf(i)), members[i]);
  FakeClient stranger(executor);
  EXPECT_EQ(set.lastOwnedBy(stranger.connection()), nullptr);
  EXPECT_EQ(set.lastOwnedBy(nullptr), nullptr);
}

TEST_P(SubscriberSetOfSize, OfSeveralMembersOfOneOwnerTheLastWins) {
  const auto second = subscriptionOf(connectionOf(0));
  const auto third = subscriptionOf(connectionOf(0));
  set.add(second);
  EXPECT_EQ(set.lastOwnedBy(connectionOf(0)), second);
  set.add(third);
  EXPECT_EQ(set.lastOwnedBy(connectionOf(0)), third);
  set.remove(second);
  EXPECT_EQ(set.lastOwnedBy(connectionOf(0)), third);
  set.remove(third);
  EXPECT_EQ(set.lastOwnedBy(connectionOf(0)), members[0]);
  set.remove(members[0]);
  EXPECT_EQ(set.lastOwnedBy(connectionOf(0)), nullptr);
}

TEST_P(SubscriberSetOfSize, AGoneOwnerMatchesNothing) {
  clients[0]->die();
  EXPECT_EQ(set.lastOwnedBy(nullptr), nullptr);
  EXPECT_EQ(set.count(), GetParam());
}

TEST_P(SubscriberSetOfSize, ANewConnectionAtTheAddressOfAGoneOneMatchesNothing) {
  // Two objects that lived at one address, each with a reference count of its own.
  xpc::Connection* const address = connectionOf(0).get();
  std::shared_ptr<xpc::Connection> firstLife(std::make_shared<int>(), address);
  const std::shared_ptr<xpc::Connection> secondLife(std::make_shared<int>(), address);
  const auto ofFirst = subscriptionOf(firstLife);
  set.remove(members[0]);
  set.add(ofFirst);
  EXPECT_EQ(set.lastOwnedBy(firstLife), ofFirst);
  firstLife.reset();
  EXPECT_EQ(set.lastOwnedBy(secondLife), nullptr);
  const auto ofSecond = subscriptionOf(secondLife);
  set.add(ofSecond);
  EXPECT_EQ(set.lastOwnedBy(secondLife), ofSecond);
  set.remove(ofFirst);
  EXPECT_EQ(set.lastOwnedBy(secondLife), ofSecond);
  set.add(ofFirst);
  EXPECT_EQ(set.lastOwnedBy(secondLife), ofSecond);
  set.remove(ofSecond);
  EXPECT_EQ(set.lastOwnedBy(secondLife), nullptr);
}

TEST_P(SubscriberSetOfSize, AMemberIsFoundUnderItsCurrentOwner) {
  FakeClient other(executor);
  members[0]->setOwner(other.connection());
  EXPECT_EQ(set.lastOwnedBy(connectionOf(0)), nullptr);
  EXPECT_EQ(set.lastOwnedBy(other.connection()), members[0]);
  members[0]->setOwner(connectionOf(1));
  EXPECT_EQ(set.lastOwnedBy(other.connection()), nullptr);
  EXPECT_EQ(set.lastOwnedBy(connectionOf(1)), members[1]);
  set.remove(members[1]);
  EXPECT_EQ(set.lastOwnedBy(connectionOf(1)), members[0]);
  set.remove(members[0]);
  EXPECT_EQ(set.lastOwnedBy(connectionOf(1)), nullptr);
}

TEST_P(SubscriberSetOfSize, AMemberAddedWithoutAnOwnerIsFoundOnceItHasOne) {
  FakeClient late(executor);
  const auto subscription = subscriptionOf();
  set.add(subscription);
  subscription->setOwner(late.connection());
  EXPECT_EQ(set.lastOwnedBy(late.connection()), subscription);
}

TEST_P(SubscriberSetOfSize, MembersRemovedDuringTheVisitsAreNotVisitedButLiveToTheirEnd) {
  const std::weak_ptr<KLNSubscriptionObject> watched = members.back();
  std::vector<KLNSubscriptionObject*> seen;
  set.forEach([&](KLNSubscriptionObject& subscription) {
    seen.push_back(&subscription);
    if (seen.size() > 1) return;
    // Itself, and one not visited yet.
    set.remove(members.front());
    set.remove(members.back());
    members.front() = nullptr;
    members.back() = nullptr;
    EXPECT_FALSE(watched.expired());
    EXPECT_EQ(subscription.name(), Name("n"));
  });
  EXPECT_EQ(seen.size(), GetParam() - 1);
  EXPECT_TRUE(watched.expired());
  EXPECT_EQ(set.count(), GetParam() - 2);
}

TEST_P(SubscriberSetOfSize, MembersAddedDuringTheVisitsAreNotVisited) {
  Subscriptions added;
  std::size_t seenCount = 0;
  set.forEach([&](KLNSubscriptionObject&) {
    ++seenCount;
    added.push_back(subscriptionOf());
    set.add(added.back());
  });
  EXPECT_EQ(seenCount, GetParam());
  EXPECT_EQ(set.count(), 2 * GetParam());
}

TEST_P(SubscriberSetOfSize, AllCanBeRemovedDuringNestedVisits) {
  std::size_t innerCount = 0;
  set.forEach([&](KLNSubscriptionObject&) {
    set.forEach([&](KLNSubscriptionObject& inner) {
      ++innerCount;
      set.remove(inner.shared_from_this());
    });
    EXPECT_TRUE(set.empty());
  });
  EXPECT_EQ(innerCount, GetParam());
  EXPECT_THAT(set.allObjects(), IsEmpty());
  set.add(members[1]);
  EXPECT_THAT(set.allObjects(), ElementsAre(members[1]));
}

TEST(SubscriberSet, NullIsNoMember) {
  SubscriberSet set;
  set.add(nullptr);
  EXPECT_TRUE(set.empty());
  EXPECT_FALSE(set.contains(nullptr));
}

TEST(SubscriberSet, AThrowingCalleeEndsTheVisits) {
  SubscriberSet set;
  const auto subscription = subscriptionOf();
  set.add(subscription);
  EXPECT_THROW(set.forEach([](KLNSubscriptionObject&) { throw 1; }), int);
  const std::weak_ptr<KLNSubscriptionObject> watched = subscription;
  set.remove(subscription);
  EXPECT_EQ(watched.use_count(), 1);
}

}  // namespace
}  // namespace keel
