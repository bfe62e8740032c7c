// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <iosfwd>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "runtime/logging/log_system.h"

namespace keel::testing {

struct LogLine {
  LogLevel level;
  std::string category;
  std::string text;
  friend bool operator==(const LogLine&, const LogLine&) = default;
};
std::ostream& operator<<(std::ostream& stream, const LogLine& line);

// Records every message of level `least` and above while it lives, and enables exactly those
// levels. From any thread. The default is the daemon's own; a test that checks debug lines passes
// debug.
class LogRecorder {
 public:
  explicit LogRecorder(LogLevel least = LogLevel::standard);

  // Returns all recorded lines that were not taken yet, in order.
  std::vector<LogLine> lines() const;
  // Returns those of one category.
  std::vector<LogLine> linesOf(std::string_view category) const;
  // Returns the recorded lines and clears them.
  std::vector<LogLine> take();

 private:
  mutable std::mutex mutex_;
  std::vector<LogLine> lines_;
  LogCapture capture_;
};

}  // namespace keel::testing
