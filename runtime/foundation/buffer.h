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
  // Identity: the same buffer, not merely equal bytes.
  friend bool operator==(const BufferRef& left, const BufferRef& right) {
    return left.buffer_ == right.buffer_;
  }

 private:
  friend class Buffer;
  explicit BufferRef(Buffer* adopted) : buffer_(adopted) {}
  Buffer* buffer_ = nullptr;
};

// Immutable, reference-counted bytes: the storage behind String, Data, Dictionary and Array. Either
// one heap block (header and bytes together) or the mapping of a sealed memory file, whose
// descriptor it then owns.
class Buffer {
 public:
  // Copies `bytes`. `surchargeBytes` are charged on top of its own size, for what its holder
  // allocates around it.
  static BufferRef copyOf(std::span<const std::byte> bytes,
                          MemoryAccount& account = MemoryAccount::ofProcess(),
                          std::uint32_t surchargeBytes = 0);

  // Allocates a heap buffer that `fill(std::byte*)` initialises before anybody else sees it.
  template <class Fill>
  static BufferRef make(std::size_t sizeBytes, Fill fill) {
    BufferRef buffer = allocate(sizeBytes, MemoryAccount::ofProcess(), 0);
    fill(const_cast<std::byte*>(buffer->data_));
    return buffer;
  }

  // Takes ownership of a mapping of `sizeBytes` bytes and of the sealed memory file behind it
  // (sealed_memory.h), which must be open.
  static BufferRef adoptMapping(const std::byte* mapping, std::size_t sizeBytes,
                                FileDescriptor sealedFile,
                                MemoryAccount& account = MemoryAccount::ofProcess());

  Buffer(const Buffer&) = delete;
  Buffer& operator=(const Buffer&) = delete;

  std::span<const std::byte> bytes() const { return {data_, size_}; }
  std::size_t size() const { return size_; }

  // Returns the sealed memory file that holds exactly these bytes, or -1 for a heap buffer.
  // Borrowed.
  int sealedFile() const { return sealedFile_; }

  // Returns true if there are further references. Only their holders can change that.
  bool isShared() const { return references_.load(std::memory_order_acquire) > 1; }

  // Returns a keyed hash of the bytes, computed on first use and cached. Never 0.
  std::uint64_t hash() const {
    const std::uint64_t known = hash_.load(std::memory_order_relaxed);
    return known != 0 ? known : computeHash();
  }

  // Has the bytes of a heap buffer wiped on destruction. Call it before the buffer is shared with
  // other threads.
  void makeSecret() { secret_ = true; }

  // Charges another account from now on: a sender does not pay for superseded bytes that slow
  // readers still hold. From one thread at a time.
  void chargeTo(MemoryAccount& account);

  // Returns the bytes of all live buffers charged to the process itself, headers included.
  static std::size_t liveBytes() { return MemoryAccount::ofProcess().bytes(); }
  // Returns how many live buffers own a sealed memory file, and with it a descriptor.
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
