// SPDX-License-Identifier: Apache-2.0
#include "platform/supervisor/budgeted_system_manager.h"

#include <fmt/format.h>

#include <cerrno>
#include <utility>

#include "platform/supervisor/supervisor_error.h"

namespace keel {

BudgetedSystemManager::BudgetedSystemManager(std::unique_ptr<SystemManager> manager,
                                             std::function<Clock::time_point()> now)
    : manager_(std::move(manager)), now_(std::move(now)) {}

template <class Call>
auto BudgetedSystemManager::timed(Call call) -> decltype(call()) {
  if (waited_ >= kBudget) {
    return std::unexpected(
        supervisorError(ETIMEDOUT, fmt::format("systemd is no longer called: its replies took {} "
                                               "s in all; restart keeld when it is faster",
                                               kBudget.count())));
  }
  const auto began = now_();
  auto answer = call();
  waited_ += now_() - began;
  return answer;
}

std::expected<std::vector<std::string>, Error> BudgetedSystemManager::unitPath() {
  return timed([&] { return manager_->unitPath(); });
}

std::expected<std::string, Error> BudgetedSystemManager::unitFileState(const std::string& name) {
  return timed([&] { return manager_->unitFileState(name); });
}

SystemManager::Done BudgetedSystemManager::enable(const std::string& name, bool runtime) {
  return timed([&] { return manager_->enable(name, runtime); });
}

SystemManager::Done BudgetedSystemManager::disable(const std::string& name, bool runtime) {
  return timed([&] { return manager_->disable(name, runtime); });
}

SystemManager::Done BudgetedSystemManager::start(const std::string& name) {
  return timed([&] { return manager_->start(name); });
}

SystemManager::Done BudgetedSystemManager::stop(const std::string& name) {
  return timed([&] { return manager_->stop(name); });
}

SystemManager::Done BudgetedSystemManager::reload() {
  return timed([&] { return manager_->reload(); });
}

}  // namespace keel
