// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <functional>
#include <memory>

#include "platform/supervisor/system_manager.h"

namespace keel {

// Forwards to another manager until its calls have used up a time budget; after that every call
// fails immediately with ETIMEDOUT. keeld accepts no client before its modules are set up, and a
// slow systemd would delay it once per module. On one thread.
class BudgetedSystemManager final : public SystemManager {
 public:
  using Clock = std::chrono::steady_clock;
  // A thousand new modules use less than half of it on a busy machine. keeld.service allows keeld
  // one minute more.
  static constexpr std::chrono::seconds kBudget{120};

  explicit BudgetedSystemManager(std::unique_ptr<SystemManager> manager,
                                 std::function<Clock::time_point()> now = &Clock::now);

  std::expected<std::vector<std::string>, Error> unitPath() override;
  std::expected<std::string, Error> unitFileState(const std::string& name) override;
  Done enable(const std::string& name, bool runtime) override;
  Done disable(const std::string& name, bool runtime) override;
  Done start(const std::string& name) override;
  Done stop(const std::string& name) override;
  Done reload() override;

 private:
  template <class Call>
  auto timed(Call call) -> decltype(call());

  const std::unique_ptr<SystemManager> manager_;
  const std::function<Clock::time_point()> now_;
  Clock::duration waited_{};
};

}  // namespace keel
