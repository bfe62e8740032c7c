// SPDX-License-Identifier: Apache-2.0
#include "runtime/wire/name_cache.h"

#include <cstdint>
#include <cstring>
#include <utility>

#include "runtime/foundation/check.h"

namespace keel::xpc {

namespace {

// Loads the first and the last bytes. Loads of fixed sizes, which may overlap: a copy of variable
// size would be a store-forwarding stall.
template <class Number>
std::pair<std::uint64_t, std::uint64_t> endsAs(std::string_view text) {
  Number begin;
  Number end;
  std::memcpy(&begin, text.data(), sizeof begin);
  std::memcpy(&end, text.data() + text.size() - sizeof end, sizeof end);
  return {begin, end};
}

std::pair<std::uint64_t, std::uint64_t> ends(std::string_view text) {
  if (text.size() >= 8) return endsAs<std::uint64_t>(text);
  if (text.size() >= 4) return endsAs<std::uint32_t>(text);
  if (text.size() >= 2) return endsAs<std::uint16_t>(text);
  return text.empty() ? std::pair<std::uint64_t, std::uint64_t>() : endsAs<std::uint8_t>(text);
}

// A collision only costs a cache miss.
std::size_t slotOf(std::string_view text) {
  const auto [begin, end] = ends(text);
  const std::uint64_t mixed =
      (begin ^ (end << 7 | end >> 57) ^ text.size()) * 0x9e37'79b9'7f4a'7c15;
  return static_cast<std::size_t>(mixed >> 32) % NameCache::kNames;
}

}  // namespace

String NameCache::nameOf(std::string_view text) {
  KEEL_CHECK(text.size() <= kLongestBytes);
  String& name = names_[slotOf(text)];
  if (name.isNull() || name.view() != text) name = String(text);
  return name;
}

}  // namespace keel::xpc
