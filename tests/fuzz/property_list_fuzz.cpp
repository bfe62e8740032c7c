// SPDX-License-Identifier: Apache-2.0
#include <vector>

#include "platform/bundle/property_list.h"
#include "runtime/foundation/cbor.h"
#include "runtime/foundation/cbor_writer.h"
#include "runtime/foundation/check.h"
#include "runtime/foundation/utf8.h"

// Fuzzes both formats of property lists. An accepted value can be encoded, and its encoding is
// valid: texts are UTF-8 and the depth is bounded. A refusal gives a reason.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto* first = reinterpret_cast<const std::byte*>(data);
  // A copy of exactly that size, so that the address sanitizer sees every read beyond it.
  const std::vector<std::byte> input(first, first + size);
  const auto value = keel::decodePropertyList(input);
  if (!value) {
    KEEL_CHECK(!value.error().empty() && keel::isUtf8(value.error()));
    return 0;
  }
  KEEL_CHECK(
      keel::cbor::validate(keel::cbor::encode(*value), keel::kPropertyListDepth).has_value());
  KEEL_CHECK(!value->description().empty());
  return 0;
}
