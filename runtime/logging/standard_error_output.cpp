// SPDX-License-Identifier: Apache-2.0
#include "runtime/logging/standard_error_output.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <iterator>
#include <utility>

#include "runtime/logging/log_setting.h"
#include "runtime/logging/printable_text.h"

namespace keel {
namespace {

constexpr std::size_t kShownCategoryBytes = 64;

std::string_view colourOf(LogLevel level) {
  switch (level) {
    case LogLevel::debug:
      return "\x1b[2m";
    case LogLevel::standard:
      return "";
    case LogLevel::error:
      return "\x1b[31m";
    case LogLevel::fault:
      return "\x1b[1;31m";
  }
  return "";
}

void appendLocalTime(std::string& line, std::chrono::system_clock::time_point time) {
  const auto milliseconds = std::chrono::floor<std::chrono::milliseconds>(time);
  const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
  const std::time_t clock = std::chrono::system_clock::to_time_t(seconds);
  std::tm local{};
  ::localtime_r(&clock, &local);
  fmt::format_to(std::back_inserter(line), "{:02}:{:02}:{:02}.{:03}", local.tm_hour, local.tm_min,
                 local.tm_sec, (milliseconds - seconds).count());
}

}  // namespace

std::string logLine(const LogMessage& message, bool colour) {
  std::string line;
  appendLocalTime(line, message.time);
  const std::string_view begin = colour ? colourOf(message.level) : "";
  fmt::format_to(std::back_inserter(line), " {}{}{} ", begin, nameOf(message.level),
                 begin.empty() ? "" : "\x1b[0m");
  if (message.user) fmt::format_to(std::back_inserter(line), "[uid {}] ", *message.user);
  appendPrintable(line, message.category, kShownCategoryBytes);
  line += ": ";
  if (!appendPrintable(line, message.text, kShownTextBytes))
    fmt::format_to(std::back_inserter(line), "... ({} bytes)",
                   message.fullBytes != 0 ? message.fullBytes : message.text.size());
  line += '\n';
  return line;
}

bool isJournalStream(int descriptor, const char* journalStream) {
  if (journalStream == nullptr) return false;
  struct stat status{};
  if (::fstat(descriptor, &status) != 0) return false;
  return fmt::format("{}:{}", status.st_dev, status.st_ino) == journalStream;
}

bool LineOutput::write(const LogMessage& message) {
  const std::string line = logLine(message, colour_);
  std::string_view rest = line;
  while (!rest.empty()) {
    const ssize_t written = ::write(descriptor_.get(), rest.data(), rest.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    rest.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

std::unique_ptr<LogOutput> standardErrorOutput(bool colour) {
  // A duplicate: if standard error were closed, its number could become a client's socket.
  FileDescriptor own(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
  return std::make_unique<LineOutput>(std::move(own), colour);
}

std::unique_ptr<LogOutput> defaultOutput() {
  if (isJournalStream(STDERR_FILENO, std::getenv("JOURNAL_STREAM"))) return journalOutput();
  const char* const noColour = std::getenv("NO_COLOR");
  const bool wanted = noColour == nullptr || *noColour == '\0';
  return standardErrorOutput(wanted && ::isatty(STDERR_FILENO) == 1);
}

}  // namespace keel
