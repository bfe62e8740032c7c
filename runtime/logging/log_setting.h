// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <map>
#include <string>
#include <string_view>

#include "runtime/logging/logger.h"

namespace keel {

// "debug", "default", "error" or "fault".
std::string_view nameOf(LogLevel level);

// Which level each category has: what startLogging() is given as text, understood.
class LogSetting {
 public:
  struct Parsed;

  // Entries are separated by commas; spaces around names do not count, nor do empty entries, and of
  // two entries for the same category the later wins.
  static Parsed parse(std::string_view text);

  // The lowest level that is enabled in that category.
  LogLevel levelFor(std::string_view category) const;

 private:
  LogLevel level_ = LogLevel::standard;
  std::map<std::string, LogLevel, std::less<>> levelsByCategory_;
};

struct LogSetting::Parsed {
  LogSetting setting;
  // The entries that were not understood, as they stood, separated by commas.
  std::string notUnderstood;
};

}  // namespace keel
