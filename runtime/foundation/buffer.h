// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <span>
#include <utility>

#include "runtime/foundation/file_descriptor.h"
#include "runtime/foundation/memory_account.h"

namespace keel {

class Buffer;

// A counted reference to a Buffer, or null. One pointer wide; copies may live on any thread.
class BufferRef {
 public:
  BufferRef() = default;
  BufferRef(const BufferRef& other) noexcept;
  BufferRef(BufferRef&& other) noexcept : buffer_(std::exchange(other.buffer_, nullptr)) {}
  BufferRef& operator=(BufferRef other) noexcept {
    std::swap(buffer_, other.buffer_);
    return *this;
  }
  ~BufferRef();

  Buffer* get() const { return buffer_; }
  Buffer* operator->() const { return buffer_; }
  explicit operator bool() const { return buffer_ != nullptr; }
  // The same buffer, not merely the same bytes.
  friend bool operator==(const BufferRef& left, const BufferRef& right) {
    return left.buffer_ == right.buffer_;
  }

 private:
  friend class Buffer;
  explicit BufferRef(Buffer* adopted) : buffer_(adopted) {}
  Buffer* buffer_ = nullptr;
};

// Immutable bytes, shared by count: the storage behind String, Data, Dictionary and Array. Either
// one heap block (header and bytes together) or the mapping of a sealed memory file, whose
// descriptor it then owns.
class Buffer {
 public:
  // `surchargeBytes` are charged beyond its own size, for what its holder builds around it.
  static BufferRef copyOf(std::span<const std::byte> bytes,
                          MemoryAccount& account = MemoryAccount::ofProcess(),
                          std::uint32_t surchargeBytes = 0);

  // A heap buffer of `sizeBytes`, filled by `fill(std::byte*)` before anybody else sees it.
  template <class Fill>
  static BufferRef make(std::size_t sizeBytes, Fill fill) {
    BufferRef buffer = allocate(sizeBytes, MemoryAccount::ofProcess(), 0);
    fill(const_cast<std::byte*>(buffer->data_));
    return buffer;
  }

  // Takes over a mapping of `sizeBytes` bytes and the sealed memory file it shows
  // (sealed_memory.h), which must be open.
  static BufferRef adoptMapping(const std::byte* mapping, std::size_t sizeBytes,
                                FileDescriptor sealedFile,
                                MemoryAccount& account = MemoryAccount::ofProcess());

  Buffer(const Buffer&) = delete;
  Buffer& operator=(const Buffer&) = delete;

  std::span<const std::byte> bytes() const { return {data_, size_}; }
  std::size_t size() const { return size_; }

  // The sealed memory file that holds exactly these bytes, or -1 for a heap buffer. Borrowed.
  int sealedFile() const { return sealedFile_; }

  // Whether others refer to it, too. Nobody but its holders can change that.
  bool isShared() const { return references_.load(std::memory_order_acquire) > 1; }

  // A keyed hash of the bytes, computed on first use and kept. Never 0.
  std::uint64_t hash() const {
    const std::uint64_t known = hash_.load(std::memory_order_relaxed);
    return known != 0 ? known : computeHash();
  }

  // The bytes of a heap buffer are wiped when it is destroyed. Before it is shared with other
  // threads.
  void makeSecret() { secret_ = true; }

  // Has another account pay from now on: whoever sent bytes that are no longer current does not
  // answer for those who still hold them. From one thread at a time.
  void chargeTo(MemoryAccount& account);

  // Bytes held by all living buffers that the process itself pays for, their headers included.
  static std::size_t liveBytes() { return MemoryAccount::ofProcess().bytes(); }
  // How many living buffers own a sealed memory file, and with it a descriptor.
  static std::size_t sealedFileCount();

 private:
  friend class BufferRef;
  Buffer(const std::byte* data, std::size_t size, int sealedFile, MemoryAccount& account,
         std::uint32_t surchargeBytes)
      : data_(data),
        size_(size),
        account_(&account),
        surchargeBytes_(surchargeBytes),
        sealedFile_(sealedFile) {
    account.charge(chargedBytes());
  }
  ~Buffer() = default;
  static BufferRef allocate(std::size_t sizeBytes, MemoryAccount& account,
                            std::uint32_t surchargeBytes);
  std::size_t chargedBytes() const { return sizeof(Buffer) + size_ + surchargeBytes_; }
  std::uint64_t computeHash() const;
  void retain() noexcept { references_.fetch_add(1, std::memory_order_relaxed); }
  void release() noexcept {
    if (references_.fetch_sub(1, std::memory_order_acq_rel) == 1) destroy();
  }
  void destroy() noexcept;

  const std::byte* data_;
  std::size_t size_;
  mutable std::atomic<std::uint64_t> hash_{0};
  std::atomic<MemoryAccount*> account_;
  std::atomic<std::uint32_t> references_{1};
  std::uint32_t surchargeBytes_;
  int sealedFile_;
  bool secret_ = false;
};

inline BufferRef::BufferRef(const BufferRef& other) noexcept : buffer_(other.buffer_) {
  if (buffer_ != nullptr) buffer_->retain();
}
inline BufferRef::~BufferRef() {
  if (buffer_ != nullptr) buffer_->release();
}

}  // namespace keel
