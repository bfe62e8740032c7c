// SPDX-License-Identifier: Apache-2.0
#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include "platform/supervisor/supervisor_error.h"
#include "platform/supervisor/unit_store.h"
#include "platform/supervisor/unit_text.h"
#include "runtime/foundation/file_descriptor.h"

namespace keel {

namespace {

// Our units take a few KiB; kTextsBytes of arguments and of environment, fully escaped, stay below
// this.
constexpr std::size_t kUnitBytes = 2u << 20;

// Returns nothing if there is no such file; an empty text if the file cannot be ours.
std::optional<std::string> contentOf(const std::string& path) {
  const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!file)
    return errno == ENOENT || errno == ENOTDIR ? std::nullopt : std::optional(std::string());
  struct stat status{};
  if (::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return std::string();
  std::string text;
  char piece[16 << 10];
  for (;;) {
    const ssize_t count = ::read(file.get(), piece, sizeof(piece));
    if (count < 0 && errno == EINTR) continue;
    if (count < 0 || text.size() > kUnitBytes) return std::string();
    if (count == 0) return text;
    text.append(piece, static_cast<std::size_t>(count));
  }
}

std::vector<std::string> wordsOf(std::string_view text) {
  std::vector<std::string> words;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find(' '), text.size());
    words.emplace_back(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return words;
}

// Returns nothing if the text lacks the marker.
std::optional<UnitStore::Stored> notesOf(UnitStore::Place place, std::string text) {
  if (!text.starts_with(kUnitMarker)) return std::nullopt;
  UnitStore::Stored stored;
  stored.place = place;
  std::string_view rest = std::string_view(text).substr(kUnitMarker.size());
  for (;;) {
    const std::string_view line = rest.substr(0, rest.find('\n'));
    if (line.empty()) break;
    const auto note = [&](std::string_view key) {
      return line.starts_with(key) ? line.substr(key.size()) : std::string_view();
    };
    if (line.starts_with(kUnitLabelKey)) stored.label = note(kUnitLabelKey);
    if (line.starts_with(kUnitMachServiceKey)) stored.machService = note(kUnitMachServiceKey);
    if (line.starts_with(kUnitEnabledKey)) stored.enabled = note(kUnitEnabledKey);
    if (line.starts_with(kUnitStartedKey)) stored.started = wordsOf(note(kUnitStartedKey));
    rest.remove_prefix(std::min(line.size() + 1, rest.size()));
  }
  stored.text = std::move(text);
  return stored;
}

std::unexpected<Error> failure(const char* what, const std::string& path) {
  const int problem = errno;
  return std::unexpected(supervisorError(
      problem, fmt::format("cannot {} {}: {}", what, path, std::strerror(problem))));
}

bool writeAll(int file, std::string_view text) {
  while (!text.empty()) {
    const ssize_t count = ::write(file, text.data(), text.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return false;
    text.remove_prefix(static_cast<std::size_t>(count));
  }
  return true;
}

}  // namespace

UnitStore::UnitStore(Directories directories) : directories_(std::move(directories)) {}

std::string UnitStore::pathOf(Place place, const std::string& name) const {
  return (place == Place::runtime ? directories_.runtime : directories_.persistent) + "/" + name;
}

UnitStore::Standing UnitStore::standingOf(const std::string& name,
                                          std::optional<Stored>* stored) const {
  for (const Place place : {Place::persistent, Place::runtime}) {
    auto text = contentOf(pathOf(place, name));
    if (!text) continue;
    auto notes = notesOf(place, std::move(*text));
    const Standing standing = notes ? Standing::ours : Standing::foreign;
    if (stored != nullptr) *stored = std::move(notes);
    return standing;
  }
  return Standing::none;
}

bool UnitStore::exists(const std::string& folder, const std::string& name) {
  struct stat status{};
  return ::lstat((folder + "/" + name).c_str(), &status) == 0;
}

std::expected<bool, Error> UnitStore::write(Place place, const Unit& unit) {
  const std::string path = pathOf(place, unit.name);
  const auto former = contentOf(path);
  if (former == unit.text) return false;
  const std::string directory = pathOf(place, "");
  if (::mkdir(directory.c_str(), 0755) != 0 && errno != EEXIST)
    return failure("make the folder", directory);
  // systemd ignores names that begin with a dot.
  std::string temporary = directory + ".keeld-XXXXXX";
  const FileDescriptor file(::mkostemp(temporary.data(), O_CLOEXEC));
  if (!file) return failure("write into", directory);
  const bool written = writeAll(file.get(), unit.text) && ::fchmod(file.get(), 0644) == 0 &&
                       (place == Place::runtime || ::fsync(file.get()) == 0) &&
                       ::rename(temporary.c_str(), path.c_str()) == 0;
  if (!written) {
    auto problem = failure("write", path);
    ::unlink(temporary.c_str());
    return problem;
  }
  if (const auto notes = notesOf(place, unit.text); notes && !notes->machService.empty()) {
    labelsByMachService_.insert_or_assign(notes->machService, notes->label);
  }
  return true;
}

std::expected<void, Error> UnitStore::remove(Place place, const std::string& name) {
  const std::string path = pathOf(place, name);
  if (::unlink(path.c_str()) != 0 && errno != ENOENT) return failure("remove", path);
  indexed_ = false;
  return {};
}

std::string UnitStore::ownerOf(const std::string& machService) {
  if (!indexed_) {
    labelsByMachService_.clear();
    indexOwners(Place::runtime);
    indexOwners(Place::persistent);
    indexed_ = true;
  }
  const auto found = labelsByMachService_.find(unitNameOf(machService));
  return found == labelsByMachService_.end() ? std::string() : found->second;
}

void UnitStore::indexOwners(Place place) {
  const std::unique_ptr<DIR, int (*)(DIR*)> directory(::opendir(pathOf(place, "").c_str()),
                                                      &::closedir);
  if (!directory) return;
  while (const dirent* entry = ::readdir(directory.get())) {
    const std::string name = entry->d_name;
    if (!name.ends_with(".socket")) continue;
    auto text = contentOf(pathOf(place, name));
    if (!text) continue;
    if (auto notes = notesOf(place, std::move(*text)); notes && !notes->machService.empty()) {
      labelsByMachService_.insert_or_assign(notes->machService, notes->label);
    }
  }
}

}  // namespace keel
