// SPDX-License-Identifier: Apache-2.0
#include "platform/supervisor/patient_system_manager.h"

#include <fmt/format.h>

#include <cerrno>
#include <utility>

#include "platform/supervisor/supervisor_error.h"

namespace keel {

PatientSystemManager::PatientSystemManager(std::unique_ptr<SystemManager> manager,
                                           std::function<Clock::time_point()> now)
    : manager_(std::move(manager)), now_(std::move(now)) {}

template <class Call>
auto PatientSystemManager::timed(Call call) -> decltype(call()) {
  if (waited_ >= kPatience) {
    return std::unexpected(
        supervisorError(ETIMEDOUT, fmt::format("systemd is not asked any more: its answers took {} "
                                               "s in all; restart keeld when it is faster",
                                               kPatience.count())));
  }
  const auto began = now_();
  auto answer = call();
  waited_ += now_() - began;
  return answer;
}

std::expected<std::vector<std::string>, Error> PatientSystemManager::unitPath() {
  return timed([&] { return manager_->unitPath(); });
}

std::expected<std::string, Error> PatientSystemManager::unitFileState(const std::string& name) {
  return timed([&] { return manager_->unitFileState(name); });
}

SystemManager::Done PatientSystemManager::enable(const std::string& name, bool runtime) {
  return timed([&] { return manager_->enable(name, runtime); });
}

SystemManager::Done PatientSystemManager::disable(const std::string& name, bool runtime) {
  return timed([&] { return manager_->disable(name, runtime); });
}

SystemManager::Done PatientSystemManager::start(const std::string& name) {
  return timed([&] { return manager_->start(name); });
}

SystemManager::Done PatientSystemManager::stop(const std::string& name) {
  return timed([&] { return manager_->stop(name); });
}

SystemManager::Done PatientSystemManager::reload() {
  return timed([&] { return manager_->reload(); });
}

}  // namespace keel
