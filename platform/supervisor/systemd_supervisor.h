// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/supervisor/command_authorization.h"
#include "platform/supervisor/job.h"
#include "platform/supervisor/job_units.h"
#include "platform/supervisor/supervisor.h"
#include "platform/supervisor/system_manager.h"
#include "platform/supervisor/unit_store.h"

namespace keel {

// Jobs as units of systemd: a service, and a socket for each Mach service. A transient job lasts
// until the next boot, any other until somebody removes it; neither ends with keeld. A job is
// enabled when its units are there, are ours, and systemd calls them enabled.
class SystemdSupervisor final : public Supervisor {
 public:
  SystemdSupervisor(std::unique_ptr<SystemManager> manager, UnitStore store);

  std::shared_ptr<QZCommandAuthorization> QZSupervisorCreateCommandAuthorizationWithCredentials(
      const void* first, const void* second, const void* third) override;

  // One question to systemd for a job that is there, none for one that is not.
  bool QZSupervisorGetServiceEnabled(QZCommandAuthorization* authorization, const String& label,
                                     Error* error) override;

  // Writes the units. A job of that label that is there already gets its new ones; when these
  // differ, it is stopped. A unit of such a name that is not ours, and a Mach service that another
  // job has, are refused.
  bool QZSupervisorCreateService(QZCommandAuthorization* authorization, const Value& job,
                                 Error* error) override;

  // Starts the sockets, and what is to run from the beginning, and then enables the job, so that no
  // job is enabled which was not started. Disabling it ends it.
  bool QZSupervisorSetServiceEnabled(QZCommandAuthorization* authorization, const String& label,
                                     bool enabled, Error* error) override;

 private:
  using Done = SystemManager::Done;

  Done create(const Job& job);
  Done checkNames(const Job& job, const JobUnits& units);
  // What a job of that label had and no longer has.
  Done removeFormer(const UnitStore::Stored& former, UnitStore::Place place, const JobUnits& units);
  Done stopAll(const UnitStore::Stored& service, const std::string& serviceName);
  Done enable(const UnitStore::Stored& service);
  Done disable(const UnitStore::Stored& service, const std::string& serviceName);
  std::expected<UnitStore::Stored, Error> serviceOf(const String& label) const;

  const std::unique_ptr<SystemManager> manager_;
  UnitStore store_;
  LastRefusal lastRefusal_;
  std::vector<std::string> unitPath_;  // empty: not asked for yet
  // Units were changed that systemd may have read already. Those that are new it reads when it
  // starts them.
  bool reloadNeeded_ = false;
};

}  // namespace keel
