// SPDX-License-Identifier: Apache-2.0
#include "runtime/logging/journal_output.h"

#include <fmt/format.h>
// The location in our source is of no use to an administrator, and would always be this file.
#define SD_JOURNAL_SUPPRESS_LOCATION
#include <syslog.h>
#include <systemd/sd-journal.h>

namespace keel {
namespace {

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

std::array<std::string, 4> journalFields(const LogMessage& message) {
  return {fmt::format("MESSAGE={}", message.text),
          fmt::format("PRIORITY={}", priorityOf(message.level)), "SUBSYSTEM=com.vantor.keeld",
          fmt::format("CATEGORY={}", message.category)};
}

bool JournalOutput::write(const LogMessage& message) {
  auto fields = journalFields(message);
  std::array<iovec, 4> vectors;
  for (std::size_t i = 0; i < fields.size(); ++i) vectors[i] = {fields[i].data(), fields[i].size()};
  return send_(vectors.data(), static_cast<int>(vectors.size())) >= 0;
}

std::unique_ptr<LogOutput> journalOutput() {
  return std::make_unique<JournalOutput>(&sd_journal_sendv);
}

}  // namespace keel
