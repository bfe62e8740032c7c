// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <expected>
#include <memory>
#include <system_error>
#include <vector>

#include "platform/foundation/buffer.h"
#include "platform/xpc/wire.h"

namespace keel::xpc {

// Frames that wait to be written to a socket. Small ones are copied behind one another, larger values stay where they are and
// are shared; one sendmsg(2) then takes as much as the socket has room for.
class OutputQueue {
 public:
  OutputQueue() = default;
  OutputQueue(const OutputQueue&) = delete;
  OutputQueue& operator=(const OutputQueue&) = delete;

  void append(const OutgoingMessage& frame);

  bool empty() const { return appendedBytes_ == sentBytes_; }
  std::size_t waitingBytes() const { return appendedBytes_ - sentBytes_; }

  // Writes to the non-blocking socket until all is written or it takes no more (which is success). Fails with the errno that
  // ended the connection.
  std::expected<void, std::error_code> flush(int socket);

  // Drops the frames of which nothing was written; what was begun can be completed.
  void dropUnbegunFrames();

 private:
  // A run of bytes: in a chunk of our own, or shared. `file` goes with the first byte.
  struct Piece {
    std::unique_ptr<std::byte[]> chunk;
    std::size_t capacity = 0;
    BufferRef shared;
    std::size_t begin = 0;
    std::size_t end = 0;
    std::vector<BufferRef> files;
    const std::byte* data() const { return shared ? shared->bytes().data() : chunk.get(); }
  };

  void appendBytes(std::span<const std::byte> bytes);
  void consume(std::size_t sent);
  void clear();

  std::vector<Piece> pieces_;
  std::size_t first_ = 0;  // pieces before it are written
  std::uint64_t appendedBytes_ = 0;
  std::uint64_t sentBytes_ = 0;
  std::uint64_t prunedEnd_ = 0;           // where the frame before the first of frameEnds_ ends
  std::vector<std::uint64_t> frameEnds_;  // where each waiting frame ends, counted as appendedBytes_ is
};

// Output queues are needed only while something waits; then a connection borrows one. Kept ready per thread, with their memory,
// so that a busy daemon allocates none.
class BorrowedOutputQueue {
 public:
  BorrowedOutputQueue() = default;
  BorrowedOutputQueue(BorrowedOutputQueue&&) = default;
  BorrowedOutputQueue& operator=(BorrowedOutputQueue&&) = default;

  explicit operator bool() const { return queue_ != nullptr; }
  OutputQueue* operator->() const { return queue_.get(); }
  // Has one from now on.
  void borrow();
  // Gives it back; it must be empty.
  void giveBack();

 private:
  std::unique_ptr<OutputQueue> queue_;
};

}  // namespace keel::xpc
