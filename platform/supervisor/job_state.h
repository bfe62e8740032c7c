// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>

namespace keel {

// How the job behind a Mach service stands. A plain value.
struct JobState {
  enum class Program : std::uint8_t {
    none,  // nobody asked for it
    running,
    starting,  // about to run, or given a pause before it
    failed,    // its last run did not end well, or it could not be started
  };
  std::string label = {};  // empty: no job has that service
  bool known =
      false;  // false: could not be found out, `problem` says why, and the four below say nothing
  bool enabled = false;
  bool listening = false;  // somebody can connect
  Program program = Program::none;
  pid_t processId = 0;       // of a running one
  std::string problem = {};  // what is wrong, for people; empty when nothing is known to be
};

// Asks how jobs stand, without starting any. Any user may. On one thread.
class JobStates {
 public:
  virtual ~JobStates() = default;
  // Waits for the service manager a few seconds at most, in all calls together; from then on it is
  // not asked.
  virtual JobState of(const std::string& machService) = 0;
};

// Of this system: asks systemd where it runs, else reads what keeld writes down (job_records.h).
std::unique_ptr<JobStates> systemJobStates();

}  // namespace keel
