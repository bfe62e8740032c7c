// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <iosfwd>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/logging/log_system.h"

namespace keel::testing {

struct LogLine {
  LogLevel level;
  std::string category;
  std::string text;
  friend bool operator==(const LogLine&, const LogLine&) = default;
};
std::ostream& operator<<(std::ostream& stream, const LogLine& line);

// Notes every message that is written while it lives, with all levels enabled. From any thread.
class LogRecorder {
 public:
  LogRecorder();

  // Everything noted and not taken yet, in order.
  std::vector<LogLine> lines() const;
  // The same of one category.
  std::vector<LogLine> linesOf(std::string_view category) const;
  // Takes what was noted: the next lines are those that follow.
  std::vector<LogLine> take();
  // Notes nothing from now on: the levels are enabled that are without it.
  void stop() { capture_.reset(); }

 private:
  mutable std::mutex mutex_;
  std::vector<LogLine> lines_;
  std::optional<LogCapture> capture_;
};

}  // namespace keel::testing
