// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace keel {

// The id that the linker gave the running executable (--build-id), in lower-case hexadecimal
// digits; empty without one. It finds the symbols that belong to a backtrace.
std::string buildId();

}  // namespace keel
