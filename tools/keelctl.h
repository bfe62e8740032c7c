// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "tools/console.h"

namespace keel {

// keelctl, but for what concerns the process: reads the command line (without the program's name),
// does what it says, and yields what to exit with.
int runKeelctl(std::vector<std::string> arguments, Console& console);

}  // namespace keel
