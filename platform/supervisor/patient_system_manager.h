// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <functional>
#include <memory>

#include "platform/supervisor/system_manager.h"

namespace keel {

// Asks another manager as long as that one's answers have not taken too long in all; from then on
// each call fails at once (ETIMEDOUT). keeld lets nobody in before its modules are made, and a
// systemd that answers, but late, would hold it up once for each of them. On one thread.
class PatientSystemManager final : public SystemManager {
 public:
  using Clock = std::chrono::steady_clock;
  // A thousand modules that are new take a busy machine less than half of it. keeld.service gives
  // keeld a minute more.
  static constexpr std::chrono::seconds kPatience{120};

  explicit PatientSystemManager(std::unique_ptr<SystemManager> manager,
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
