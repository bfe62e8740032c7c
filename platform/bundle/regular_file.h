// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <expected>
#include <string>
#include <vector>

#include "runtime/foundation/error.h"

namespace keel {

// All of a file that somebody else may have put there. Links are followed, but what is no regular
// file is not opened, so that no device does anything, and no pipe makes us wait. The error, in
// NSPOSIXErrorDomain, has a description that names the file: EINVAL when it is no regular file,
// EFBIG when it has more than `limitBytes`, else why the system could not read it.
std::expected<std::vector<std::byte>, Error> readRegularFile(const std::string& path,
                                                             std::size_t limitBytes);

}  // namespace keel
