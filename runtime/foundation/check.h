// SPDX-License-Identifier: Apache-2.0
#pragma once

// KEEL_CHECK is for our own mistakes, after which the daemon cannot go on: prints the location to
// standard error and aborts.

namespace keel {

[[noreturn]] void checkFailed(const char* condition, const char* file, int line) noexcept;

}  // namespace keel

#define KEEL_CHECK(condition)                              \
  do {                                                     \
    if (!(condition)) [[unlikely]]                         \
      ::keel::checkFailed(#condition, __FILE__, __LINE__); \
  } while (false)
