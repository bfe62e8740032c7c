// SPDX-License-Identifier: Apache-2.0
#include "runtime/foundation/check.h"

#include <cstdio>
#include <cstdlib>

namespace keel {

void checkFailed(const char* condition, const char* file, int line) noexcept {
  std::fprintf(stderr, "%s:%d: check failed: %s\n", file, line, condition);
  std::abort();
}

}  // namespace keel
