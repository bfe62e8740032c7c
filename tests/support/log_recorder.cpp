// SPDX-License-Identifier: Apache-2.0
#include "tests/support/log_recorder.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <ostream>
#include <utility>

namespace keel::testing {

std::ostream& operator<<(std::ostream& stream, const LogLine& line) {
  constexpr std::array<const char*, 4> kLevels = {"debug", "default", "error", "fault"};
  return stream << kLevels.at(static_cast<std::size_t>(line.level)) << ' ' << line.category << ": "
                << line.text;
}

LogRecorder::LogRecorder(LogLevel least)
    : capture_(
          [this](const LogMessage& message) {
            const std::lock_guard lock(mutex_);
            lines_.push_back(
                {message.level, std::string(message.category), std::string(message.text)});
          },
          least) {}

std::vector<LogLine> LogRecorder::lines() const {
  const std::lock_guard lock(mutex_);
  return lines_;
}

std::vector<LogLine> LogRecorder::linesOf(std::string_view category) const {
  std::vector<LogLine> lines;
  std::ranges::copy_if(this->lines(), std::back_inserter(lines),
                       [category](const LogLine& line) { return line.category == category; });
  return lines;
}

std::vector<LogLine> LogRecorder::take() {
  const std::lock_guard lock(mutex_);
  return std::exchange(lines_, {});
}

}  // namespace keel::testing
