// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <span>
#include <utility>

namespace keel {

// A growing byte buffer for building messages: a vector without its cost per single byte. Keeps its
// memory when it is cleared.
class ByteSink {
 public:
  ByteSink() = default;
  ByteSink(ByteSink&& other) noexcept
      : data_(std::move(other.data_)),
        size_(std::exchange(other.size_, 0)),
        capacity_(std::exchange(other.capacity_, 0)) {}
  ByteSink& operator=(ByteSink&& other) noexcept {
    data_ = std::move(other.data_);
    size_ = std::exchange(other.size_, 0);
    capacity_ = std::exchange(other.capacity_, 0);
    return *this;
  }
  ByteSink(const ByteSink&) = delete;
  ByteSink& operator=(const ByteSink&) = delete;
  ~ByteSink() = default;

  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  std::size_t capacity() const { return capacity_; }
  std::span<const std::byte> bytes() const { return {data_.get(), size_}; }
  std::span<std::byte> bytes() { return {data_.get(), size_}; }
  operator std::span<const std::byte>() const { return bytes(); }

  void push(std::byte byte) {
    if (size_ == capacity_) [[unlikely]]
      grow(1);
    data_[size_++] = byte;
  }
  // `run` must not point into this sink.
  void append(std::span<const std::byte> run) {
    if (run.size() > capacity_ - size_) [[unlikely]]
      grow(run.size());
    if (!run.empty()) std::memcpy(data_.get() + size_, run.data(), run.size());
    size_ += run.size();
  }
  // Appends one byte, then the lowest `width` bytes of `number` (1, 2, 4 or 8), big-endian.
  void appendBigEndian(std::byte first, std::uint64_t number, std::size_t width) {
    // Stores eight bytes whatever the width: a wide load of several narrow stores would be a
    // store-forwarding stall.
    const std::uint64_t highest = number << (64 - 8 * width);
    const std::uint64_t bytes =
        std::endian::native == std::endian::little ? std::byteswap(highest) : highest;
    if (capacity_ - size_ < 1 + sizeof bytes) [[unlikely]]
      grow(1 + sizeof bytes);
    data_[size_] = first;
    std::memcpy(data_.get() + size_ + 1, &bytes, sizeof bytes);
    size_ += 1 + width;
  }
  void clear() { size_ = 0; }

 private:
  void grow(std::size_t moreBytes);

  std::unique_ptr<std::byte[]> data_;
  std::size_t size_ = 0;
  std::size_t capacity_ = 0;
};

}  // namespace keel
