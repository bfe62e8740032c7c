// SPDX-License-Identifier: Apache-2.0
#include "platform/authorization/external_form.h"

#include <gtest/gtest.h>

#include <string_view>

namespace keel {
namespace {

constexpr ProcessName kProcess{0x01020304, 0xa0b0c0d0, 0x1122334455667788};

TEST(ExternalForm, HasTheDocumentedLayout) {
  const AuthorizationExternalForm form = externalFormOf(kProcess);
  constexpr std::string_view kExpected(
      "KeelRef1\x04\x03\x02\x01\xd0\xc0\xb0\xa0\x88\x77\x66\x55\x44\x33\x22\x11"
      "1feRleeK",
      32);
  EXPECT_EQ(std::string_view(reinterpret_cast<const char*>(form.bytes.data()), form.bytes.size()),
            kExpected);
}

TEST(ExternalForm, RoundTrips) {
  EXPECT_EQ(processOf(externalFormOf(kProcess)), kProcess);
  EXPECT_EQ(processOf(externalFormOf({1, 0, 0})), (ProcessName{1, 0, 0}));
}

TEST(ExternalForm, RefusesAnyChangedMarkerByte) {
  for (std::size_t at = 0; at < kAuthorizationExternalFormLength; ++at) {
    AuthorizationExternalForm form = externalFormOf(kProcess);
    form.bytes[at] ^= std::byte{1};
    EXPECT_EQ(processOf(form).has_value(), at >= 8 && at < 24) << at;
    EXPECT_NE(processOf(form), kProcess);
  }
}

TEST(ExternalForm, RefusesATruncatedAndPaddedForm) {
  for (std::size_t size = 0; size < kAuthorizationExternalFormLength; ++size) {
    AuthorizationExternalForm form = externalFormOf(kProcess);
    std::fill(form.bytes.begin() + static_cast<std::ptrdiff_t>(size), form.bytes.end(),
              std::byte{0});
    EXPECT_FALSE(processOf(form)) << size;
  }
}

}  // namespace
}  // namespace keel
