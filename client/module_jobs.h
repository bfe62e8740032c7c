// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <map>
#include <string>
#include <vector>

#include "platform/supervisor/job_state.h"

namespace keel {

// How the jobs behind these Mach services stand, by service, as the service manager tells it; keeld
// is not asked, and no job is started. Any user may ask. Waits for the service manager, a few
// seconds at most.
std::map<std::string, JobState> moduleJobs(const std::vector<std::string>& machServices);

}  // namespace keel
