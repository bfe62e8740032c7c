// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "runtime/foundation/date.h"

namespace keel {

// Times for people: in the time zone of this process (TZ, else the machine's), to the millisecond,
// with the offset from UTC. A date outside the calendar is shown as in Date::description().

// "14:03:21.125 +0200".
std::string shownTimeOfDay(Date date);
// "2026-11-20 14:03:21.125 +0200".
std::string shownDateAndTime(Date date);

}  // namespace keel
