// SPDX-License-Identifier: Apache-2.0
#include "platform/bundle/regular_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>

#include "runtime/foundation/file_descriptor.h"

namespace keel {

namespace {

std::unexpected<Error> unreadable(const std::string& path, int number, const std::string& reason) {
  return std::unexpected(
      describedError(NSPOSIXErrorDomain, number, fmt::format("cannot read {}: {}", path, reason)));
}

std::unexpected<Error> unreadable(const std::string& path) {
  const int number = errno;
  return unreadable(path, number, std::strerror(number));
}

// Reads up to `limitBytes`, fewer only at the end of the file; returns nothing, with errno set, on
// failure.
std::optional<std::vector<std::byte>> readUpTo(int descriptor, std::size_t limitBytes) {
  constexpr std::size_t kChunkBytes = 16 * 1024;
  std::vector<std::byte> bytes;
  for (std::size_t held = 0; held < limitBytes; bytes.resize(held)) {
    bytes.resize(std::min(held + kChunkBytes, limitBytes));
    const ssize_t count = ::read(descriptor, bytes.data() + held, bytes.size() - held);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return {};
    if (count == 0) limitBytes = held;
    held += static_cast<std::size_t>(count);
  }
  return bytes;
}

}  // namespace

std::expected<std::vector<std::byte>, Error> readRegularFile(const std::string& path,
                                                             std::size_t limitBytes) {
  struct stat status;
  if (::stat(path.c_str(), &status) != 0) return unreadable(path);
  if (!S_ISREG(status.st_mode)) return unreadable(path, EINVAL, "not a regular file");
  // The file may have been replaced meanwhile, so open it without blocking and check again.
  const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!file || ::fstat(file.get(), &status) != 0) return unreadable(path);
  if (!S_ISREG(status.st_mode)) return unreadable(path, EINVAL, "not a regular file");
  auto bytes = readUpTo(file.get(), limitBytes + 1);
  if (!bytes) return unreadable(path);
  if (bytes->size() > limitBytes)
    return unreadable(path, EFBIG, fmt::format("more than {} bytes", limitBytes));
  return std::move(*bytes);
}

}  // namespace keel
