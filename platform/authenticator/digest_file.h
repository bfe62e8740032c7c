// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <expected>
#include <functional>
#include <string>

#include "platform/authenticator/digest_credentials.h"
#include "runtime/foundation/error.h"

namespace keel {

// The digest credentials file on disk. Both functions block on it, may be called from any thread,
// and fail with an error in NSPOSIXErrorDomain that states what is wrong with which file and what
// to do.

inline constexpr const char* kDigestFile = "/etc/keeld/digest";

// Larger files are refused. Enough for thousands of users, and fast to read.
inline constexpr std::size_t kDigestFileBytes = 1u << 20;

// Returns its text. ENOENT if there is no file; EPERM if it is not a regular file, is not owned by
// this process's user, or others may read or write it or write its directory.
std::expected<Secret, Error> readDigestFile(const std::string& path);

// Replaces the file's text with what `change` returns for the current text; leaves the file
// unchanged if `change` returns an error. Exclusive, and atomic for readers. A missing file is
// created, with its directory; one that cannot be read safely is left unchanged. On success the new
// text is on disk.
std::expected<void, Error> changeDigestFile(
    const std::string& path,
    const std::function<std::expected<Secret, Error>(const DigestCredentials&)>& change);

}  // namespace keel
