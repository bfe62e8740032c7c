// SPDX-License-Identifier: Apache-2.0
#include "notify/dump_answer.h"

#include "notify/notify_fixture.h"

namespace keel {
namespace {

std::shared_ptr<KLNPublishedObject> itemWith(Dictionary data) {
  auto item = KLNPublishedObject::initWithName("n");
  item->setData(std::move(data));
  return item;
}

Dictionary text(std::size_t length) {
  return Dictionary(Value::map({{"text", std::string(length, 'x')}}));
}

Array answerWith(const std::vector<std::shared_ptr<KLNPublishedObject>>& items) {
  DumpAnswer answer(items.size(), /*withData=*/true);
  for (const auto& item : items) answer.append(*item);
  auto entries = answer.take();
  EXPECT_TRUE(entries);
  return entries ? *entries : Array();
}

TEST(DumpAnswer, CountsMissingEntries) {
  const auto item = itemWith(nullptr);
  DumpAnswer answer(2, /*withData=*/false);
  EXPECT_EQ(answer.missingCount(), 2u);
  answer.append(*item);
  EXPECT_EQ(answer.missingCount(), 1u);
  answer.append(*item);
  EXPECT_EQ(answer.missingCount(), 0u);
  EXPECT_EQ(answer.take()->value().as<Value::List>()->size(), 2u);
}

TEST(DumpAnswer, AShortAnswerIsOnTheHeap) {
  EXPECT_EQ(answerWith({itemWith(text(60'000))}).buffer()->sealedFile(), -1);
}

TEST(DumpAnswer, ALongAnswerIsInAMemoryFile) {
  const auto small = itemWith(number(1));
  const Array many = answerWith(std::vector(2000, small));
  EXPECT_GE(many.buffer()->sealedFile(), 0);
  const Value list = many.value();
  ASSERT_EQ(list.as<Value::List>()->size(), 2000u);
  for (const Value& each : *list.as<Value::List>())
    ASSERT_EQ(*each.find("publishedData"), number(1).value());
}

TEST(DumpAnswer, LargeDataKeepTheirOrder) {
  const auto small = itemWith(number(1));
  const auto large = itemWith(text(100'000));
  const Array mixed = answerWith({small, large, small, large, small});
  EXPECT_GE(mixed.buffer()->sealedFile(), 0);
  const Value value = mixed.value();
  const auto& list = *value.as<Value::List>();
  ASSERT_EQ(list.size(), 5u);
  for (std::size_t i = 0; i < 5; ++i)
    EXPECT_EQ(*list[i].find("publishedData"), (i % 2 == 0 ? small : large)->data().value());
}

TEST(DumpAnswer, ReportsItsSize) {
  DumpAnswer answer(2, /*withData=*/true);
  const std::size_t empty = answer.sizeBytes();
  answer.append(*itemWith(text(100'000)));
  EXPECT_GT(answer.sizeBytes(), empty + 100'000);
  answer.append(*itemWith(nullptr));
  const std::size_t whole = answer.sizeBytes();
  EXPECT_EQ(answer.take()->encoded().size(), whole);
}

}  // namespace
}  // namespace keel
