// SPDX-License-Identifier: Apache-2.0
#include "platform/bundle/property_list_forms.h"

#include <algorithm>
#include <vector>

namespace keel {

const std::string* findDuplicateKey(const Value::Map& map) {
  std::vector<const std::string*> keys;
  keys.reserve(map.size());
  for (const Member& member : map) keys.push_back(&member.key);
  std::ranges::sort(keys, {}, [](const std::string* key) -> std::string_view { return *key; });
  const auto twice = std::ranges::adjacent_find(
      keys, {}, [](const std::string* key) -> std::string_view { return *key; });
  return twice == keys.end() ? nullptr : *twice;
}

std::string excerptOf(std::string_view text) {
  constexpr std::size_t kExcerptBytes = 60;
  if (text.size() <= kExcerptBytes) return std::string(text);
  std::size_t size = kExcerptBytes;
  while (size > 0 && (static_cast<unsigned char>(text[size]) & 0xc0U) == 0x80U) --size;
  return std::string(text.substr(0, size)) + "...";
}

}  // namespace keel
