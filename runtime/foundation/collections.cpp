// SPDX-License-Identifier: Apache-2.0
#include "runtime/foundation/collections.h"

#include <algorithm>

#include "runtime/foundation/cbor.h"
#include "runtime/foundation/cbor_writer.h"
#include "runtime/foundation/check.h"
#include "runtime/foundation/value.h"

namespace keel {

namespace {

bool sameBuffers(const BufferRef& left, const BufferRef& right) {
  if (left == right) return true;
  return left && right && std::ranges::equal(left->bytes(), right->bytes());
}

BufferRef encodedOrNull(const Value& value) {
  if (value.isNull()) return {};
  return Buffer::copyOf(cbor::encode(value));
}

}  // namespace

Value EncodedValue::value() const {
  if (isNull()) return {};
  auto decoded = cbor::decode(encoded(), cbor::kDepthCapacity);
  KEEL_CHECK(decoded.has_value());
  return std::move(*decoded);
}

bool EncodedValue::sameBytes(const EncodedValue& left, const EncodedValue& right) {
  return sameBuffers(left.buffer_, right.buffer_);
}

Dictionary::Dictionary(const Value& map) : EncodedValue(encodedOrNull(map)) {
  KEEL_CHECK(map.isNull() || map.isMap());
}

Array::Array(const Value& array) : EncodedValue(encodedOrNull(array)) {
  KEEL_CHECK(array.isNull() || array.isList());
}

bool operator==(const Data& left, const Data& right) {
  return sameBuffers(left.buffer_, right.buffer_);
}

}  // namespace keel
