// SPDX-License-Identifier: Apache-2.0
#include "runtime/foundation/base64.h"

#include <gtest/gtest.h>

namespace keel {
namespace {

std::vector<std::byte> bytesOf(std::string_view text) {
  std::vector<std::byte> bytes;
  for (const char letter : text) bytes.push_back(static_cast<std::byte>(letter));
  return bytes;
}

// RFC 4648, section 10.
constexpr std::pair<const char*, const char*> kVectors[] = {{"", ""},
                                                            {"f", "Zg=="},
                                                            {"fo", "Zm8="},
                                                            {"foo", "Zm9v"},
                                                            {"foob", "Zm9vYg=="},
                                                            {"fooba", "Zm9vYmE="},
                                                            {"foobar", "Zm9vYmFy"}};

TEST(Base64, TestVectorsRoundTrip) {
  for (const auto& [plain, encoded] : kVectors) {
    EXPECT_EQ(encodeBase64(bytesOf(plain)), encoded);
    EXPECT_EQ(decodeBase64(encoded), bytesOf(plain));
  }
}

TEST(Base64, EveryByteRoundTrips) {
  std::vector<std::byte> all;
  for (int i = 0; i < 256; ++i) all.push_back(static_cast<std::byte>(i));
  EXPECT_EQ(decodeBase64(encodeBase64(all)), all);
}

TEST(Base64, DecodesIntoMemoryOfTheCaller) {
  std::vector<std::byte> into(maximumDecodedBytes("Zm9vYg=="), std::byte{7});
  EXPECT_EQ(into.size(), 6U);
  EXPECT_EQ(decodeBase64("Zm9vYg==", into), 4U);
  EXPECT_EQ(std::vector<std::byte>(into.begin(), into.begin() + 4), bytesOf("foob"));
  EXPECT_EQ(decodeBase64("Zm9vYh==", into), std::nullopt);
}

TEST(Base64, InvalidTextIsRefused) {
  for (const char* text :
       {"Z", "Zg", "Zg=", "Zg==Zg==", "Zh==", "Zm9=", "Z===", "====", "Zm9v\n", "Zm-_", "Z g="}) {
    EXPECT_FALSE(decodeBase64(text)) << text;
  }
}

}  // namespace
}  // namespace keel
