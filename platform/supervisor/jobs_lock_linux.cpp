// SPDX-License-Identifier: Apache-2.0
#include "platform/supervisor/jobs_lock.h"

#include <fcntl.h>
#include <fmt/format.h>

#include <cerrno>
#include <cstring>

#include "platform/supervisor/supervisor_error.h"
#include "runtime/transport/service_socket.h"

namespace keel {

namespace {

std::unexpected<Error> failure(int problem, const std::string& path, const char* why) {
  return std::unexpected(
      supervisorError(problem, fmt::format("cannot take the lock {}: {}", path, why)));
}

}  // namespace

std::expected<FileDescriptor, Error> lockJobs(const std::string& serviceDirectory) {
  const std::string path = serviceDirectory + "/.jobs.lock";
  const auto directory = xpc::openServiceDirectory(serviceDirectory);
  if (!directory) return std::unexpected(directory.error());
  constexpr int kFlags = O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
  FileDescriptor file(::open(path.c_str(), kFlags, 0600));
  if (!file) return failure(errno, path, std::strerror(errno));
  // An fcntl(2) lock belongs to the process; flock(2) locks would be inherited by children.
  struct flock whole{};
  whole.l_type = F_WRLCK;
  whole.l_whence = SEEK_SET;
  if (::fcntl(file.get(), F_SETLK, &whole) == 0) return file;
  if (errno != EAGAIN && errno != EACCES) return failure(errno, path, std::strerror(errno));
  return failure(EBUSY, path, "another keeld owns the jobs here; stop it first");
}

}  // namespace keel
