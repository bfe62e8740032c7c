// SPDX-License-Identifier: Apache-2.0
#include "runtime/foundation/byte_sink.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <utility>
#include <vector>

namespace keel {
namespace {

using Bytes = std::vector<std::byte>;

Bytes heldBy(const ByteSink& sink) {
  return {sink.bytes().begin(), sink.bytes().end()};
}

TEST(ByteSink, KeepsTheOrderOfAppends) {
  ByteSink sink;
  Bytes expected;
  for (int i = 0; i < 300; ++i) {
    sink.push(static_cast<std::byte>(i));
    expected.push_back(static_cast<std::byte>(i));
    const Bytes run(static_cast<std::size_t>(i), static_cast<std::byte>(i + 1));
    sink.append(run);
    expected.insert(expected.end(), run.begin(), run.end());
  }
  EXPECT_EQ(heldBy(sink), expected);
  EXPECT_EQ(sink.size(), expected.size());
}

TEST(ByteSink, AppendsNumbersBigEndian) {
  ByteSink sink;
  Bytes expected;
  for (int i = 0; i < 100; ++i) {
    for (const std::size_t width : {1u, 2u, 4u, 8u}) {
      sink.appendBigEndian(std::byte{0xaa}, 0x0102'0304'0506'0708, width);
      expected.push_back(std::byte{0xaa});
      for (std::size_t each = 8 - width; each < 8; ++each)
        expected.push_back(static_cast<std::byte>(each + 1));
    }
  }
  EXPECT_EQ(heldBy(sink), expected);
}

TEST(ByteSink, AppendingNoBytesLeavesItEmpty) {
  ByteSink sink;
  sink.append({});
  EXPECT_TRUE(sink.empty());
  EXPECT_TRUE(sink.bytes().empty());
}

TEST(ByteSink, ClearKeepsTheMemory) {
  ByteSink sink;
  sink.append(Bytes(1000));
  const std::byte* const memory = sink.bytes().data();
  sink.clear();
  EXPECT_TRUE(sink.empty());
  sink.append(Bytes(1000, std::byte{7}));
  EXPECT_EQ(sink.bytes().data(), memory);
  EXPECT_EQ(heldBy(sink), Bytes(1000, std::byte{7}));
}

TEST(ByteSink, IsEmptyAndUsableAfterAMove) {
  ByteSink sink;
  sink.push(std::byte{1});
  ByteSink other = std::move(sink);
  EXPECT_EQ(heldBy(other), Bytes{std::byte{1}});
  sink = ByteSink();
  sink.push(std::byte{2});
  EXPECT_EQ(heldBy(sink), Bytes{std::byte{2}});
  other = std::move(sink);
  EXPECT_EQ(heldBy(other), Bytes{std::byte{2}});
}

}  // namespace
}  // namespace keel
