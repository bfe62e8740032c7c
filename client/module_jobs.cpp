// SPDX-License-Identifier: Apache-2.0
#include "client/module_jobs.h"

namespace keel {

std::map<std::string, JobState> moduleJobs(const std::vector<std::string>& machServices) {
  std::map<std::string, JobState> jobs;
  const auto states = systemJobStates();
  for (const std::string& service : machServices) jobs.emplace(service, states->of(service));
  return jobs;
}

}  // namespace keel
