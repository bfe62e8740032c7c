// SPDX-License-Identifier: Apache-2.0
#include "modules/module_manager.h"

#include <utility>

namespace keel {

const std::shared_ptr<KLNModuleManager>& KLNModuleManager::defaultManager() {
  if (const auto& overriding = overridingManager()) [[unlikely]]
    return overriding;
  // Never destroyed: other threads use it while the process ends.
  static const auto& manager = *new std::shared_ptr<KLNModuleManager>(std::make_shared<KLNModuleManager>());
  return manager;
}

std::shared_ptr<KLNModuleManager>& KLNModuleManager::overridingManager() {
  static auto& manager = *new std::shared_ptr<KLNModuleManager>();
  return manager;
}

KLNModuleManager::Override::Override(std::shared_ptr<KLNModuleManager> manager)
    : outer_(std::exchange(overridingManager(), std::move(manager))) {}

KLNModuleManager::Override::~Override() {
  overridingManager() = std::move(outer_);
}

}  // namespace keel
