// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <compare>
#include <cstddef>
#include <span>

#include "runtime/foundation/buffer.h"

namespace keel {

class Value;

// A value held in its encoded form (one well-formed CBOR item, see cbor.h) and shared by count, or
// null. The daemon forwards such values without ever decoding them.
class EncodedValue {
 public:
  bool isNull() const { return !buffer_; }
  // Empty for null.
  std::span<const std::byte> encoded() const {
    return buffer_ ? buffer_->bytes() : std::span<const std::byte>();
  }
  const BufferRef& buffer() const { return buffer_; }
  // Decodes the value; null yields a null Value. Nested no deeper than cbor::kDepthCapacity.
  Value value() const;

 protected:
  EncodedValue() = default;
  explicit EncodedValue(BufferRef wellFormed) : buffer_(std::move(wellFormed)) {}
  // Returns true for equal bytes, or if both are null.
  static bool sameBytes(const EncodedValue& left, const EncodedValue& right);

 private:
  BufferRef buffer_;
};

// A dictionary with text keys, or null.
class Dictionary : public EncodedValue {
 public:
  Dictionary() = default;
  Dictionary(std::nullptr_t) {}
  // `wellFormed` must hold exactly one encoded map that cbor::validate accepts.
  explicit Dictionary(BufferRef wellFormed) : EncodedValue(std::move(wellFormed)) {}
  // Encodes `map`, which must be a map or null; a null Value yields a null dictionary.
  explicit Dictionary(const Value& map);
  friend bool operator==(const Dictionary& left, const Dictionary& right) {
    return sameBytes(left, right);
  }
};

// An array of values, or null.
class Array : public EncodedValue {
 public:
  Array() = default;
  Array(std::nullptr_t) {}
  // `wellFormed` must hold exactly one encoded array that cbor::validate accepts.
  explicit Array(BufferRef wellFormed) : EncodedValue(std::move(wellFormed)) {}
  // Encodes `array`, which must be an array or null; a null Value yields a null array.
  explicit Array(const Value& array);
  friend bool operator==(const Array& left, const Array& right) { return sameBytes(left, right); }
};

// Opaque bytes, or null. Unlike Dictionary and Array, it holds the bytes themselves, not their
// encoding.
class Data {
 public:
  Data() = default;
  Data(std::nullptr_t) {}
  explicit Data(std::span<const std::byte> bytes) : buffer_(Buffer::copyOf(bytes)) {}
  bool isNull() const { return !buffer_; }
  std::span<const std::byte> bytes() const {
    return buffer_ ? buffer_->bytes() : std::span<const std::byte>();
  }
  friend bool operator==(const Data& left, const Data& right);

 private:
  BufferRef buffer_;
};

}  // namespace keel
