// SPDX-License-Identifier: Apache-2.0
#include "platform/xpc/recent_names.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "platform/foundation/check.h"

namespace keel::xpc {

namespace {

// Names that share a place only cost each other what they cost without it.
std::size_t placeOf(std::string_view text) {
  std::uint64_t begin = 0;
  std::uint64_t end = 0;
  const std::size_t count = std::min(text.size(), sizeof begin);
  std::memcpy(&begin, text.data(), count);
  std::memcpy(&end, text.data() + text.size() - count, count);
  const std::uint64_t mixed = (begin ^ (end << 7 | end >> 57) ^ text.size()) * 0x9e37'79b9'7f4a'7c15;
  return static_cast<std::size_t>(mixed >> 32) % RecentNames::kNames;
}

}  // namespace

String RecentNames::of(std::string_view text) {
  KEEL_CHECK(text.size() <= kLongestBytes);
  String& name = names_[placeOf(text)];
  if (name.isNull() || name.view() != text) name = String(text);
  return name;
}

}  // namespace keel::xpc
