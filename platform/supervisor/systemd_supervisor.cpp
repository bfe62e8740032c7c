// SPDX-License-Identifier: Apache-2.0
#include "platform/supervisor/systemd_supervisor.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "platform/supervisor/command_authorization.h"
#include "platform/supervisor/supervisor_error.h"
#include "platform/supervisor/unit_text.h"

namespace keel {

namespace {

std::vector<std::string> unitNamesOf(const UnitStore::Stored& service,
                                     const std::string& serviceName) {
  std::vector<std::string> names = service.started;
  if (std::ranges::find(names, serviceName) == names.end()) names.push_back(serviceName);
  return names;
}

bool isEnabledState(const std::string& state) {
  return state == "enabled" || state == "enabled-runtime";
}

}  // namespace

SystemdSupervisor::SystemdSupervisor(std::unique_ptr<SystemManager> manager, UnitStore store)
    : manager_(std::move(manager)), store_(std::move(store)) {}

std::shared_ptr<QZCommandAuthorization>
SystemdSupervisor::QZSupervisorCreateCommandAuthorizationWithCredentials(const void*, const void*,
                                                                         const void*) {
  return makeCommandAuthorization();
}

bool SystemdSupervisor::QZSupervisorGetServiceEnabled(QZCommandAuthorization*, const String& label,
                                                      Error* error) {
  if (auto problem = errorOfLabel(label)) return refuse(error, std::move(*problem));
  const auto service = serviceOf(label);
  if (!service) return false;
  const auto state = manager_->unitFileState(service->enabled);
  if (!state) return refuse(error, state.error());
  return isEnabledState(*state);
}

bool SystemdSupervisor::QZSupervisorCreateService(QZCommandAuthorization*, const Value& dictionary,
                                                  Error* error) {
  const auto job = jobOf(dictionary);
  if (!job) return lastRefusal_.note(dictionary, error, job.error());
  if (auto made = create(*job); !made) return lastRefusal_.note(dictionary, error, made.error());
  logUnsupportedKeys(*job);
  return true;
}

bool SystemdSupervisor::QZSupervisorSetServiceEnabled(QZCommandAuthorization*, const String& label,
                                                      bool enabled, Error* error) {
  if (auto problem = errorOfLabel(label)) return refuse(error, std::move(*problem));
  const auto service = serviceOf(label);
  if (!service) return refuse(error, lastRefusal_.reasonFor(label, service.error()));
  const auto done = enabled ? enable(*service) : disable(*service, serviceUnitName(label.view()));
  return done ? true : refuse(error, done.error());
}

std::expected<UnitStore::Stored, Error> SystemdSupervisor::serviceOf(const String& label) const {
  const std::string name = serviceUnitName(label.view());
  std::optional<UnitStore::Stored> stored;
  switch (store_.standingOf(name, &stored)) {
    case UnitStore::Standing::ours:
      return std::move(*stored);
    case UnitStore::Standing::none:
      break;
    case UnitStore::Standing::foreign:
      return std::unexpected(supervisorError(EEXIST, fmt::format("{} is not keeld's", name)));
  }
  return std::unexpected(
      supervisorError(ENOENT, fmt::format("there is no job with the unit {}", name)));
}

SystemdSupervisor::Done SystemdSupervisor::create(const Job& job) {
  const JobUnits units = unitsOf(job);
  if (auto checked = checkNames(job, units); !checked) return checked;

  const auto place = job.transient ? UnitStore::Place::runtime : UnitStore::Place::persistent;
  if (const auto former = serviceOf(std::string_view(job.label))) {
    if (auto removed = removeFormer(*former, place, units); !removed) return removed;
  }
  for (const Unit& unit : units.units) {
    const auto written = store_.write(place, unit);
    if (!written) return std::unexpected(written.error());
  }
  return {};
}

SystemdSupervisor::Done SystemdSupervisor::checkNames(const Job& job, const JobUnits& units) {
  for (const std::string& name : job.machServices) {
    const std::string owner = store_.ownerOf(name);
    if (!owner.empty() && owner != unitNameOf(job.label)) {
      return std::unexpected(supervisorError(
          EEXIST, fmt::format("{} is a service of the job {} already", name, owner)));
    }
  }
  if (unitPath_.empty()) {
    auto path = manager_->unitPath();
    if (!path) return std::unexpected(path.error());
    unitPath_ = std::move(*path);
  }
  for (const Unit& unit : units.units) {
    if (store_.standingOf(unit.name) == UnitStore::Standing::ours) continue;
    for (const std::string& folder : unitPath_) {
      if (!UnitStore::exists(folder, unit.name)) continue;
      return std::unexpected(supervisorError(
          EEXIST, fmt::format("{}/{} is there already, and not keeld's; give the job another label",
                              folder, unit.name)));
    }
  }
  return {};
}

SystemdSupervisor::Done SystemdSupervisor::removeFormer(const UnitStore::Stored& former,
                                                        UnitStore::Place place,
                                                        const JobUnits& units) {
  const std::string& serviceName = units.units.front().name;
  const std::vector<std::string> names = unitNamesOf(former, serviceName);
  const bool moved = former.place != place;
  const auto isSame = [&](const Unit& unit) {
    std::optional<UnitStore::Stored> stored;
    return store_.standingOf(unit.name, &stored) == UnitStore::Standing::ours &&
           stored->text == unit.text;
  };
  if (!moved && names.size() <= units.units.size() && std::ranges::all_of(units.units, isSame))
    return {};

  reloadNeeded_ = true;
  if (auto stopped = stopAll(former, serviceName); !stopped) return stopped;
  if (auto disabled = manager_->disable(former.enabled, former.place == UnitStore::Place::runtime);
      !disabled)
    return disabled;
  for (const std::string& name : names) {
    if (!moved && std::ranges::find(units.units, name, &Unit::name) != units.units.end()) continue;
    if (auto removed = store_.remove(former.place, name); !removed) return removed;
  }
  return {};
}

SystemdSupervisor::Done SystemdSupervisor::stopAll(const UnitStore::Stored& service,
                                                   const std::string& serviceName) {
  // Stop the sockets first, or they restart it.
  for (const std::string& name : unitNamesOf(service, serviceName)) {
    if (auto stopped = manager_->stop(name); !stopped) return stopped;
  }
  return {};
}

SystemdSupervisor::Done SystemdSupervisor::enable(const UnitStore::Stored& service) {
  if (reloadNeeded_) {
    if (auto reloaded = manager_->reload(); !reloaded) return reloaded;
    reloadNeeded_ = false;
  }
  Done done;
  std::size_t startedCount = 0;
  for (; done && startedCount < service.started.size(); ++startedCount)
    done = manager_->start(service.started[startedCount]);
  if (done) done = manager_->enable(service.enabled, service.place == UnitStore::Place::runtime);
  if (done) return {};
  // A job that is not enabled must not run. Ignores failures: the original error matters.
  for (std::size_t place = 0; place < startedCount; ++place) {
    [[maybe_unused]] const Done stopped = manager_->stop(service.started[place]);
  }
  return done;
}

SystemdSupervisor::Done SystemdSupervisor::disable(const UnitStore::Stored& service,
                                                   const std::string& serviceName) {
  if (auto disabled =
          manager_->disable(service.enabled, service.place == UnitStore::Place::runtime);
      !disabled) {
    return disabled;
  }
  return stopAll(service, serviceName);
}

}  // namespace keel
