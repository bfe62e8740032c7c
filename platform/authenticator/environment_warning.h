// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <mutex>
#include <string>

namespace keel {

// Logs what is currently wrong with the environment (category "auth", error level) once, not once
// per failed attempt: clients can make any number of attempts. From any thread.
class EnvironmentWarning {
 public:
  // Logs `text` if it differs from the last one. Empty means no problem, and re-arms the warning.
  void update(std::string text);

 private:
  std::mutex mutex_;
  std::string last_;  // under mutex_
};

}  // namespace keel
