// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <signal.h>

#include <cstddef>

namespace keel {

// An alternate signal stack of the calling thread, for as long as this lives: a crash is reported
// even when the thread's own stack is exhausted. Made and destroyed on that thread. Without memory
// for one, the thread's own stack has to do.
class CrashStack {
 public:
  // Enough for the unwinder, and for the registers of any processor. Only what is used takes
  // memory.
  static constexpr std::size_t kBytes = 64u << 10;

  CrashStack();
  ~CrashStack();
  CrashStack(const CrashStack&) = delete;
  CrashStack& operator=(const CrashStack&) = delete;

  // Returns true on a thread that has one. For tests.
  static bool isInUse();

 private:
  void* memory_ = nullptr;  // with a guard page below the stack
  std::size_t mappedBytes_ = 0;
  stack_t before_{};
};

}  // namespace keel
