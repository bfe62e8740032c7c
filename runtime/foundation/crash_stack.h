// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <signal.h>

#include <cstddef>

namespace keel {

// Gives the calling thread an alternate signal stack for as long as this lives, so that a crash is
// reported even if the thread's own stack is exhausted. Created and destroyed on that thread. If
// memory is short, the thread does without.
class CrashStack {
 public:
  // Enough for the unwinder and any processor's register state. Only touched pages take memory.
  static constexpr std::size_t kBytes = 64u << 10;

  CrashStack();
  ~CrashStack();
  CrashStack(const CrashStack&) = delete;
  CrashStack& operator=(const CrashStack&) = delete;

  // Returns true if the calling thread has one. For tests.
  static bool isInUse();

 private:
  void* memory_ = nullptr;  // with a guard page below the stack
  std::size_t mappedBytes_ = 0;
  stack_t before_{};
};

}  // namespace keel
