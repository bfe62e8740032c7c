// SPDX-License-Identifier: Apache-2.0
#include "runtime/dispatch/qz_strand.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <thread>
#include <vector>

#include "runtime/dispatch/manual_executor.h"
#include "runtime/dispatch/reactor.h"
#include "runtime/dispatch/system.h"
#include "runtime/dispatch/worker_pool.h"

namespace keel {
namespace {

using testing::ElementsAre;

class Ledger final : public QZStrand, public std::enable_shared_from_this<Ledger> {
 public:
  using QZStrand::QZStrand;
  void add(int entry) {
    continueWithBlock([self = shared_from_this(), entry] { self->entries.push_back(entry); });
  }
  std::vector<int> entries;  // on the strand
};

TEST(QZStrand, RunsBlocksInOrderAndNotWithinTheCall) {
  ManualExecutor executor;
  const auto ledger = std::make_shared<Ledger>(executor);
  ledger->add(1);
  ledger->add(2);
  EXPECT_THAT(ledger->entries, ElementsAre());
  executor.runAll();
  EXPECT_THAT(ledger->entries, ElementsAre(1, 2));
}

TEST(QZStrand, RunsABlockSubmittedByABlockAfterThatBlock) {
  ManualExecutor executor;
  const auto ledger = std::make_shared<Ledger>(executor);
  ledger->continueWithBlock([ledger] {
    ledger->add(2);
    ledger->entries.push_back(1);
  });
  executor.runAll();
  EXPECT_THAT(ledger->entries, ElementsAre(1, 2));
}

TEST(QZStrand, StrandsAreIndependentOfEachOther) {
  ManualExecutor executor;
  const auto first = std::make_shared<Ledger>(executor);
  const auto second = std::make_shared<Ledger>(executor);
  first->add(1);
  second->add(2);
  EXPECT_TRUE(executor.runOne());
  EXPECT_THAT(first->entries, ElementsAre(1));
  EXPECT_THAT(second->entries, ElementsAre());
}

TEST(QZStrand, BlocksKeepTheStrandAliveUntilTheyRan) {
  ManualExecutor executor;
  auto ledger = std::make_shared<Ledger>(executor);
  const std::weak_ptr<Ledger> released = ledger;
  ledger->add(1);
  ledger.reset();
  EXPECT_FALSE(released.expired());
  executor.runAll();
  EXPECT_TRUE(released.expired());
}

TEST(QZStrand, RunsOneBlockAtATimeOnManyThreads) {
  WorkerPool pool(4);
  const auto ledger = std::make_shared<Ledger>(pool);
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([ledger] {
      for (int i = 0; i < 250; ++i) ledger->add(i);
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::promise<std::size_t> count;
  ledger->continueWithBlock([ledger, &count] { count.set_value(ledger->entries.size()); });
  EXPECT_EQ(count.get_future().get(), 1000U);
}

TEST(QZStrand, RunsOnTheIoThreadByDefault) {
  const auto ledger = std::make_shared<Ledger>();
  std::promise<bool> onIoThread;
  ledger->continueWithBlock([&onIoThread] { onIoThread.set_value(ioReactor().isCurrent()); });
  EXPECT_TRUE(onIoThread.get_future().get());
}

}  // namespace
}  // namespace keel
