// SPDX-License-Identifier: Apache-2.0
#include "runtime/foundation/collections.h"

#include <gtest/gtest.h>

#include "runtime/foundation/test_bytes.h"
#include "runtime/foundation/value.h"

namespace keel {
namespace {

TEST(Dictionary, HoldsTheEncodedMap) {
  const Dictionary dictionary(Value::map({{"a", 1}}));
  EXPECT_EQ(hexOf(dictionary.encoded()), "a1616101");
  EXPECT_TRUE(dictionary.value() == Value::map({{"a", 1}}));
}

TEST(Dictionary, NullDiffersFromEmpty) {
  EXPECT_TRUE(Dictionary().isNull());
  EXPECT_TRUE(Dictionary(nullptr).isNull());
  EXPECT_TRUE(Dictionary(Value()).isNull());
  EXPECT_FALSE(Dictionary(Value::map({})).isNull());
  EXPECT_FALSE(Dictionary() == Dictionary(Value::map({})));
  EXPECT_TRUE(Dictionary() == Dictionary(Value()));
}

TEST(Dictionary, NullDecodesToANullValue) {
  EXPECT_TRUE(Dictionary().value().isNull());
  EXPECT_TRUE(Dictionary().encoded().empty());
}

TEST(Dictionary, ComparesByBytes) {
  EXPECT_TRUE(Dictionary(Value::map({{"a", 1}})) ==
              Dictionary(Buffer::copyOf(bytesOfHex("a1616101"))));
  EXPECT_FALSE(Dictionary(Value::map({{"a", 1}})) == Dictionary(Value::map({{"a", 2}})));
}

TEST(Dictionary, SharesTheGivenBuffer) {
  const BufferRef buffer = Buffer::copyOf(bytesOfHex("a0"));
  EXPECT_TRUE(Dictionary(buffer).buffer() == buffer);
}

TEST(DictionaryDeathTest, AnArrayAborts) {
  EXPECT_DEATH(Dictionary(Value::list({})), "check failed");
}

TEST(Array, HoldsTheEncodedArray) {
  const Array array(Value::list({1, "a"}));
  EXPECT_EQ(hexOf(array.encoded()), "82016161");
  EXPECT_TRUE(array.value() == Value::list({1, "a"}));
  EXPECT_TRUE(Array(Value()).isNull());
}

TEST(ArrayDeathTest, AMapAborts) {
  EXPECT_DEATH(Array(Value::map({})), "check failed");
}

TEST(EncodedValueDeathTest, MalformedBytesAbort) {
  EXPECT_DEATH(Dictionary(Buffer::copyOf(bytesOfHex("a1"))).value(), "check failed");
}

TEST(Data, HoldsTheBytesThemselves) {
  const Data data(bytesOfHex("0102"));
  EXPECT_EQ(hexOf(data.bytes()), "0102");
  EXPECT_TRUE(data == Data(bytesOfHex("0102")));
  EXPECT_FALSE(data == Data(bytesOfHex("0103")));
}

TEST(Data, NullDiffersFromEmpty) {
  EXPECT_TRUE(Data().isNull());
  EXPECT_FALSE(Data(std::span<const std::byte>()).isNull());
  EXPECT_FALSE(Data() == Data(std::span<const std::byte>()));
  EXPECT_TRUE(Data() == Data(nullptr));
}

}  // namespace
}  // namespace keel
