// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <expected>
#include <string>

#include "runtime/foundation/error.h"
#include "runtime/foundation/file_descriptor.h"

namespace keel {

// Makes this process the owner of the jobs whose sockets are in the folder, until it exits or the
// descriptor is closed; creates the folder if missing. EBUSY if another process is the owner. Once
// per folder and process.
//
// Children never inherit the lock, not even between fork and exec: a keeld restarted at once gets
// the lock as soon as its predecessor is gone, whatever that was about to start.
std::expected<FileDescriptor, Error> lockJobs(const std::string& serviceDirectory);

}  // namespace keel
