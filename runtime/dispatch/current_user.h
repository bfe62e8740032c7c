// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <optional>

namespace keel {

// Returns the user whose request the calling thread serves; nullopt while it does the daemon's own
// work. For code far below a request that limits or charges by user, such as the log's.
std::optional<uid_t> currentUser();

// Sets currentUser() of the calling thread while it lives, then restores the previous one. A block
// that is queued for later does not inherit the user: its lambda captures it and begins with a
// WorkingFor of its own.
class [[nodiscard]] WorkingFor {
 public:
  explicit WorkingFor(std::optional<uid_t> user);
  ~WorkingFor();
  WorkingFor(const WorkingFor&) = delete;
  WorkingFor& operator=(const WorkingFor&) = delete;

 private:
  const std::optional<uid_t> outer_;
};

}  // namespace keel
