// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "runtime/logging/logger.h"

// Where messages go. Until one of the start functions is called nothing is enabled, so a program
// that merely links a library of ours writes nothing.

namespace keel {

struct LogMessage {
  LogLevel level;
  std::string_view category;
  std::string_view text;
  // When it was written, which may be long before it reaches the output.
  std::chrono::system_clock::time_point time{};
  // What the text measured before it was cut at kLogMessageBytes; 0 when it was not cut.
  std::size_t fullBytes = 0;
};

// Writes messages to their final place; called on the logging thread alone, one at a time. It may
// block.
class LogOutput {
 public:
  virtual ~LogOutput() = default;
  // False when the message is lost; losses are counted, and reported through the same output once
  // it takes messages again.
  virtual bool write(const LogMessage& message) = 0;
};

// journald's native protocol, with the fields SUBSYSTEM, CATEGORY and PRIORITY.
std::unique_ptr<LogOutput> journalOutput();
// One line each on standard error, "12:34:56.789 error notification: text", in local time. Control
// characters and invalid UTF-8 are shown escaped and texts cut after 1 KiB, so that no message can
// disturb a terminal. Colours only when `colour`.
std::unique_ptr<LogOutput> standardErrorOutput(bool colour);
// The journal when standard error is connected to it (JOURNAL_STREAM, see systemd.exec(5)), else
// standard error, in colour on a terminal unless NO_COLOR is set.
std::unique_ptr<LogOutput> defaultOutput();

// Starts the logging thread on `output` and sets each category's level from `setting`: empty for
// the default level, or a comma-separated list of LEVEL and CATEGORY=LEVEL with the levels debug,
// default, error, fault; for example "notification=debug,auth=default". Returns the entries that
// were not understood, empty when all were. Called once.
//
// The thread lives until the process ends: exit() may be called while other threads still log. What
// has not reached the output by then is gone, so whoever ends the process calls flushLog() first.
std::string startLogging(std::unique_ptr<LogOutput> output, std::string_view setting);

// Waits until everything written so far has reached the output, at most `patience`. False when it
// has not. True at once when no output was started.
bool flushLog(std::chrono::milliseconds patience);

// For tests: enables the levels from `least` on and hands each message to `receive` on the thread
// that writes it, instead of to the output, until the token is destroyed; then `receive` runs no
// more. One at a time; `receive` must not log. Of several captures the newest that still lives
// receives.
class LogCapture {
 public:
  explicit LogCapture(std::function<void(const LogMessage&)> receive,
                      LogLevel least = LogLevel::debug);
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

 private:
  const std::function<void(const LogMessage&)> receive_;
};

}  // namespace keel
