// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>

namespace keel {

// State of the job behind a Mach service. A plain value.
struct JobState {
  enum class Program : std::uint8_t {
    none,  // not demanded yet
    running,
    starting,  // about to run, or throttled
    failed,    // its last run failed, or it could not be started
  };
  std::string label = {};  // empty: no job has that service
  bool known =
      false;  // false: undetermined; `problem` has the reason and the next four are meaningless
  bool enabled = false;
  bool listening = false;  // accepts connections
  Program program = Program::none;
  pid_t processId = 0;       // of a running one
  std::string problem = {};  // for display; empty if there is no known problem
};

// Queries the state of jobs without starting any. Needs no privilege. On one thread.
class JobStates {
 public:
  virtual ~JobStates() = default;
  // Waits at most a few seconds for the service manager, over all calls; after that it is no longer
  // queried.
  virtual JobState of(const std::string& machService) = 0;
};

// Returns this system's: queries systemd where it runs, else reads keeld's own records
// (job_records.h).
std::unique_ptr<JobStates> systemJobStates();

}  // namespace keel
