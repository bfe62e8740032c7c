// SPDX-License-Identifier: Apache-2.0
#include "runtime/foundation/exception.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <locale>
#include <sstream>

namespace keel {
namespace {

TEST(Exception, KeepsNameAndReason) {
  const Exception exception(NSRangeException, "index 5 beyond bounds");
  EXPECT_EQ(exception.name(), "NSRangeException");
  EXPECT_EQ(exception.reason(), "index 5 beyond bounds");
  EXPECT_STREQ(exception.what(), "index 5 beyond bounds");
  EXPECT_EQ(exception.description(), "NSRangeException: index 5 beyond bounds");
}

TEST(Exception, RecordsTheStackOfItsRaiser) {
  try {
    throw Exception(NSGenericException, "reason");
  } catch (const std::exception& caught) {
    const auto* exception = dynamic_cast<const Exception*>(&caught);
    ASSERT_NE(exception, nullptr);
    // At least this function, its caller and the entry point of the program.
    EXPECT_GE(exception->callStackSymbols().size(), 3U);
    EXPECT_THAT(exception->callStackSymbols(), testing::Each(testing::Not(testing::IsEmpty())));
  }
}

TEST(Exception, DemanglesTheNamesOfFrames) {
  // Only exported functions have names at run time, and a stream calls its callbacks from such
  // functions of the C++ library.
  static std::vector<std::string> symbols;
  const auto capture = [](std::ios_base::event event, std::ios_base&, int) {
    if (event == std::ios_base::imbue_event)
      symbols = Exception(NSGenericException, "reason").callStackSymbols();
  };
  std::ostringstream stream;
  stream.register_callback(capture, 0);
  static_cast<std::ios_base&>(stream).imbue(std::locale::classic());
  EXPECT_THAT(symbols, testing::Contains(
                           testing::HasSubstr("(std::ios_base::imbue(std::locale const&)+0x")));
}

}  // namespace
}  // namespace keel
