// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/supervisor/job.h"

namespace keel {

// A systemd unit: its file name and its text.
struct Unit {
  std::string name;
  std::string text;
};

// The units of a job: its service, and one socket per Mach service.
struct JobUnits {
  std::vector<Unit> units;  // the service first
  // The unit that is enabled and disabled on behalf of all.
  std::string enabled;
  // The units started when the job is enabled: the sockets, and the service if it runs at load.
  std::vector<std::string> started;
};

JobUnits unitsOf(const Job& job);

// Return the names that unitsOf() uses.
std::string serviceUnitName(std::string_view label);
std::string socketUnitName(std::string_view label, std::size_t index);

// Begins every unit of ours and no other. The job's label follows, escaped by unitNameOf(); then,
// in a socket, its Mach service and, in a service, the fields of JobUnits.
inline constexpr std::string_view kUnitMarker =
    "# Made by keeld; changes are lost. Use systemctl edit instead.\n[X-Keel]\n";
inline constexpr std::string_view kUnitLabelKey = "Label=";
inline constexpr std::string_view kUnitMachServiceKey = "MachService=";
inline constexpr std::string_view kUnitEnabledKey = "Enabled=";
inline constexpr std::string_view kUnitStartedKey = "Started=";

}  // namespace keel
