// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "platform/supervisor/job_state.h"

namespace keel {

// Where keeld itself is the service manager, it writes down for everybody how its jobs stand: one
// small file for each Mach service, in the folder .jobs beside the sockets. Gone with keeld's next
// start.
class JobRecords {
 public:
  // `serviceDirectory` is the folder of the sockets.
  explicit JobRecords(const std::string& serviceDirectory)
      : directory_(serviceDirectory + "/.jobs") {}

  // Removes what an earlier keeld left.
  void clear() const;
  // A reader finds the former state or this one, whole. What cannot be written is missing; nothing
  // depends on it.
  void write(const std::string& machService, const JobState& state) const;
  void remove(const std::string& machService) const;

  JobState read(const std::string& machService) const;

 private:
  const std::string directory_;
};

}  // namespace keel
