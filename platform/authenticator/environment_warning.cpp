// SPDX-License-Identifier: Apache-2.0
#include "platform/authenticator/environment_warning.h"

#include "runtime/logging/logger.h"

namespace keel {

void EnvironmentWarning::update(std::string text) {
  {
    const std::lock_guard lock(mutex_);
    if (text == last_) return;
    last_ = text;
  }
  if (!text.empty()) _loggerForCategory("auth").error("{}", text);
}

}  // namespace keel
