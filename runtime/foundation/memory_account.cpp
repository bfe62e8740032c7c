// SPDX-License-Identifier: Apache-2.0
#include "runtime/foundation/memory_account.h"

namespace keel {

MemoryAccount& MemoryAccount::ofProcess() {
  static MemoryAccount& account = *new MemoryAccount;
  return account;
}

}  // namespace keel
