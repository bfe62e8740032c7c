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

// What a job's dictionary asks for, checked and with every key's meaning spelled out.
// docs/operations.md has the table of keys. A plain value.
struct Job {
  // Whether the program is started again after it ended, although nobody asks for it.
  enum class Restart : std::uint8_t { never, always, afterSuccess, afterFailure, afterCrash };

  // Of one resource, as setrlimit(2) takes it. What the dictionary does not say is what it says of
  // the other.
  struct Limit {
    int resource = 0;
    const char* name = "";  // without its prefix: NOFILE
    std::uint64_t soft = 0;
    std::uint64_t hard = 0;
  };

  std::string label;
  std::string program;                 // an absolute path
  std::vector<std::string> arguments;  // with argument 0; never empty
  std::vector<std::string>
      machServices;  // in the dictionary's order; each a name fit for a socket in kServiceDirectory
  bool transient = false;
  bool runAtLoad = false;
  Restart restart = Restart::never;
  bool afterInitialDemand = false;  // kept running only from the first demand on

  std::string userName;   // empty: root
  std::string groupName;  // empty: the user's
  std::string workingDirectory;
  std::string rootDirectory;
  std::string standardInPath;
  std::string standardOutPath;
  std::string standardErrorPath;
  std::vector<std::pair<std::string, std::string>> environment;

  std::chrono::seconds throttleInterval{10};
  std::optional<std::chrono::seconds> exitTimeOut;  // zero: for ever
  std::optional<int> nice;
  std::optional<unsigned> umask;
  std::vector<Limit> limits;
  bool background = false;     // scheduled behind everybody else
  bool lowPriorityIO = false;  // reads and writes when nobody else does
  bool abandonProcessGroup = false;

  // Keys that have no counterpart here, in the dictionary's order; members of a key as
  // "KeepAlive.NetworkState".
  std::vector<std::string> unsupported;
};

// Nothing of a job comes near these; a file that asks for more was not written by somebody who
// wants a job.
inline constexpr std::size_t kLabelBytes =
    200;  // as unitNameOf() writes it, with a suffix, it is a file's name
inline constexpr std::size_t kMachServiceCount = 32;    // each is a socket
inline constexpr std::size_t kTextsBytes = 128u << 10;  // of all arguments, or of the environment
inline constexpr std::size_t kTextsCount = 4096;        // arguments, or variables
inline constexpr std::size_t kPathBytes = 4095;         // PATH_MAX, without the NUL
inline constexpr std::size_t kMachServiceNameBytes =
    90;  // "/run/keeld/" and it are a socket's address (108, with a NUL)

// The error names the job and the key that makes no sense.
std::expected<Job, Error> jobOf(const Value& dictionary);

// Why no job can have that label; empty when one can.
std::string problemOfJobLabel(const std::string& label);

// Why a service of that name cannot have its socket; empty when it can.
std::string problemOfMachService(const std::string& name);

}  // namespace keel
