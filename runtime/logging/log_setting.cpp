// SPDX-License-Identifier: Apache-2.0
#include "runtime/logging/log_setting.h"

#include <array>
#include <optional>
#include <utility>

namespace keel {
namespace {

constexpr std::array<std::pair<std::string_view, LogLevel>, 4> kLevelsByName{{
    {"debug", LogLevel::debug},
    {"default", LogLevel::standard},
    {"error", LogLevel::error},
    {"fault", LogLevel::fault},
}};

std::optional<LogLevel> levelNamed(std::string_view name) {
  for (const auto& [levelName, level] : kLevelsByName)
    if (levelName == name) return level;
  return std::nullopt;
}

std::string_view trimmed(std::string_view text) {
  constexpr std::string_view kSpaces = " \t\n";
  const std::size_t first = text.find_first_not_of(kSpaces);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kSpaces) - first + 1);
}

}  // namespace

std::string_view nameOf(LogLevel level) {
  for (const auto& [name, namedLevel] : kLevelsByName)
    if (namedLevel == level) return name;
  return "none";
}

LogSetting::Parsed LogSetting::parse(std::string_view text) {
  Parsed parsed;
  while (!text.empty()) {
    const std::size_t comma = text.find(',');
    const std::string_view entry = trimmed(text.substr(0, comma));
    text = comma == std::string_view::npos ? std::string_view{} : text.substr(comma + 1);
    if (entry.empty()) continue;

    const std::size_t equals = entry.find('=');
    const bool forCategory = equals != std::string_view::npos;
    const std::string_view category =
        forCategory ? trimmed(entry.substr(0, equals)) : std::string_view{};
    const auto level = levelNamed(trimmed(forCategory ? entry.substr(equals + 1) : entry));
    if (!level || (forCategory && category.empty())) {
      if (!parsed.invalidEntries.empty()) parsed.invalidEntries += ',';
      parsed.invalidEntries += entry;
    } else if (forCategory) {
      parsed.setting.levelsByCategory_.insert_or_assign(std::string(category), *level);
    } else {
      parsed.setting.level_ = *level;
    }
  }
  return parsed;
}

LogLevel LogSetting::levelFor(std::string_view category) const {
  const auto found = levelsByCategory_.find(category);
  return found == levelsByCategory_.end() ? level_ : found->second;
}

}  // namespace keel
