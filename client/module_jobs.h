// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <map>
#include <string>
#include <vector>

#include "platform/supervisor/job_state.h"

namespace keel {

// Returns the states of the jobs behind these Mach services, by service, queried from the service
// manager; involves neither keeld nor any job. Any user may call it. Blocks for a few seconds at
// most.
std::map<std::string, JobState> moduleJobs(const std::vector<std::string>& machServices);

}  // namespace keel
