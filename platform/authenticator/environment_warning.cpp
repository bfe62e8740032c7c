// SPDX-License-Identifier: Apache-2.0
#include "platform/authenticator/environment_warning.h"

#include "runtime/dispatch/current_user.h"
#include "runtime/logging/logger.h"

namespace keel {

void EnvironmentWarning::update(std::string text) {
  {
    const std::lock_guard lock(mutex_);
    if (text == last_) return;
    last_ = text;
  }
  if (text.empty()) return;
  // About the machine, and written once: the limit of the user who was the first to meet it must
  // not leave it out.
  const WorkingFor nobody(std::nullopt);
  _loggerForCategory("auth").error("{}", text);
}

}  // namespace keel
