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

// Notes every message that is written while it lives, with the levels from `least` on enabled. From
// any thread.
class LogRecorder {
 public:
  explicit LogRecorder(LogLevel least = LogLevel::debug);

  // Everything noted and not taken yet, in order.
  std::vector<LogLine> lines() const;
  // The same of one category.
  std::vector<LogLine> linesOf(std::string_view category) const;
  // Takes what was noted: the next lines are those that follow.
  std::vector<LogLine> take();

 private:
  mutable std::mutex mutex_;
  std::vector<LogLine> lines_;
  LogCapture capture_;
};

}  // namespace keel::testing
