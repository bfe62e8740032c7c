// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <utility>

#include "platform/authenticator/digest_file.h"
#include "runtime/foundation/file_descriptor.h"
#include "runtime/foundation/value.h"

namespace keel {

namespace {

std::unexpected<Error> failure(int problem, std::string description) {
  return std::unexpected(Error(
      NSPOSIXErrorDomain, problem,
      Dictionary(Value::map({{std::string(NSLocalizedDescriptionKey), std::move(description)}}))));
}

std::unexpected<Error> systemFailure(std::string_view what, const std::string& path) {
  const int problem = errno;
  return failure(problem, fmt::format("cannot {} {}: {}", what, path, std::strerror(problem)));
}

// Returns true if only the owner and root can open it.
bool isOurs(const struct stat& status) {
  return status.st_uid == ::geteuid() && (status.st_mode & (S_IRWXG | S_IRWXO)) == 0;
}

// A digest credentials file, and its directory, which is kept open.
class Place {
 public:
  static std::expected<Place, Error> open(const std::string& path) {
    const std::filesystem::path parts(path);
    const std::string directory = parts.parent_path();
    FileDescriptor held(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    struct stat status{};
    if (!held || ::fstat(held.get(), &status) != 0)
      return systemFailure("open the directory", directory);
    if ((status.st_uid != ::geteuid() && status.st_uid != 0) ||
        (status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
      return failure(EPERM, fmt::format("{} can be written by others, who could put any "
                                        "credentials there; fix its owner and mode",
                                        directory));
    }
    return Place(path, parts.filename(), std::move(held));
  }

  // Takes the lock, blocking; it is held until the returned descriptor is closed. The lock is a
  // permanent file of its own: any process that can open a file can lock it, and any process can
  // open the directory.
  std::expected<FileDescriptor, Error> lock() const {
    const std::string lockName = "." + name_ + ".lock";
    FileDescriptor file(::openat(directory_.get(), lockName.c_str(),
                                 O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC,
                                 S_IRUSR | S_IWUSR));
    struct stat status{};
    if (!file || ::fstat(file.get(), &status) != 0) return systemFailure("open the lock of", path_);
    if (!S_ISREG(status.st_mode) || !isOurs(status)) {
      return failure(EPERM, fmt::format("{} beside {} could be locked by others forever; remove it",
                                        lockName, path_));
    }
    while (::flock(file.get(), LOCK_EX) != 0) {
      if (errno != EINTR) return systemFailure("lock", path_);
    }
    return file;
  }

  std::expected<Secret, Error> read() const {
    // Neither blocks on a FIFO nor follows a link.
    const FileDescriptor file(::openat(directory_.get(), name_.c_str(),
                                       O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat status{};
    if (!file && errno == ELOOP)
      return failure(EPERM, path_ + " is a link; put the file itself there");
    if (!file || ::fstat(file.get(), &status) != 0) return systemFailure("open", path_);
    if (!S_ISREG(status.st_mode)) return failure(EPERM, path_ + " is no ordinary file; remove it");
    if (!isOurs(status)) {
      return failure(EPERM, fmt::format("{} is as secret as the passwords in it: it must belong to "
                                        "uid {} and have mode 0600; fix its "
                                        "owner and mode",
                                        path_, ::geteuid()));
    }
    if (std::cmp_greater(status.st_size, kDigestFileBytes)) return tooLarge();
    return readAll(file.get(), static_cast<std::size_t>(status.st_size));
  }

  std::expected<void, Error> replace(const Secret& text) const {
    if (text.text().size() > kDigestFileBytes) return tooLarge();
    const std::string newName = "." + name_ + ".new";
    // An existing one was left by an interrupted writer; the lock excludes a running one.
    ::unlinkat(directory_.get(), newName.c_str(), 0);
    auto written = write(newName, text.text());
    if (written &&
        ::renameat(directory_.get(), newName.c_str(), directory_.get(), name_.c_str()) != 0) {
      written = systemFailure("replace", path_);
    }
    if (!written) ::unlinkat(directory_.get(), newName.c_str(), 0);
    if (written && ::fsync(directory_.get()) != 0) return systemFailure("bring to the disk", path_);
    return written;
  }

 private:
  Place(std::string path, std::string name, FileDescriptor directory)
      : path_(std::move(path)), name_(std::move(name)), directory_(std::move(directory)) {}

  std::unexpected<Error> tooLarge() const {
    return failure(EFBIG, fmt::format("{} would have more than {} bytes; remove users from it",
                                      path_, kDigestFileBytes));
  }

  std::expected<Secret, Error> readAll(int file, std::size_t sizeBytes) const {
    Secret text(sizeBytes);
    std::size_t filled = 0;
    while (filled < sizeBytes) {
      const ssize_t count = ::read(file, text.bytes().data() + filled, sizeBytes - filled);
      if (count < 0 && errno == EINTR) continue;
      if (count < 0) return systemFailure("read", path_);
      if (count == 0) break;
      filled += static_cast<std::size_t>(count);
    }
    text.shrink(filled);
    return text;
  }

  std::expected<void, Error> write(const std::string& name, std::string_view text) const {
    const FileDescriptor file(::openat(directory_.get(), name.c_str(),
                                       O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                                       S_IRUSR | S_IWUSR));
    if (!file) return systemFailure("make the successor of", path_);
    while (!text.empty()) {
      const ssize_t count = ::write(file.get(), text.data(), text.size());
      if (count < 0 && errno == EINTR) continue;
      if (count < 0) return systemFailure("write the successor of", path_);
      text.remove_prefix(static_cast<std::size_t>(count));
    }
    if (::fsync(file.get()) != 0) return systemFailure("bring to the disk the successor of", path_);
    return {};
  }

  std::string path_;
  std::string name_;
  FileDescriptor directory_;
};

}  // namespace

std::expected<Secret, Error> readDigestFile(const std::string& path) {
  const auto place = Place::open(path);
  return place ? place->read() : std::unexpected(place.error());
}

std::expected<void, Error> changeDigestFile(
    const std::string& path,
    const std::function<std::expected<Secret, Error>(const DigestCredentials&)>& change) {
  const std::string directory = std::filesystem::path(path).parent_path();
  if (::mkdir(directory.c_str(), 0755) != 0 && errno != EEXIST)
    return systemFailure("make the directory", directory);
  const auto place = Place::open(path);
  if (!place) return std::unexpected(place.error());
  const auto lock = place->lock();
  if (!lock) return std::unexpected(lock.error());
  auto present = place->read();
  if (!present && present.error().code() != ENOENT) return std::unexpected(present.error());
  const auto text = change(DigestCredentials(present ? std::move(*present) : Secret()));
  return text ? place->replace(*text) : std::unexpected(text.error());
}

}  // namespace keel
