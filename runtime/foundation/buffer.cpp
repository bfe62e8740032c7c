// SPDX-License-Identifier: Apache-2.0
#include "runtime/foundation/buffer.h"

#include <sys/mman.h>

#include <cstring>
#include <new>

#include "runtime/foundation/check.h"
#include "runtime/foundation/keyed_hash.h"
#include "runtime/foundation/secret.h"

namespace keel {

namespace {

std::atomic<std::size_t> liveSealedFileCount{0};

}  // namespace

BufferRef Buffer::copyOf(std::span<const std::byte> bytes, MemoryAccount& account,
                         std::uint32_t surchargeBytes) {
  BufferRef buffer = allocate(bytes.size(), account, surchargeBytes);
  if (!bytes.empty())
    std::memcpy(const_cast<std::byte*>(buffer->data_), bytes.data(), bytes.size());
  return buffer;
}

BufferRef Buffer::allocate(std::size_t sizeBytes, MemoryAccount& account,
                           std::uint32_t surchargeBytes) {
  void* block = ::operator new(sizeof(Buffer) + sizeBytes);
  return BufferRef(new (block) Buffer(static_cast<std::byte*>(block) + sizeof(Buffer), sizeBytes,
                                      -1, account, surchargeBytes));
}

BufferRef Buffer::adoptMapping(const std::byte* mapping, std::size_t sizeBytes,
                               FileDescriptor sealedFile, MemoryAccount& account) {
  KEEL_CHECK(sealedFile);
  void* block = ::operator new(sizeof(Buffer));
  liveSealedFileCount.fetch_add(1, std::memory_order_relaxed);
  return BufferRef(new (block) Buffer(mapping, sizeBytes, sealedFile.release(), account, 0));
}

void Buffer::destroy() noexcept {
  account_.load(std::memory_order_relaxed)->refund(chargedBytes());
  if (sealedFile_ >= 0) {
    ::munmap(const_cast<std::byte*>(data_), size_);
    FileDescriptor closing(sealedFile_);
    liveSealedFileCount.fetch_sub(1, std::memory_order_relaxed);
  } else if (secret_) {
    wipe({const_cast<std::byte*>(data_), size_});
  }
  this->~Buffer();
  ::operator delete(this);
}

std::uint64_t Buffer::computeHash() const {
  // Threads that race here compute the same value.
  const std::uint64_t computed = sipHash13(bytes(), processHashKey());
  const std::uint64_t value = computed != 0 ? computed : 1;
  hash_.store(value, std::memory_order_relaxed);
  return value;
}

void Buffer::chargeTo(MemoryAccount& account) {
  account.charge(chargedBytes());
  account_.exchange(&account, std::memory_order_relaxed)->refund(chargedBytes());
}

std::size_t Buffer::sealedFileCount() {
  return liveSealedFileCount.load(std::memory_order_relaxed);
}

}  // namespace keel
