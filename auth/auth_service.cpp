// SPDX-License-Identifier: Apache-2.0
#include "auth/auth_service.h"

#include <algorithm>
#include <utility>

namespace keel {

const std::shared_ptr<KLNAuthService>& KLNAuthService::defaultService() {
  if (const auto& overriding = overridingService()) [[unlikely]]
    return overriding;
  // Never destroyed: other threads use it until the process exits.
  static const auto& service =
      *new std::shared_ptr<KLNAuthService>(std::make_shared<KLNAuthService>());
  return service;
}

void KLNAuthService::addUser(String user, std::int32_t andASID) {
  if (user.isNull()) return;
  continueWithBlock([self = shared_from_this(), user = std::move(user), andASID] {
    self->authTable()[std::to_string(andASID)].push_back(user);
  });
}

void KLNAuthService::removeASID(std::int32_t asid) {
  continueWithBlock(
      [self = shared_from_this(), asid] { self->authTable().erase(std::to_string(asid)); });
}

void KLNAuthService::isAuthedUser(String user, std::int32_t andASID,
                                  std::move_only_function<void(bool, Error)> withHandler) {
  continueWithBlock([self = shared_from_this(), user = std::move(user), andASID,
                     handler = std::move(withHandler)]() mutable {
    const auto& table = self->authTable();
    const auto found = table.find(std::to_string(andASID));
    handler(found != table.end() && std::ranges::find(found->second, user) != found->second.end(),
            nullptr);
  });
}

void KLNAuthService::isAuthedASID(std::int32_t asid,
                                  std::move_only_function<void(bool)> withHandler) {
  continueWithBlock([self = shared_from_this(), asid, handler = std::move(withHandler)]() mutable {
    handler(self->authTable().contains(std::to_string(asid)));
  });
}

std::shared_ptr<KLNAuthService>& KLNAuthService::overridingService() {
  static auto& service = *new std::shared_ptr<KLNAuthService>();
  return service;
}

KLNAuthService::Override::Override(std::shared_ptr<KLNAuthService> service)
    : outer_(std::exchange(overridingService(), std::move(service))) {}

KLNAuthService::Override::~Override() {
  overridingService() = std::move(outer_);
}

}  // namespace keel
