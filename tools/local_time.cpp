// SPDX-License-Identifier: Apache-2.0
#include "tools/local_time.h"

#include <fmt/format.h>

#include <cmath>
#include <ctime>

namespace keel {

namespace {

// `dateFormat` is the strftime(3) format of the part in front of the seconds.
std::string shown(Date date, const char* dateFormat) {
  const double seconds = std::floor(date.secondsSinceEpoch);
  // Rounded down, so that no future time is shown.
  const auto milliseconds = static_cast<int>((date.secondsSinceEpoch - seconds) * 1000);
  // Beyond it std::time_t would overflow.
  constexpr double kLatest = 1e15;
  if (!(std::fabs(seconds) <= kLatest)) return date.description();
  const auto time = static_cast<std::time_t>(seconds);
  std::tm local{};
  if (::localtime_r(&time, &local) == nullptr) return date.description();
  char day[64], offset[16];
  if (std::strftime(day, sizeof day, dateFormat, &local) == 0) return date.description();
  std::strftime(offset, sizeof offset, "%z", &local);
  return fmt::format("{}.{:03} {}", day, milliseconds, offset);
}

}  // namespace

std::string shownTimeOfDay(Date date) {
  return shown(date, "%H:%M:%S");
}

std::string shownDateAndTime(Date date) {
  return shown(date, "%Y-%m-%d %H:%M:%S");
}

}  // namespace keel
