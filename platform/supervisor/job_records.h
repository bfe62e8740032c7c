// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "platform/supervisor/job_state.h"

namespace keel {

// Publishes the state of keeld's jobs where keeld itself is the service manager: one small file per
// Mach service, in the folder .jobs beside the sockets. Cleared by keeld's next start.
class JobRecords {
 public:
  // `serviceDirectory` holds the sockets.
  explicit JobRecords(const std::string& serviceDirectory)
      : directory_(serviceDirectory + "/.jobs") {}

  // Removes the records of an earlier keeld.
  void clear() const;
  // Replaces the record atomically. A failed write is ignored; nothing depends on the record.
  void write(const std::string& machService, const JobState& state) const;
  void remove(const std::string& machService) const;

  JobState read(const std::string& machService) const;

 private:
  const std::string directory_;
};

}  // namespace keel
