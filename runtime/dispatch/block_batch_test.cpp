// SPDX-License-Identifier: Apache-2.0
#include "runtime/dispatch/block_batch.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace keel {
namespace {

using testing::ElementsAre;

void addEmptyBlocks(BlockBatch& batch, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) batch.add([] {});
}

TEST(BlockBatch, DestroysEachBlockBeforeTheNextBegins) {
  std::vector<std::string> events;
  BlockBatch batch;
  for (const std::string name : {"first", "second"}) {
    const std::shared_ptr<void> held(
        nullptr, [&events, name](void*) { events.push_back(name + " destroyed"); });
    batch.add([&events, name, held] { events.push_back(name); });
  }
  batch.run();
  EXPECT_THAT(events, ElementsAre("first", "first destroyed", "second", "second destroyed"));
  EXPECT_TRUE(batch.empty());
}

TEST(BlockBatch, KeepsItsMemoryUpToTheLimit) {
  BlockBatch batch;
  addEmptyBlocks(batch, BlockBatch::kKeptCount);
  ASSERT_EQ(batch.capacity(), BlockBatch::kKeptCount);
  batch.run();
  EXPECT_EQ(batch.capacity(), BlockBatch::kKeptCount);
}

TEST(BlockBatch, ReleasesItsMemoryBeyondTheLimit) {
  BlockBatch batch;
  addEmptyBlocks(batch, BlockBatch::kKeptCount + 1);
  batch.run();
  EXPECT_EQ(batch.capacity(), 0U);
}

}  // namespace
}  // namespace keel
