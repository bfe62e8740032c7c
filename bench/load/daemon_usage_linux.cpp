// SPDX-License-Identifier: Apache-2.0
#include "bench/load/daemon_usage.h"

#include <fmt/format.h>
#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

namespace keel::bench {

namespace {

std::uint64_t sleepsOf(const std::filesystem::path& task) {
  std::ifstream status(task / "status");
  for (std::string word; status >> word;) {
    std::uint64_t count = 0;
    if (word == "voluntary_ctxt_switches:" && status >> count) return count;
  }
  return 0;
}

}  // namespace

DaemonUsage DaemonUsage::of(pid_t process) {
  const std::filesystem::path folder(fmt::format("/proc/{}", process));
  DaemonUsage usage;
  // Threads come and go.
  for (const auto& task : std::filesystem::directory_iterator(folder / "task")) {
    std::int64_t nanoseconds = 0;
    std::ifstream(task.path() / "schedstat") >> nanoseconds;
    usage.processor += std::chrono::nanoseconds(nanoseconds);
    usage.wakeUpCount += sleepsOf(task.path());
  }
  std::uint64_t pages = 0;
  std::ifstream(folder / "statm") >> pages >> pages;
  if (pages == 0) throw std::runtime_error(fmt::format("no process {}", process));
  usage.residentBytes = pages * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
  return usage;
}

std::chrono::nanoseconds ownProcessorTime() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto timeOf = [](const timeval& time) {
    return std::chrono::seconds(time.tv_sec) + std::chrono::microseconds(time.tv_usec);
  };
  return timeOf(usage.ru_utime) + timeOf(usage.ru_stime);
}

}  // namespace keel::bench
