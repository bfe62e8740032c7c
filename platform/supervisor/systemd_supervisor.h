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

// Jobs as systemd units: a service, and a socket per Mach service. A transient job lasts until the
// next boot, any other until it is removed; both outlive keeld. A job is enabled when its units
// exist, are ours, and systemd reports them enabled.
class SystemdSupervisor final : public Supervisor {
 public:
  SystemdSupervisor(std::unique_ptr<SystemManager> manager, UnitStore store);

  std::shared_ptr<QZCommandAuthorization> QZSupervisorCreateCommandAuthorizationWithCredentials(
      const void* first, const void* second, const void* third) override;

  // Makes one call to systemd for an existing job, none for a missing one.
  bool QZSupervisorGetServiceEnabled(QZCommandAuthorization* authorization, const String& label,
                                     Error* error) override;

  // Writes the units. An existing job of that label gets the new ones, and is stopped if they
  // differ. Refuses a unit name that is taken by a unit not ours, and a Mach service that belongs
  // to another job.
  bool QZSupervisorCreateService(QZCommandAuthorization* authorization, const Value& job,
                                 Error* error) override;

  // Enabling starts the sockets and a run-at-load service before it enables the job, so that no job
  // is enabled that did not start. Disabling ends the job.
  bool QZSupervisorSetServiceEnabled(QZCommandAuthorization* authorization, const String& label,
                                     bool enabled, Error* error) override;

 private:
  using Done = SystemManager::Done;

  Done create(const Job& job);
  Done checkNames(const Job& job, const JobUnits& units);
  // Removes the units of the former job that the new one lacks.
  Done removeFormer(const UnitStore::Stored& former, UnitStore::Place place, const JobUnits& units);
  Done stopAll(const UnitStore::Stored& service, const std::string& serviceName);
  Done enable(const UnitStore::Stored& service);
  Done disable(const UnitStore::Stored& service, const std::string& serviceName);
  std::expected<UnitStore::Stored, Error> serviceOf(const String& label) const;

  const std::unique_ptr<SystemManager> manager_;
  UnitStore store_;
  LastRefusal lastRefusal_;
  std::vector<std::string> unitPath_;  // empty: not fetched yet
  // Set when units changed that systemd may have loaded. New ones it loads when it starts them.
  bool reloadNeeded_ = false;
};

}  // namespace keel
