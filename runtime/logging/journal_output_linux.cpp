// SPDX-License-Identifier: Apache-2.0
#include "runtime/logging/journal_output.h"

#include <fmt/format.h>
// The location in our source is of no use to an administrator, and would always be this file.
#define SD_JOURNAL_SUPPRESS_LOCATION
#include <syslog.h>
#include <systemd/sd-journal.h>

#include <limits>
#include <utility>

#include "runtime/logging/printable_text.h"

namespace keel {
namespace {

// The text was truncated when it was logged; escaping quadruples it at most.
constexpr std::size_t kUnlimited = std::numeric_limits<std::size_t>::max();

int priorityOf(LogLevel level) {
  switch (level) {
    case LogLevel::debug:
      return LOG_DEBUG;
    case LogLevel::standard:
      return LOG_NOTICE;
    case LogLevel::error:
      return LOG_ERR;
    case LogLevel::fault:
      return LOG_CRIT;
  }
  return LOG_ERR;
}

}  // namespace

std::vector<std::string> journalFields(const LogMessage& message) {
  // journald accepts any bytes, but journalctl prints them as they are (--output=cat) or replaces
  // the whole text by "[blob data]".
  std::string text = "MESSAGE=";
  appendPrintable(text, message.text, kUnlimited);
  std::vector<std::string> fields{
      std::move(text), fmt::format("PRIORITY={}", priorityOf(message.level)),
      "SUBSYSTEM=com.vantor.keeld", fmt::format("CATEGORY={}", message.category)};
  if (message.user) fields.push_back(fmt::format("KEEL_UID={}", *message.user));
  return fields;
}

bool JournalOutput::write(const LogMessage& message) {
  auto fields = journalFields(message);
  std::vector<iovec> vectors;
  for (std::string& field : fields) vectors.push_back({field.data(), field.size()});
  return send_(vectors.data(), static_cast<int>(vectors.size())) >= 0;
}

std::unique_ptr<LogOutput> journalOutput() {
  return std::make_unique<JournalOutput>(&sd_journal_sendv);
}

}  // namespace keel
