// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

namespace keel {

// While this lives, polkit asks the person at the terminal of this process for a password:
// pkttyagent(1) runs for it. Without a terminal, or without pkttyagent, an agent of the desktop's
// asks if there is one. It is no fall-back behind that one: polkit does not know of fall-backs for
// processes outside of login sessions.
class PolkitAgent {
 public:
  // Returns once the agent is ready.
  PolkitAgent();
  ~PolkitAgent();
  PolkitAgent(const PolkitAgent&) = delete;
  PolkitAgent& operator=(const PolkitAgent&) = delete;

 private:
  pid_t process_ = 0;  // 0: none runs
};

}  // namespace keel
