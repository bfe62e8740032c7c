// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <string>

namespace keel {

// Returns how much memory this process may use: the smallest of the machine's, RLIMIT_AS
// (setrlimit(2)) and the limits of its control groups (cgroups(7), version 2).
std::size_t availableMemoryBytes();

// The same for the control group of that path, below the mount point `root`; the largest size if
// none is set.
std::size_t controlGroupLimitBytes(const std::string& root, std::string path);

}  // namespace keel
