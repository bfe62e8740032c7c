// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <expected>
#include <string>
#include <vector>

#include "runtime/foundation/error.h"

namespace keel {

// Reads a whole file that is not trusted. Follows links, but opens only a regular file, so that no
// device is triggered and no pipe blocks us. The error, in NSPOSIXErrorDomain, has a description
// that names the file: EINVAL if it is not a regular file, EFBIG if it exceeds `limitBytes`, else
// the errno of the failed read.
std::expected<std::vector<std::byte>, Error> readRegularFile(const std::string& path,
                                                             std::size_t limitBytes);

}  // namespace keel
