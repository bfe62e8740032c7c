// SPDX-License-Identifier: Apache-2.0
#include "runtime/dispatch/current_user.h"

#include <utility>

namespace keel {

namespace {

thread_local std::optional<uid_t> user;

}  // namespace

std::optional<uid_t> currentUser() {
  return user;
}

WorkingFor::WorkingFor(std::optional<uid_t> newUser) : outer_(std::exchange(user, newUser)) {}

WorkingFor::~WorkingFor() {
  user = outer_;
}

}  // namespace keel
