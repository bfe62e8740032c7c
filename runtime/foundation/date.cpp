// SPDX-License-Identifier: Apache-2.0
#include "runtime/foundation/date.h"

#include <fmt/format.h>

#include <chrono>
#include <cmath>

namespace keel {

Date Date::now() {
  return Date{
      std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count()};
}

std::optional<std::int64_t> Date::wholeSeconds() const {
  constexpr double kExactLimit = 9007199254740992;  // 2^53
  if (!(std::fabs(secondsSinceEpoch) <= kExactLimit) ||
      std::trunc(secondsSinceEpoch) != secondsSinceEpoch)
    return {};
  return static_cast<std::int64_t>(secondsSinceEpoch);
}

std::string Date::description() const {
  constexpr double kYear0 = -62167219200, kYear10000 = 253402300800;
  double seconds = std::floor(secondsSinceEpoch);
  double microseconds = std::round((secondsSinceEpoch - seconds) * 1e6);
  if (microseconds >= 1e6) {
    seconds += 1;
    microseconds = 0;
  }
  if (!(seconds >= kYear0 && seconds < kYear10000)) return fmt::format("{}", secondsSinceEpoch);

  const std::chrono::sys_seconds point{std::chrono::seconds(static_cast<std::int64_t>(seconds))};
  const auto midnight = std::chrono::floor<std::chrono::days>(point);
  const std::chrono::year_month_day day(midnight);
  const std::chrono::hh_mm_ss time(point - midnight);
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:06}Z", static_cast<int>(day.year()),
                     static_cast<unsigned>(day.month()), static_cast<unsigned>(day.day()),
                     time.hours().count(), time.minutes().count(), time.seconds().count(),
                     static_cast<int>(microseconds));
}

}  // namespace keel
