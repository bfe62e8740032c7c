// SPDX-License-Identifier: Apache-2.0
#include "runtime/transport/frame_splitter.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>

namespace keel::xpc {
namespace {

using Found = FrameSplitter::Found;
using Bytes = std::vector<std::byte>;

Bytes lengthField(std::size_t length) {
  Bytes bytes;
  for (int i = 0; i < 4; ++i) bytes.push_back(static_cast<std::byte>(length >> (8 * i)));
  return bytes;
}

Bytes frameOf(std::string_view content) {
  Bytes bytes = lengthField(content.size());
  for (const char character : content) bytes.push_back(static_cast<std::byte>(character));
  return bytes;
}

std::string text(std::span<const std::byte> bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

Bytes operator+(Bytes left, const Bytes& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

TEST(FrameSplitter, FindsSeveralFrames) {
  FrameSplitter splitter(100, 1000);
  const Bytes bytes = frameOf("one") + frameOf("") + frameOf("three");
  splitter.give(bytes);
  ASSERT_EQ(splitter.next(), Found::frame);
  EXPECT_EQ(text(splitter.frame()), "one");
  ASSERT_EQ(splitter.next(), Found::frame);
  EXPECT_EQ(splitter.frame().size(), 0u);
  ASSERT_EQ(splitter.next(), Found::frame);
  EXPECT_EQ(text(splitter.frame()), "three");
  EXPECT_EQ(splitter.next(), Found::nothing);
  splitter.keepRest();
  EXPECT_FALSE(splitter.inFrame());
}

TEST(FrameSplitter, AFrameOfTheLimitIsFoundAndOneByteMoreIsOversized) {
  FrameSplitter splitter(10, 1000);
  splitter.setLimit(20);
  const Bytes bytes =
      frameOf(std::string(20, 'a')) + frameOf(std::string(21, 'b')) + frameOf("next");
  splitter.give(bytes);
  EXPECT_EQ(splitter.next(), Found::frame);
  ASSERT_EQ(splitter.next(), Found::oversized);
  EXPECT_EQ(splitter.frameSizeBytes(), 21u);
  EXPECT_EQ(text(splitter.frame()), std::string(16, 'b'));
  ASSERT_EQ(splitter.next(), Found::frame);
  EXPECT_EQ(text(splitter.frame()), "next");
}

TEST(FrameSplitter, AnOversizedFrameIsReportedByItsLengthUntilALimitIsSet) {
  FrameSplitter splitter(20, 1000);
  const Bytes bytes = lengthField(21);
  splitter.give(bytes);
  ASSERT_EQ(splitter.next(), Found::oversized);
  EXPECT_EQ(splitter.frameSizeBytes(), 21u);
  EXPECT_TRUE(splitter.frame().empty());
  FrameSplitter other(20, 1000);
  other.setLimit(20);
  Bytes beginning = lengthField(21) + Bytes(15);
  other.give(beginning);
  EXPECT_EQ(other.next(), Found::nothing);
}

TEST(FrameSplitter, ALengthOfTheGarbageLimitIsOversizedAndOneMoreIsGarbage) {
  FrameSplitter splitter(20, 1000);
  const Bytes first = lengthField(1000) + Bytes(16);
  splitter.give(first);
  EXPECT_EQ(splitter.next(), Found::oversized);
  FrameSplitter other(20, 1000);
  const Bytes second = lengthField(1001);
  other.give(second);
  EXPECT_EQ(other.next(), Found::garbage);
}

TEST(FrameSplitter, ASkippedFrameTakesNoMemory) {
  FrameSplitter splitter(20, 100'000);
  Bytes bytes = lengthField(50'000) + Bytes(16);
  splitter.give(bytes);
  ASSERT_EQ(splitter.next(), Found::oversized);
  EXPECT_EQ(splitter.next(), Found::nothing);
  splitter.keepRest();
  EXPECT_EQ(splitter.keptBytes(), 0u);
  EXPECT_TRUE(splitter.inFrame());
  bytes = Bytes(50'000 - 16) + frameOf("behind");
  splitter.give(bytes);
  ASSERT_EQ(splitter.next(), Found::frame);
  EXPECT_EQ(text(splitter.frame()), "behind");
}

TEST(FrameSplitter, AnySplitOfTheStreamYieldsTheSameFrames) {
  std::mt19937 random(4711);
  for (int round = 0; round < 200; ++round) {
    Bytes stream;
    std::vector<std::string> expected;
    for (int i = 0; i < 20; ++i) {
      const std::string content(random() % 60, static_cast<char>('a' + i));
      stream = stream + frameOf(content);
      expected.push_back(content.size() > 40 ? "oversized" : content);
    }
    FrameSplitter splitter(40, 1000);
    std::vector<std::string> found;
    std::vector<std::byte> buffer(4096);
    std::size_t position = 0;
    while (position < stream.size()) {
      const std::size_t part = std::min<std::size_t>(1 + random() % 50, stream.size() - position);
      // Puts kept bytes back in front now and then, as a stream does.
      const std::size_t kept = random() % 2 == 0 ? splitter.take(buffer) : 0;
      std::memcpy(buffer.data() + kept, stream.data() + position, part);
      position += part;
      splitter.give({buffer.data(), kept + part});
      for (Found what = splitter.next(); what != Found::nothing; what = splitter.next()) {
        ASSERT_NE(what, Found::garbage);
        found.push_back(what == Found::oversized ? "oversized" : text(splitter.frame()));
      }
      splitter.keepRest();
      std::fill(buffer.begin(), buffer.end(), std::byte{0xee});
    }
    ASSERT_EQ(found, expected) << "round " << round;
  }
}

}  // namespace
}  // namespace keel::xpc
