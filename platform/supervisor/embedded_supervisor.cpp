// SPDX-License-Identifier: Apache-2.0
#include "platform/supervisor/embedded_supervisor.h"

#include <fmt/format.h>

#include <cerrno>
#include <utility>

#include "platform/supervisor/command_authorization.h"
#include "platform/supervisor/jobs_lock.h"
#include "platform/supervisor/supervisor_error.h"

namespace keel {

EmbeddedSupervisor::EmbeddedSupervisor(EmbeddedJob::World world)
    : world_(std::move(world)), lock_(lockJobs(world_.serviceDirectory)) {
  if (lock_) world_.records->clear();
}

EmbeddedSupervisor::~EmbeddedSupervisor() {
  for (auto& [label, entry] : entriesByLabel_) {
    if (entry.enabled) entry.enabled->end();
  }
}

std::shared_ptr<QZCommandAuthorization>
EmbeddedSupervisor::QZSupervisorCreateCommandAuthorizationWithCredentials(const void*, const void*,
                                                                          const void*) {
  return makeCommandAuthorization();
}

bool EmbeddedSupervisor::QZSupervisorGetServiceEnabled(QZCommandAuthorization*, const String& label,
                                                       Error* error) {
  if (auto problem = errorOfLabel(label)) return refuse(error, std::move(*problem));
  if (!lock_) return refuse(error, lock_.error());
  const auto found = entriesByLabel_.find(label.view());
  return found != entriesByLabel_.end() && found->second.enabled != nullptr;
}

bool EmbeddedSupervisor::QZSupervisorCreateService(QZCommandAuthorization*, const Value& dictionary,
                                                   Error* error) {
  if (!lock_) return refuse(error, lock_.error());
  auto job = jobOf(dictionary);
  if (!job) return lastRefusal_.note(dictionary, error, job.error());
  for (const std::string& name : job->machServices) {
    const auto owner = labelsByMachService_.find(name);
    if (owner != labelsByMachService_.end() && owner->second != job->label) {
      return lastRefusal_.note(
          dictionary, error,
          supervisorError(
              EEXIST, fmt::format("{} is a service of the job {} already", name, owner->second)));
    }
  }
  logUnsupportedKeys(*job);
  Entry& entry = entriesByLabel_[job->label];
  if (entry.enabled) std::exchange(entry.enabled, nullptr)->end();
  std::erase_if(labelsByMachService_, [&](const auto& each) { return each.second == job->label; });
  for (const std::string& name : job->machServices) labelsByMachService_[name] = job->label;
  entry.job = std::move(*job);
  return true;
}

bool EmbeddedSupervisor::QZSupervisorSetServiceEnabled(QZCommandAuthorization*, const String& label,
                                                       bool enabled, Error* error) {
  if (auto problem = errorOfLabel(label)) return refuse(error, std::move(*problem));
  if (!lock_) return refuse(error, lock_.error());
  const auto found = entriesByLabel_.find(label.view());
  if (found == entriesByLabel_.end()) {
    const Error missing = supervisorError(ENOENT, fmt::format("there is no job {}", label.view()));
    return refuse(error, lastRefusal_.reasonFor(label, missing));
  }
  Entry& entry = found->second;
  if (!enabled) {
    if (entry.enabled) std::exchange(entry.enabled, nullptr)->end();
    return true;
  }
  if (entry.enabled) return true;
  auto made = EmbeddedJob::create(entry.job, world_);
  if (!made) return refuse(error, made.error());
  entry.enabled = std::move(*made);
  entry.enabled->begin();
  return true;
}

}  // namespace keel
