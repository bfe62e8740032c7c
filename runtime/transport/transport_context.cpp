// SPDX-License-Identifier: Apache-2.0
#include "runtime/transport/transport_context.h"

#include <utility>

#include "runtime/dispatch/system.h"

namespace keel::xpc {

TransportContext::TransportContext(Reactor& reactor) : reactor_(reactor) {}

TransportContext& TransportContext::ofIoThread() {
  // Never destroyed: connections use it while the process exits.
  static auto& context = *new TransportContext(ioReactor());
  return context;
}

std::span<std::byte> TransportContext::readBuffer() {
  constexpr std::size_t kSizeBytes = kHeadroomBytes + Reactor::kMaximumReadBudgetBytes;
  if (!readBuffer_) readBuffer_ = std::make_unique_for_overwrite<std::byte[]>(kSizeBytes);
  return {readBuffer_.get(), kSizeBytes};
}

TransportContext::MethodIndexes TransportContext::shared(std::vector<std::int64_t> methodIndexes) {
  if (!lastMethodIndexes_ || *lastMethodIndexes_ != methodIndexes) {
    lastMethodIndexes_ =
        std::make_shared<const std::vector<std::int64_t>>(std::move(methodIndexes));
  }
  return lastMethodIndexes_;
}

}  // namespace keel::xpc
