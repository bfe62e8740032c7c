// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

namespace keel {

// Runs pkttyagent(1) while it lives, so that polkit prompts at the terminal of this process for a
// password. Without a terminal or pkttyagent, a desktop agent prompts if there is one. It is not
// registered as a fallback for that agent: polkit supports no fallbacks for processes outside login
// sessions.
class PolkitAgent {
 public:
  // Returns once the agent is ready.
  PolkitAgent();
  ~PolkitAgent();
  PolkitAgent(const PolkitAgent&) = delete;
  PolkitAgent& operator=(const PolkitAgent&) = delete;

 private:
  pid_t process_ = 0;  // 0: not running
};

}  // namespace keel
