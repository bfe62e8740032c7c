// SPDX-License-Identifier: Apache-2.0
#include <sys/mman.h>
#include <unistd.h>

#include "runtime/foundation/crash_stack.h"

namespace keel {

CrashStack::CrashStack() {
  const auto guardBytes = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
  mappedBytes_ = kBytes + guardBytes;
  void* const mapped = ::mmap(nullptr, mappedBytes_, PROT_READ | PROT_WRITE,
                              MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_STACK, -1, 0);
  if (mapped == MAP_FAILED) return;
  stack_t stack{};
  stack.ss_sp = static_cast<std::byte*>(mapped) + guardBytes;
  stack.ss_size = kBytes;
  if (::mprotect(mapped, guardBytes, PROT_NONE) != 0 || ::sigaltstack(&stack, &before_) != 0) {
    ::munmap(mapped, mappedBytes_);
    return;
  }
  memory_ = mapped;
}

bool CrashStack::isInUse() {
  stack_t stack{};
  return ::sigaltstack(nullptr, &stack) == 0 && (stack.ss_flags & SS_DISABLE) == 0 &&
         stack.ss_size == kBytes;
}

CrashStack::~CrashStack() {
  if (memory_ == nullptr) return;
  ::sigaltstack(&before_, nullptr);
  ::munmap(memory_, mappedBytes_);
}

}  // namespace keel
