// SPDX-License-Identifier: Apache-2.0
#include "runtime/transport/transport_context.h"

#include <malloc.h>

#include <chrono>
#include <utility>

#include "runtime/dispatch/serial_queue.h"
#include "runtime/dispatch/system.h"
#include "runtime/dispatch/worker_pool.h"

namespace keel::xpc {

TransportContext::TransportContext(Reactor& reactor) : reactor_(reactor) {}

TransportContext& TransportContext::ofIoThread() {
  // Never destroyed: connections use it while the process exits.
  static auto& context = *[] {
    auto* const made = new TransportContext(ioReactor());
    made->givesBack_ = true;
    return made;
  }();
  return context;
}

std::span<std::byte> TransportContext::readBuffer() {
  constexpr std::size_t kSizeBytes = kHeadroomBytes + Reactor::kMaximumReadBudgetBytes;
  if (!readBuffer_) readBuffer_ = std::make_unique_for_overwrite<std::byte[]>(kSizeBytes);
  return {readBuffer_.get(), kSizeBytes};
}

void TransportContext::noteReleased(std::size_t bytes) {
  // Less than that is used again soon, or is too little to matter.
  constexpr std::size_t kBurstBytes = 16u << 20;
  constexpr std::chrono::seconds kDelay{2};
  releasedBytes_ += bytes;
  if (!givesBack_ || releasedBytes_ < kBurstBytes || trimTimer_ != 0) return;
  trimTimer_ = reactor_.after(kDelay, [this] {
    trimTimer_ = 0;
    releasedBytes_ = 0;
    SerialQueue::create("KeelTrim", globalQueue())->async([] { ::malloc_trim(0); });
  });
}

TransportContext::MethodIndexes TransportContext::shared(std::vector<std::int64_t> methodIndexes) {
  if (!lastMethodIndexes_ || *lastMethodIndexes_ != methodIndexes) {
    lastMethodIndexes_ =
        std::make_shared<const std::vector<std::int64_t>>(std::move(methodIndexes));
  }
  return lastMethodIndexes_;
}

}  // namespace keel::xpc
