// SPDX-License-Identifier: Apache-2.0
#include "platform/foundation/buffer.h"

#include <sys/mman.h>

#include <cstring>
#include <new>

#include "platform/foundation/check.h"
#include "platform/foundation/keyed_hash.h"

namespace keel {

namespace {

// A cache line of its own: every thread that makes or drops a buffer writes it.
alignas(64) std::atomic<std::size_t> liveByteCount{0};
std::atomic<std::size_t> liveSealedFileCount{0};

}  // namespace

BufferRef Buffer::copyOf(std::span<const std::byte> bytes) {
  BufferRef buffer = allocate(bytes.size());
  if (!bytes.empty()) std::memcpy(const_cast<std::byte*>(buffer->data_), bytes.data(), bytes.size());
  return buffer;
}

BufferRef Buffer::allocate(std::size_t sizeBytes) {
  void* block = ::operator new(sizeof(Buffer) + sizeBytes);
  liveByteCount.fetch_add(sizeof(Buffer) + sizeBytes, std::memory_order_relaxed);
  return BufferRef(new (block) Buffer(static_cast<std::byte*>(block) + sizeof(Buffer), sizeBytes, -1));
}

BufferRef Buffer::adoptMapping(const std::byte* mapping, std::size_t sizeBytes, FileDescriptor sealedFile) {
  KEEL_CHECK(sealedFile);
  void* block = ::operator new(sizeof(Buffer));
  liveByteCount.fetch_add(sizeof(Buffer) + sizeBytes, std::memory_order_relaxed);
  liveSealedFileCount.fetch_add(1, std::memory_order_relaxed);
  return BufferRef(new (block) Buffer(mapping, sizeBytes, sealedFile.release()));
}

void Buffer::destroy() noexcept {
  liveByteCount.fetch_sub(sizeof(Buffer) + size_, std::memory_order_relaxed);
  if (sealedFile_ >= 0) {
    ::munmap(const_cast<std::byte*>(data_), size_);
    FileDescriptor closing(sealedFile_);
    liveSealedFileCount.fetch_sub(1, std::memory_order_relaxed);
  }
  this->~Buffer();
  ::operator delete(this);
}

std::uint64_t Buffer::computeHash() const {
  // Threads that come here at the same time compute the same value.
  const std::uint64_t computed = sipHash13(bytes(), processHashKey());
  const std::uint64_t value = computed != 0 ? computed : 1;
  hash_.store(value, std::memory_order_relaxed);
  return value;
}

std::size_t Buffer::liveBytes() {
  return liveByteCount.load(std::memory_order_relaxed);
}

std::size_t Buffer::sealedFileCount() {
  return liveSealedFileCount.load(std::memory_order_relaxed);
}

}  // namespace keel
