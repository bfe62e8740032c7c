// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <fmt/core.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include "runtime/foundation/error.h"
#include "runtime/foundation/string.h"

namespace keel {

// Large enough for an error with its backtrace; small enough that a few hundred such messages do
// not fill the queue.
inline constexpr std::size_t kLogMessageBytes = 16 * 1024;

// In order of severity. `standard` is the level called "default" in settings and output.
enum class LogLevel : std::uint8_t { debug, standard, error, fault };

class LoggerTable;

// Logs messages of one category. Lives for the whole process. All functions may be called from any
// thread; none blocks on the output or throws, and a message is formatted only if its level is
// enabled. A message above kLogMessageBytes is truncated, with a note of its full size.
class Logger {
 public:
  Logger(const Logger&) = delete;
  Logger& operator=(const Logger&) = delete;

  const std::string& category() const { return category_; }
  bool enabled(LogLevel level) const {
    return std::to_underlying(level) >= threshold_.load(std::memory_order_relaxed);
  }

  template <class... Arguments>
  void debug(fmt::format_string<Arguments...> format, Arguments&&... arguments) {
    log(LogLevel::debug, format, std::forward<Arguments>(arguments)...);
  }
  template <class... Arguments>
  void standard(fmt::format_string<Arguments...> format, Arguments&&... arguments) {
    log(LogLevel::standard, format, std::forward<Arguments>(arguments)...);
  }
  template <class... Arguments>
  void error(fmt::format_string<Arguments...> format, Arguments&&... arguments) {
    log(LogLevel::error, format, std::forward<Arguments>(arguments)...);
  }
  template <class... Arguments>
  void fault(fmt::format_string<Arguments...> format, Arguments&&... arguments) {
    log(LogLevel::fault, format, std::forward<Arguments>(arguments)...);
  }

 private:
  friend class LoggerTable;
  Logger(std::string category, LoggerTable& table)
      : category_(std::move(category)), table_(table) {}

  template <class... Arguments>
  void log(LogLevel level, fmt::format_string<Arguments...> format, Arguments&&... arguments) {
    if (enabled(level)) [[unlikely]]
      write(level, format, fmt::make_format_args(arguments...));
  }
  void write(LogLevel level, fmt::string_view format, fmt::format_args arguments) noexcept;

  const std::string category_;
  LoggerTable& table_;
  // The lowest enabled level; above every level until an output is started (log_system.h).
  std::atomic<std::uint8_t> threshold_{0xff};
};

// Returns the logger of that category, always the same one for the same name; null is the empty
// name. Keep the reference: the look-up takes a lock.
Logger& _loggerForCategory(const char* category);

}  // namespace keel

// Null texts and errors are formatted as "(null)".
template <>
struct fmt::formatter<keel::String> : fmt::formatter<std::string_view> {
  auto format(const keel::String& text, format_context& context) const -> format_context::iterator;
};
template <>
struct fmt::formatter<keel::Error> : fmt::formatter<std::string_view> {
  auto format(const keel::Error& error, format_context& context) const -> format_context::iterator;
};
