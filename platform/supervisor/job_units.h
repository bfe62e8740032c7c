// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/supervisor/job.h"

namespace keel {

// One unit of systemd: the name of its file, and what stands in it.
struct Unit {
  std::string name;
  std::string text;
};

// The units that are a job: its service, and one socket for each of its Mach services.
struct JobUnits {
  std::vector<Unit> units;  // the service first
  // Which of them is enabled and disabled for all.
  std::string enabled;
  // Which of them are started when the job is enabled: the sockets, and the service if it runs from
  // the beginning.
  std::vector<std::string> started;
};

JobUnits unitsOf(const Job& job);

// Their names, as unitsOf() gives them.
std::string serviceUnitName(std::string_view label);
std::string socketUnitName(std::string_view label, std::size_t place);

// What every unit of ours begins with, and no other does. Then come the job's label, as
// unitNameOf() writes it, and in a socket its Mach service, in a service what JobUnits says of the
// job.
inline constexpr std::string_view kUnitMark =
    "# Made by keeld; changes are lost. Use systemctl edit instead.\n[X-Keel]\n";
inline constexpr std::string_view kUnitLabelKey = "Label=";
inline constexpr std::string_view kUnitMachServiceKey = "MachService=";
inline constexpr std::string_view kUnitEnabledKey = "Enabled=";
inline constexpr std::string_view kUnitStartedKey = "Started=";

}  // namespace keel
