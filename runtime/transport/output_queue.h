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
#include "runtime/wire/message.h"

namespace keel::xpc {

// Recycles the large chunks of output queues: allocating and freeing one costs as much as filling
// it. On one thread.
class ChunkPool {
 public:
  using Chunk = std::shared_ptr<std::byte[]>;

  Chunk take(std::size_t capacityBytes);
  // Keeps a chunk without further references, if there is room.
  void giveBack(Chunk chunk, std::size_t capacityBytes);

 private:
  std::vector<Chunk> idle_;
};

// Frames that wait to be written to a socket. Small ones are copied into chunks; larger values, and
// fan-out messages, are shared by reference. One sendmsg(2) then takes as much as the socket has
// room for.
class OutputQueue {
 public:
  // `chunks` is borrowed.
  explicit OutputQueue(ChunkPool& chunks) : chunks_(chunks) {}
  OutputQueue(const OutputQueue&) = delete;
  OutputQueue& operator=(const OutputQueue&) = delete;

  void append(const OutgoingMessage& frame);
  // Has copied bytes wiped once they are sent, until the queue is empty.
  void setConfidential() { confidential_ = true; }

  bool empty() const { return appendedBytes_ == sentBytes_; }
  // Returns the backlog, the contents of sealed files included.
  std::size_t waitingBytes() const { return appendedBytes_ - sentBytes_ + waitingFileBytes_; }
  // Returns the part of it held in memory for this queue alone, and the memory of the queue itself.
  std::size_t ownBytes() const {
    return ownBytes_ + pieces_.size() * sizeof(Piece) + frameEnds_.size() * sizeof(std::uint64_t);
  }
  // Returns the bytes of sealed files sent since the last call.
  std::size_t takeSentFileBytes() { return std::exchange(sentFileBytes_, 0); }

  // Writes to the non-blocking socket until all is written or it takes no more, which is success.
  // Fails with the errno that ended the connection.
  std::expected<void, std::error_code> flush(int socket);
  // Returns true if the last flush() met a shortage of the system: too many descriptors in flight,
  // or no memory. The socket does not signal its end.
  bool isStuck() const { return stuck_; }

  // Drops the frames of which nothing was written; a frame that was begun can still be completed.
  void dropUnbegunFrames();

 private:
  // A range of bytes, in a chunk of our own or shared. `files` go with its first byte.
  struct Piece {
    std::shared_ptr<std::byte[]> chunk;
    std::size_t chunkCapacity = 0;
    BufferRef shared;
    std::size_t begin = 0;
    std::size_t end = 0;
    std::vector<BufferRef> files;
    const std::byte* data() const { return shared ? shared->bytes().data() : chunk.get(); }
    std::size_t size() const { return end - begin; }
    std::size_t fileBytes() const;
  };

  void appendBytes(std::span<const std::byte> bytes);
  ssize_t sendPieces(int socket) const;
  void consume(std::size_t sent);
  void clear();
  void wipe(const Piece& piece) const;

  ChunkPool& chunks_;
  std::deque<Piece> pieces_;
  // The chunk being filled, possibly by several pieces.
  std::shared_ptr<std::byte[]> chunk_;
  std::size_t chunkCapacity_ = 0;
  std::size_t chunkUsed_ = 0;
  bool confidential_ = false;
  bool stuck_ = false;
  std::uint64_t appendedBytes_ = 0;
  std::uint64_t sentBytes_ = 0;
  std::size_t ownBytes_ = 0;
  std::size_t waitingFileBytes_ = 0;
  std::size_t sentFileBytes_ = 0;
  std::uint64_t prunedEnd_ = 0;  // where the frame before the first of frameEnds_ ends
  // The end of each waiting frame, counted as appendedBytes_ is.
  std::vector<std::uint64_t> frameEnds_;
};

// Recycles output queues, which connections borrow while they have a backlog, with their memory, so
// that a busy daemon allocates none. On one thread.
class OutputQueuePool {
 public:
  std::unique_ptr<OutputQueue> take();
  // The queue must be empty.
  void giveBack(std::unique_ptr<OutputQueue> queue);

 private:
  ChunkPool chunks_;
  std::vector<std::unique_ptr<OutputQueue>> idle_;
};

}  // namespace keel::xpc
