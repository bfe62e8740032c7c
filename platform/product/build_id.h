// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace keel {

// Returns the running executable's build id (the linker's --build-id), in lower-case hexadecimal
// digits; empty if there is none. It identifies the symbols for a backtrace.
std::string buildId();

}  // namespace keel
