// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <expected>
#include <string>

#include "runtime/foundation/error.h"
#include "runtime/foundation/file_descriptor.h"

// The sockets behind service names. Errors are POSIX errors whose description names the path and
// the remedy.

namespace keel {

// Holds the sockets of services, each under its service name.
inline constexpr const char* kServiceDirectory = "/run/keeld";

}  // namespace keel

namespace keel::xpc {

struct ServiceSocket {
  FileDescriptor descriptor;
  std::string path;  // where it is bound
  bool ownsPath;     // we bound it, and remove it at the end
};

// Returns the listening socket of a service: the one that the service manager passed under that
// name (sd_listen_fds_with_names(3)), else a new one at DIRECTORY/NAME, mode 0666. A stale socket
// of an ended process is replaced; one that is being served is not (EADDRINUSE), unless the caller
// knows that the name is its own: then it is replaced without being connected to, whichever process
// still holds it. The directory is created (0755) if it is missing, and must belong to this user
// and be writable by it alone.
enum class ServedSocket : std::uint8_t { kept, replaced };
std::expected<ServiceSocket, Error> listenForService(const std::string& directory,
                                                     const std::string& name,
                                                     ServedSocket served = ServedSocket::kept);

// Opens the directory, created and checked in the same way.
std::expected<FileDescriptor, Error> openServiceDirectory(const std::string& directory);

// Returns a non-blocking socket that is connecting to DIRECTORY/NAME.
std::expected<FileDescriptor, Error> connectSocket(const std::string& directory,
                                                   const std::string& name);

}  // namespace keel::xpc
