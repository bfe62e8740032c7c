// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "runtime/logging/logger.h"

// The destination of messages. Nothing is enabled until startLogging() is called, so a program that
// merely links one of our libraries writes nothing.

namespace keel {

struct LogMessage {
  LogLevel level;
  std::string_view category;
  std::string_view text;
  // When it was logged, possibly long before it reaches the output.
  std::chrono::system_clock::time_point time{};
  // Size of the text before it was truncated at kLogMessageBytes; 0 if it was not.
  std::size_t fullBytes = 0;
  // The user whose request caused it; none for the daemon's own work.
  std::optional<uid_t> user{};
};

// Writes messages to their destination. Called on the logging thread alone, one at a time; may
// block.
class LogOutput {
 public:
  virtual ~LogOutput() = default;
  // Returns false if the message is lost. Losses are counted, and reported through the same output
  // once it accepts messages again.
  virtual bool write(const LogMessage& message) = 0;
};

// Returns an output that speaks journald's native protocol, with the fields SUBSYSTEM, CATEGORY and
// PRIORITY, and KEEL_UID if a user caused the message. Control characters and invalid UTF-8 are
// escaped.
std::unique_ptr<LogOutput> journalOutput();
// Returns an output that writes one line each to standard error, "12:34:56.789 error notification:
// text", in local time, with "[uid 501] " before the category if a user caused it. Control
// characters and invalid UTF-8 are escaped and texts truncated after 1 KiB, so that no message can
// affect a terminal. Colours only if `colour`.
std::unique_ptr<LogOutput> standardErrorOutput(bool colour);
// Returns the journal if standard error is connected to it (JOURNAL_STREAM, see systemd.exec(5)),
// else standard error, in colour on a terminal unless NO_COLOR is set.
std::unique_ptr<LogOutput> defaultOutput();

// Starts the logging thread on `output` and sets each category's level from `setting`: empty for
// the default level, or a comma-separated list of LEVEL and CATEGORY=LEVEL with the levels debug,
// default, error, fault; for example "notification=debug,auth=default". Returns the invalid
// entries, empty if there are none. Called once.
//
// The thread lives until the process ends, since exit() may be called while other threads still
// log. Messages that have not reached the output by then are lost, so call flushLog() before ending
// the process.
std::string startLogging(std::unique_ptr<LogOutput> output, std::string_view setting);

// Waits until everything logged so far has reached the output. Returns false after `timeout`, and
// true immediately if no output was started.
bool flushLog(std::chrono::milliseconds timeout);

// For tests: enables the levels from `least` on and passes each message to `receive`, on the thread
// that logs it, instead of to the output, until the token is destroyed; `receive` is not called
// after that. Meanwhile users are not limited. Calls are serialised; `receive` must not log. Of
// several captures the newest live one receives.
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
