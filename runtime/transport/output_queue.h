// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <expected>
#include <memory>
#include <system_error>
#include <utility>
#include <vector>

#include "runtime/foundation/buffer.h"
#include "runtime/wire/wire.h"

namespace keel::xpc {

// Frames that wait to be written to a socket. Small ones are copied behind one another; larger values, and frames that go to
// several connections, stay where they are and are shared. One sendmsg(2) then takes as much as the socket has room for.
class OutputQueue {
 public:
  OutputQueue() = default;
  OutputQueue(const OutputQueue&) = delete;
  OutputQueue& operator=(const OutputQueue&) = delete;

  void append(const OutgoingMessage& frame);
  // Wipes what it copied once that is sent; until the queue is empty.
  void setConfidential() { confidential_ = true; }

  bool empty() const { return appendedBytes_ == sentBytes_; }
  // What waits to be written, the contents of sealed files included.
  std::size_t waitingBytes() const { return appendedBytes_ - sentBytes_ + waitingFileBytes_; }
  // What of it is held in memory for this queue alone.
  std::size_t ownBytes() const { return ownBytes_; }
  // Contents of sealed files that were sent since the last call.
  std::size_t takeSentFileBytes() { return std::exchange(sentFileBytes_, 0); }

  // Writes to the non-blocking socket until all is written or it takes no more (which is success). Fails with the errno that
  // ended the connection.
  std::expected<void, std::error_code> flush(int socket);
  // Whether the last flush() met a shortage of the system's: too many descriptors that nobody has received yet, or no memory.
  // The socket does not tell when that is over.
  bool isStuck() const { return stuck_; }

  // Copies the shared frames that the socket did not take, and those that come until it has taken all: whoever reads slowly
  // must not hold on to what others have long been sent, much of which may not even be his.
  void unshare();

  // Drops the frames of which nothing was written, or of a series of frames the whole; what was begun can be completed.
  void dropUnbegunFrames();

 private:
  // A run of bytes: in a chunk of our own, or shared. `files` go with the first byte.
  struct Piece {
    std::shared_ptr<std::byte[]> chunk;
    std::size_t chunkCapacity = 0;
    BufferRef shared;
    std::size_t begin = 0;
    std::size_t end = 0;
    std::vector<BufferRef> files;
    bool isRun = false;  // `chunk` is that of a SharedRun
    const std::byte* data() const { return shared ? shared->bytes().data() : chunk.get(); }
    std::size_t size() const { return end - begin; }
    std::size_t fileBytes() const;
  };

  bool appendRun(const SharedRun& run, std::size_t sizeBytes);
  void appendBytes(std::span<const std::byte> bytes);
  ssize_t sendPieces(int socket) const;
  void consume(std::size_t sent);
  void clear();
  void wipe(const Piece& piece) const;

  std::deque<Piece> pieces_;
  // The chunk that is being filled, perhaps by several pieces.
  std::shared_ptr<std::byte[]> chunk_;
  std::size_t chunkCapacity_ = 0;
  std::size_t chunkUsed_ = 0;
  bool confidential_ = false;
  bool stuck_ = false;
  bool copies_ = false;  // shared frames, too, until the queue is empty
  std::uint64_t appendedBytes_ = 0;
  std::uint64_t sentBytes_ = 0;
  std::size_t ownBytes_ = 0;
  std::size_t waitingFileBytes_ = 0;
  std::size_t sentFileBytes_ = 0;
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
