// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "runtime/foundation/date.h"

namespace keel {

// Times for people: in the time zone of this process (TZ, else that of the machine), to the
// millisecond, with the offset from UTC. What no calendar has is shown as Date::description() does.

// "14:03:21.125 +0200".
std::string shownTimeOfDay(Date date);
// "2026-11-20 14:03:21.125 +0200".
std::string shownDateAndTime(Date date);

}  // namespace keel
