// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <expected>
#include <string>

#include "runtime/foundation/error.h"
#include "runtime/foundation/file_descriptor.h"

namespace keel {

// Makes this process the one whose jobs have their sockets in the folder, until it ends or the
// descriptor is closed; the folder is made if it is missing. EBUSY when another process is. Once in
// a process for each folder.
//
// No child has the lock, not even between its fork and its exec: a keeld that is started at once
// after another has the lock as soon as that one's process is gone, whatever that one was just
// about to start.
std::expected<FileDescriptor, Error> lockJobs(const std::string& serviceDirectory);

}  // namespace keel
