// SPDX-License-Identifier: Apache-2.0
#include "notify/incremental_work_queue.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "runtime/dispatch/manual_executor.h"
#include "runtime/dispatch/serial_queue.h"

namespace keel {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class IncrementalWork : public ::testing::Test {
 protected:
  void add(const std::string& name, int sliceCount) {
    line->add([this, name, left = sliceCount]() mutable {
      done.push_back(name);
      return --left > 0;
    });
  }

  ManualExecutor executor;
  std::shared_ptr<SerialQueue> queue = SerialQueue::create("test", executor);
  std::shared_ptr<IncrementalWorkQueue> line = std::make_shared<IncrementalWorkQueue>(queue);
  std::vector<std::string> done;
};

TEST_F(IncrementalWork, IsQueuedNotRunAtOnce) {
  add("a", 1);
  EXPECT_THAT(done, IsEmpty());
  executor.runAll();
  EXPECT_THAT(done, ElementsAre("a"));
}

TEST_F(IncrementalWork, ATurnRunsOneStep) {
  add("a", 2);
  add("b", 1);
  executor.runOne();
  EXPECT_THAT(done, ElementsAre("a"));
  executor.runOne();
  EXPECT_THAT(done, ElementsAre("a", "b"));
  executor.runOne();
  EXPECT_THAT(done, ElementsAre("a", "b", "a"));
  EXPECT_EQ(executor.scheduledCount(), 0u);
}

TEST_F(IncrementalWork, OtherBlocksRunBetweenSteps) {
  add("a", 2);
  executor.runOne();
  queue->async([this] { done.emplace_back("other"); });
  executor.runOne();
  EXPECT_THAT(done, ElementsAre("a", "a", "other"));
}

TEST_F(IncrementalWork, AStepMayAddWork) {
  line->add([this] {
    add("b", 1);
    done.emplace_back("a");
    return false;
  });
  executor.runAll();
  EXPECT_THAT(done, ElementsAre("a", "b"));
}

TEST_F(IncrementalWork, ContinuesWithoutAnotherOwner) {
  add("a", 2);
  line.reset();
  executor.runAll();
  EXPECT_THAT(done, ElementsAre("a", "a"));
}

TEST_F(IncrementalWork, ReleasesFinishedWork) {
  const auto held = std::make_shared<int>(0);
  line->add([held, left = 2]() mutable { return --left > 0; });
  EXPECT_EQ(held.use_count(), 2);
  executor.runOne();
  EXPECT_EQ(held.use_count(), 2);
  executor.runOne();
  EXPECT_EQ(held.use_count(), 1);
}

}  // namespace
}  // namespace keel
