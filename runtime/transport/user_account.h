// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <memory>

#include "runtime/dispatch/fair_share.h"
#include "runtime/dispatch/serial_queue.h"
#include "runtime/foundation/memory_account.h"

namespace keel::xpc {

// Accounts for what one user makes this process hold and do, over all its connections: memory, with
// its limit, and time of the I/O thread. Kept for the life of the process.
struct UserAccount {
  MemoryQuota quota;
  Share share;
  // Checks large messages of the user, one at a time.
  std::shared_ptr<SerialQueue> checks;

  // Returns the account of that user, created by the first call. From any thread; the share belongs
  // to the I/O thread.
  static UserAccount& of(uid_t uid);
};

}  // namespace keel::xpc
