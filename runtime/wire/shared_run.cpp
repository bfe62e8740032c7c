// SPDX-License-Identifier: Apache-2.0
#include "runtime/wire/shared_run.h"

#include <cstring>

namespace keel::xpc {

namespace {

constexpr std::size_t kChunkBytes = 64u << 10;
static_assert(kLongestRunBytes <= kChunkBytes);

// The chunk that is being filled.
struct Filling {
  std::shared_ptr<std::byte[]> chunk;
  std::size_t usedBytes = 0;
};

}  // namespace

SharedRun shareRun(std::span<const std::byte> bytes) {
  thread_local Filling filling;
  if (bytes.size() > kLongestRunBytes) return {};
  // All that was in it is sent and forgotten.
  if (filling.chunk.use_count() == 1) filling.usedBytes = 0;
  if (!filling.chunk || kChunkBytes - filling.usedBytes < bytes.size()) {
    filling = {std::make_shared_for_overwrite<std::byte[]>(kChunkBytes), 0};
  }
  SharedRun run{filling.chunk, filling.usedBytes};
  std::memcpy(run.chunk.get() + run.begin, bytes.data(), bytes.size());
  filling.usedBytes += bytes.size();
  return run;
}

}  // namespace keel::xpc
