// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>

#include "runtime/foundation/buffer.h"

namespace keel {

// Immutable UTF-8 text, or null. Null differs from empty. Copies share the text and may live on any
// thread.
class String {
 public:
  String() = default;
  String(std::nullptr_t) {}
  // `text` must be valid UTF-8. Empty texts share one buffer.
  String(std::string_view text);
  // Charges `account`, with a surcharge as in Buffer::copyOf().
  String(std::string_view text, MemoryAccount& account, std::uint32_t surchargeBytes);
  String(const std::string& text) : String(std::string_view(text)) {}
  String(const char* text) : String(std::string_view(text)) {}

  bool isNull() const { return !buffer_; }
  // Returns the text; empty for null.
  std::string_view view() const {
    if (!buffer_) return {};
    const auto bytes = buffer_->bytes();
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
  }
  // Has the text wiped when its last copy is destroyed. Call it before the text is shared with
  // other threads.
  void makeSecret() {
    if (buffer_ && buffer_->size() > 0) buffer_->makeSecret();
  }

  // Returns a keyed hash; 0 for null.
  std::uint64_t hash() const { return buffer_ ? buffer_->hash() : 0; }

  // Compares bytes exactly; null equals null only.
  friend bool operator==(const String& left, const String& right) {
    if (left.buffer_ == right.buffer_) return true;
    return left.buffer_ && right.buffer_ && left.view() == right.view();
  }

 private:
  BufferRef buffer_;
};

// The name under which an item is published.
using Name = String;

struct StringHash {
  std::size_t operator()(const String& text) const { return text.hash(); }
};

}  // namespace keel
