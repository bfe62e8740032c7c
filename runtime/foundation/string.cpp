// SPDX-License-Identifier: Apache-2.0
#include "runtime/foundation/string.h"

namespace keel {

namespace {

const BufferRef& emptyBuffer() {
  // Never destroyed: strings may be created while the process exits.
  static const BufferRef& kEmpty = *new BufferRef(Buffer::copyOf({}));
  return kEmpty;
}

}  // namespace

String::String(std::string_view text)
    : buffer_(text.empty() ? emptyBuffer() : Buffer::copyOf(std::as_bytes(std::span(text)))) {}

String::String(std::string_view text, MemoryAccount& account, std::uint32_t surchargeBytes)
    : buffer_(Buffer::copyOf(std::as_bytes(std::span(text)), account, surchargeBytes)) {}

}  // namespace keel
