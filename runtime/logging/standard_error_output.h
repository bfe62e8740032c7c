// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "runtime/foundation/file_descriptor.h"
#include "runtime/logging/log_system.h"

namespace keel {

// The part of a text that is shown. With time, level, category and the note of its size a line
// stays below PIPE_BUF, so that lines of several processes on one pipe do not mix.
inline constexpr std::size_t kShownTextBytes = 1024;

// Returns the line that standardErrorOutput() writes for a message, newline included.
std::string logLine(const LogMessage& message, bool colour);

// Returns true if `descriptor` is the file named by `journalStream` ("DEVICE:INODE", or null).
bool isJournalStream(int descriptor, const char* journalStream);

// Writes lines to a descriptor. A reader that is gone, or a full non-blocking pipe, loses the
// message.
class LineOutput : public LogOutput {
 public:
  LineOutput(FileDescriptor descriptor, bool colour)
      : descriptor_(std::move(descriptor)), colour_(colour) {}
  bool write(const LogMessage& message) override;

 private:
  const FileDescriptor descriptor_;
  const bool colour_;
};

}  // namespace keel
