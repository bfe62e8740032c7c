// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "tools/console.h"

namespace keel {

// Runs a keelctl command line, given without the program's name, and returns the exit status. The
// parts of keelctl that concern the process are in main.cpp.
int runKeelctl(std::vector<std::string> arguments, Console& console);

}  // namespace keel
