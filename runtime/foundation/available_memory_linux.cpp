// SPDX-License-Identifier: Apache-2.0
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <limits>

#include "runtime/foundation/available_memory.h"

namespace keel {

namespace {

constexpr std::size_t kNoLimit = std::numeric_limits<std::size_t>::max();
// A system that does not reveal its memory is assumed to be small.
constexpr std::size_t kUnknownMachineBytes = std::size_t{2} << 30;

std::size_t machineBytes() {
  const long pages = ::sysconf(_SC_PHYS_PAGES);
  const long pageBytes = ::sysconf(_SC_PAGESIZE);
  if (pages <= 0 || pageBytes <= 0) return kUnknownMachineBytes;
  return static_cast<std::size_t>(pages) * static_cast<std::size_t>(pageBytes);
}

std::size_t addressSpaceBytes() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_AS, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) return kNoLimit;
  return static_cast<std::size_t>(limit.rlim_cur);
}

// Returns the path of this process's group, "" if there is none.
std::string ownControlGroup() {
  std::ifstream file("/proc/self/cgroup");
  constexpr std::string_view kUnified = "0::";
  for (std::string line; std::getline(file, line);) {
    if (line.starts_with(kUnified)) return line.substr(kUnified.size());
  }
  return {};
}

}  // namespace

std::size_t controlGroupLimitBytes(const std::string& root, std::string path) {
  std::size_t smallest = kNoLimit;
  // The limit of a group holds for those below it.
  while (path.starts_with('/') && path.size() > 1) {
    std::ifstream file(root + path + "/memory.max");
    // Not a number if there is no limit ("max").
    if (std::size_t bytes = 0; file >> bytes) smallest = std::min(smallest, bytes);
    path.resize(path.rfind('/'));
  }
  return smallest;
}

std::size_t availableMemoryBytes() {
  return std::min({machineBytes(), addressSpaceBytes(),
                   controlGroupLimitBytes("/sys/fs/cgroup", ownControlGroup())});
}

}  // namespace keel
