// SPDX-License-Identifier: Apache-2.0
#include <vector>

#include "platform/bundle/property_list.h"
#include "runtime/foundation/cbor.h"
#include "runtime/foundation/cbor_writer.h"
#include "runtime/foundation/check.h"
#include "runtime/foundation/utf8.h"

// Fuzzes both forms of property lists. What is accepted is a value like any other: it can be
// encoded, and what is encoded is valid, so that texts are UTF-8 and nothing nests too deep. What
// is refused says why.
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
