// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <map>
#include <string>
#include <string_view>

#include "runtime/logging/logger.h"

namespace keel {

// Returns "debug", "default", "error" or "fault".
std::string_view nameOf(LogLevel level);

// The level of each category, parsed from the text given to startLogging().
class LogSetting {
 public:
  struct Parsed;

  // Parses entries separated by commas. Spaces around names and empty entries are ignored; of
  // several entries for one category the last wins.
  static Parsed parse(std::string_view text);

  // Returns the lowest level enabled in that category.
  LogLevel levelFor(std::string_view category) const;

 private:
  LogLevel level_ = LogLevel::standard;
  std::map<std::string, LogLevel, std::less<>> levelsByCategory_;
};

struct LogSetting::Parsed {
  LogSetting setting;
  // The invalid entries as they were written, separated by commas.
  std::string invalidEntries;
};

}  // namespace keel
