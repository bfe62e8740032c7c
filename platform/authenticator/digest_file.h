// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <expected>
#include <functional>
#include <string>

#include "platform/authenticator/digest_credentials.h"
#include "runtime/foundation/error.h"

namespace keel {

// The file of digest credentials on the disk. Both functions block on it, may be called from any
// thread, and fail with an error of NSPOSIXErrorDomain that says what is wrong with which file and
// what to do.

inline constexpr const char* kDigestFile = "/etc/keeld/digest";

// Larger ones are refused. Enough for thousands of users, and soon read.
inline constexpr std::size_t kDigestFileBytes = 1u << 20;

// Its text. Code ENOENT when there is none. Refused with EPERM when it is no ordinary file, when
// somebody else than this process's user owns it, or any other may read or write it, or write the
// directory.
std::expected<Secret, Error> readDigestFile(const std::string& path);

// Gives the file the text that `change` makes of what is in it now, or leaves it when that yields
// an error. Nobody else changes the file meanwhile; whoever reads it sees the old text or the new.
// A file that is not there is made, with its directory; one that cannot be read safely is left.
// When this succeeds the new text is on the disk.
std::expected<void, Error> changeDigestFile(
    const std::string& path,
    const std::function<std::expected<Secret, Error>(const DigestCredentials&)>& change);

}  // namespace keel
