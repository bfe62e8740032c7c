// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <expected>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "runtime/foundation/error.h"
#include "runtime/foundation/value.h"
#include "runtime/transport/service_socket.h"

namespace keel {

// A job's dictionary, validated and with every key spelled out. docs/operations.md has the table of
// keys. A plain value.
struct Job {
  // When the program is restarted without a connection demanding it.
  enum class Restart : std::uint8_t { never, always, afterSuccess, afterFailure, afterCrash };

  // A resource limit as setrlimit(2) takes it. If the dictionary gives only one of the two values,
  // it applies to both.
  struct Limit {
    int resource = 0;
    const char* name = "";  // without the prefix, as in NOFILE
    std::uint64_t soft = 0;
    std::uint64_t hard = 0;
  };

  std::string label;
  std::string program;                 // an absolute path
  std::vector<std::string> arguments;  // with argument 0; never empty
  std::vector<std::string>
      machServices;  // in the dictionary's order; each usable as a socket name in kServiceDirectory
  bool transient = false;
  bool runAtLoad = false;
  Restart restart = Restart::never;
  bool afterInitialDemand = false;  // kept running only after the first demand

  std::string userName;   // empty: root
  std::string groupName;  // empty: the user's
  std::string workingDirectory;
  std::string rootDirectory;
  std::string standardInPath;
  std::string standardOutPath;
  std::string standardErrorPath;
  std::vector<std::pair<std::string, std::string>> environment;

  std::chrono::seconds throttleInterval{10};
  std::optional<std::chrono::seconds> exitTimeOut;  // zero: no limit
  std::optional<int> nice;
  std::optional<unsigned> umask;
  std::vector<Limit> limits;
  bool background = false;     // lowest CPU priority
  bool lowPriorityIO = false;  // idle I/O priority
  bool abandonProcessGroup = false;

  // Keys without a counterpart here, in the dictionary's order; nested ones as
  // "KeepAlive.NetworkState".
  std::vector<std::string> unsupported;
};

// Limits. No real job comes near them; a file that exceeds them does not describe a job.
inline constexpr std::size_t kLabelBytes =
    200;  // escaped by unitNameOf() and with a suffix it is a file name
inline constexpr std::size_t kMachServiceCount = 32;  // each is a socket
inline constexpr std::size_t kTextsBytes =
    128u << 10;  // all arguments together; likewise the environment
inline constexpr std::size_t kTextsCount = 4096;  // arguments, or variables
inline constexpr std::size_t kPathBytes = 4095;   // PATH_MAX, without the NUL
inline constexpr std::size_t kMachServiceNameBytes =
    90;  // with "/run/keeld/" it is a socket address (108 bytes with the NUL)

// The error names the job and the offending key.
std::expected<Job, Error> jobOf(const Value& dictionary);

// Returns why no job can have that label; empty for a valid one.
std::string problemOfJobLabel(const std::string& label);

// Returns why a service of that name cannot have a socket; empty for a valid one.
std::string problemOfMachService(const std::string& name);

}  // namespace keel
