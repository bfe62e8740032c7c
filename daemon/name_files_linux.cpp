// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <fmt/format.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <expected>
#include <optional>
#include <utility>

#include "daemon/name_files.h"
#include "platform/bundle/directory_listing.h"
#include "runtime/foundation/file_descriptor.h"

namespace keel {

namespace {

using Problem = std::unexpected<std::string>;

Problem cannotRead(const std::string& path) {
  return Problem(
      fmt::format("cannot read {}: {}; its rules do not count", path, std::strerror(errno)));
}

bool canOthersWrite(const struct stat& status) {
  return (status.st_uid != 0 && status.st_uid != ::geteuid()) ||
         (status.st_mode & (S_IWGRP | S_IWOTH)) != 0;
}

std::expected<std::string, std::string> readAll(int file, const std::string& path) {
  std::string text(kNamesFileBytes + 1, '\0');
  std::size_t filled = 0;
  while (filled < text.size()) {
    const ssize_t count = ::read(file, text.data() + filled, text.size() - filled);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return cannotRead(path);
    if (count == 0) break;
    filled += static_cast<std::size_t>(count);
  }
  text.resize(filled);
  if (filled <= kNamesFileBytes) return text;
  return Problem(
      fmt::format("{} has more than {} bytes; split it, until then its rules do not "
                  "count",
                  path, kNamesFileBytes));
}

std::expected<std::string, std::string> readRules(int folder, const std::string& name,
                                                  const std::string& path) {
  // Must neither block on a FIFO nor follow a symbolic link.
  const FileDescriptor file(
      ::openat(folder, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  struct stat status{};
  if (!file && errno == ELOOP)
    return Problem(path +
                   " is a link; put the file itself there, until then its rules do not count");
  if (!file || ::fstat(file.get(), &status) != 0) return cannotRead(path);
  if (!S_ISREG(status.st_mode)) return Problem(path + " is no ordinary file; remove it");
  if (canOthersWrite(status)) {
    return Problem(
        fmt::format("{} can be written by others than root, so its rules do not count; "
                    "give it to root, with mode 0644",
                    path));
  }
  return readAll(file.get(), path);
}

std::expected<FileDescriptor, std::string> openFolder(const std::string& folder) {
  FileDescriptor held(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  struct stat status{};
  if (!held || ::fstat(held.get(), &status) != 0) return cannotRead(folder);
  if (!canOthersWrite(status)) return held;
  return Problem(
      fmt::format("{} can be written by others than root, so none of its rules counts; "
                  "give it to root, with mode 0755",
                  folder));
}

std::optional<uid_t> uidOf(const std::string& loginName) {
  const passwd* const entry = ::getpwnam(loginName.c_str());
  return entry != nullptr ? std::optional(entry->pw_uid) : std::nullopt;
}

bool hasRules(const std::string& name) {
  return name.ends_with(kNamesSuffix) && !name.starts_with('.');
}

}  // namespace

NamesRead readNameReservations(const std::string& folder) {
  NamesRead read;
  if (::access(folder.c_str(), F_OK) != 0 && errno == ENOENT) return read;
  const auto held = openFolder(folder);
  if (!held) {
    read.problems.push_back(held.error());
    return read;
  }
  auto names = contentsOfDirectory(folder);
  if (!names) {
    read.problems.push_back(names.error().description());
    return read;
  }
  std::ranges::sort(*names);
  for (const std::string& name : *names) {
    if (!hasRules(name)) continue;
    const std::string path = folder + "/" + name;
    const auto text = readRules(held->get(), name, path);
    if (!text) {
      read.problems.push_back(text.error());
      continue;
    }
    for (std::string& problem : read.reservations.add(*text, path, uidOf))
      read.problems.push_back(std::move(problem));
  }
  return read;
}

}  // namespace keel
