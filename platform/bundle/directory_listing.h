// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <expected>
#include <string>
#include <vector>

#include "runtime/foundation/error.h"

namespace keel {

// Returns the names of a directory's entries, in the system's unspecified order, without "." and
// "..". Names are bytes and need not be UTF-8. The error is an errno in NSPOSIXErrorDomain, with a
// description.
std::expected<std::vector<std::string>, Error> contentsOfDirectory(const std::string& path);

}  // namespace keel
