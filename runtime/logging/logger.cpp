// SPDX-License-Identifier: Apache-2.0
#include "runtime/logging/logger.h"

#include <fmt/format.h>

#include "runtime/dispatch/current_user.h"
#include "runtime/logging/logger_table.h"
#include "runtime/logging/printable_text.h"

namespace keel {

Logger& _loggerForCategory(const char* category) {
  return LoggerTable::shared().loggerForCategory(category == nullptr ? "" : category);
}

// Logging must not make its caller fail: out of memory, the message is lost.
void Logger::write(LogLevel level, fmt::string_view format, fmt::format_args arguments) noexcept
    try {
  const std::optional<uid_t> user = currentUser();
  if (!table_.admits(*this, level, user)) return;
  std::string text = fmt::vformat(format, arguments);
  std::size_t fullBytes = 0;
  if (text.size() > kLogMessageBytes) {
    fullBytes = text.size();
    text.resize(utf8PrefixBytes(text, kLogMessageBytes));
    text += fmt::format("... ({} bytes)", fullBytes);
  }
  table_.submit(*this, level, std::move(text), fullBytes, user);
} catch (...) {
}

}  // namespace keel

auto fmt::formatter<keel::String>::format(const keel::String& text, format_context& context) const
    -> format_context::iterator {
  return fmt::formatter<std::string_view>::format(text.isNull() ? "(null)" : text.view(), context);
}

auto fmt::formatter<keel::Error>::format(const keel::Error& error, format_context& context) const
    -> format_context::iterator {
  return fmt::formatter<std::string_view>::format(error.description(), context);
}
