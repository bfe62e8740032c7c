// SPDX-License-Identifier: Apache-2.0
#include "runtime/transport/output_queue.h"

#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "runtime/foundation/check.h"
#include "runtime/foundation/secret.h"
#include "runtime/wire/limits.h"

namespace keel::xpc {

namespace {

// The first chunk of a queue is small, since most connections send one frame at a time; later ones
// are large.
constexpr std::size_t kFirstChunkBytes = 2u << 10;
constexpr std::size_t kChunkBytes = 32u << 10;

// Number of frame ends for which an empty queue keeps memory.
constexpr std::size_t kKeptFrameEnds = 16384;

constexpr std::size_t kIdleQueues = 1024;

constexpr std::size_t kPiecesPerWrite = 64;

// A small shared message is a piece of its own, which costs more memory than a copy once many wait.
constexpr std::size_t kPiecesWithSmallShares = 4;

constexpr std::size_t kIdleChunks = 32;

}  // namespace

ChunkPool::Chunk ChunkPool::take(std::size_t capacityBytes) {
  if (capacityBytes != kChunkBytes || idle_.empty())
    return std::make_shared_for_overwrite<std::byte[]>(capacityBytes);
  Chunk chunk = std::move(idle_.back());
  idle_.pop_back();
  return chunk;
}

void ChunkPool::giveBack(Chunk chunk, std::size_t capacityBytes) {
  if (capacityBytes == kChunkBytes && chunk.use_count() == 1 && idle_.size() < kIdleChunks)
    idle_.push_back(std::move(chunk));
}

std::size_t OutputQueue::Piece::fileBytes() const {
  std::size_t bytes = 0;
  for (const BufferRef& file : files) bytes += file->size();
  return bytes;
}

void OutputQueue::append(const OutgoingMessage& frame) {
  if (!frame.files().empty()) {
    // The files travel with the frame's first byte, so a piece begins here.
    Piece& piece = pieces_.emplace_back();
    piece.files = frame.files();
    waitingFileBytes_ += piece.fileBytes();
  }
  std::span<const std::byte> own = frame.bytes();
  std::size_t taken = 0;
  for (const OutgoingMessage::Splice& splice : frame.splices()) {
    appendBytes(own.subspan(taken, splice.offset - taken));
    taken = splice.offset;
    if (splice.buffer->size() < limits::kSharedMessageBytes &&
        pieces_.size() >= kPiecesWithSmallShares) {
      appendBytes(splice.buffer->bytes());
      continue;
    }
    Piece& piece = pieces_.emplace_back();
    piece.shared = splice.buffer;
    piece.end = splice.buffer->size();
    appendedBytes_ += piece.end;
  }
  appendBytes(own.subspan(taken));
  frameEnds_.push_back(appendedBytes_);
}

void OutputQueue::appendBytes(std::span<const std::byte> bytes) {
  while (!bytes.empty()) {
    if (chunkUsed_ == chunkCapacity_) {
      chunkCapacity_ =
          chunk_ == nullptr && bytes.size() <= kFirstChunkBytes ? kFirstChunkBytes : kChunkBytes;
      chunk_ = chunks_.take(chunkCapacity_);
      chunkUsed_ = 0;
      ownBytes_ += chunkCapacity_;
    }
    // The last piece is extended if it ends where the chunk does; a piece still without bytes
    // begins here.
    const bool extends = !pieces_.empty() && !pieces_.back().shared &&
                         (pieces_.back().chunk == nullptr ||
                          (pieces_.back().chunk == chunk_ && pieces_.back().end == chunkUsed_));
    Piece& piece = extends ? pieces_.back() : pieces_.emplace_back();
    if (piece.chunk == nullptr) {
      piece.chunk = chunk_;
      piece.chunkCapacity = chunkCapacity_;
      piece.begin = piece.end = chunkUsed_;
    }
    const std::size_t copied = std::min(bytes.size(), chunkCapacity_ - chunkUsed_);
    std::memcpy(chunk_.get() + chunkUsed_, bytes.data(), copied);
    chunkUsed_ += copied;
    piece.end += copied;
    appendedBytes_ += copied;
    bytes = bytes.subspan(copied);
  }
}

std::expected<void, std::error_code> OutputQueue::flush(int socket) {
  stuck_ = false;
  while (!empty()) {
    const Piece& first = pieces_.front();
    const bool alone = pieces_.size() == 1 && first.files.empty();
    const ssize_t sent = alone ? ::send(socket, first.data() + first.begin, first.size(),
                                        MSG_NOSIGNAL | MSG_DONTWAIT)
                               : sendPieces(socket);
    if (sent < 0) {
      if (errno == EINTR) continue;
      stuck_ = errno == ETOOMANYREFS || errno == ENOBUFS || errno == ENOMEM;
      if (errno == EAGAIN || errno == EWOULDBLOCK || stuck_) return {};
      return std::unexpected(std::error_code(errno, std::system_category()));
    }
    consume(static_cast<std::size_t>(sent));
  }
  return {};
}

// Sends as many pieces as one call may: files travel with the first byte of theirs.
ssize_t OutputQueue::sendPieces(int socket) const {
  std::array<iovec, kPiecesPerWrite> vectors;
  std::size_t count = 0;
  for (const Piece& piece : pieces_) {
    if (count == vectors.size() || (count > 0 && !piece.files.empty())) break;
    vectors[count++] = {const_cast<std::byte*>(piece.data()) + piece.begin, piece.size()};
  }
  msghdr header{};
  header.msg_iov = vectors.data();
  header.msg_iovlen = count;
  alignas(cmsghdr) std::array<std::byte, CMSG_SPACE(limits::kDescriptorsPerMessage * sizeof(int))>
      control;
  const std::vector<BufferRef>& files = pieces_.front().files;
  if (!files.empty()) {
    KEEL_CHECK(files.size() <= limits::kDescriptorsPerMessage);
    header.msg_control = control.data();
    header.msg_controllen = CMSG_SPACE(files.size() * sizeof(int));
    cmsghdr* rights = CMSG_FIRSTHDR(&header);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(files.size() * sizeof(int));
    for (std::size_t i = 0; i < files.size(); ++i) {
      const int descriptor = files[i]->sealedFile();
      std::memcpy(CMSG_DATA(rights) + i * sizeof(int), &descriptor, sizeof(int));
    }
  }
  return ::sendmsg(socket, &header, MSG_NOSIGNAL | MSG_DONTWAIT);
}

void OutputQueue::consume(std::size_t sent) {
  sentBytes_ += sent;
  if (sent > 0 && !pieces_.front().files.empty()) {
    const std::size_t fileBytes = pieces_.front().fileBytes();
    waitingFileBytes_ -= fileBytes;
    sentFileBytes_ += fileBytes;
    pieces_.front().files.clear();
  }
  if (empty()) return clear();
  while (sent > 0) {
    Piece& piece = pieces_.front();
    const std::size_t taken = std::min(sent, piece.size());
    piece.begin += taken;
    sent -= taken;
    if (piece.size() > 0) break;
    // The last piece of a full chunk releases the chunk.
    if (piece.chunk && piece.chunk.use_count() == 1) {
      ownBytes_ -= piece.chunkCapacity;
      wipe(piece);
      chunks_.giveBack(std::move(piece.chunk), piece.chunkCapacity);
    }
    pieces_.pop_front();
  }
  // Frame ends are pruned in bulk, so that a queue that never empties stays bounded.
  if (frameEnds_.size() < kKeptFrameEnds) return;
  const auto waiting = std::upper_bound(frameEnds_.begin(), frameEnds_.end(), sentBytes_);
  if (waiting - frameEnds_.begin() < static_cast<std::ptrdiff_t>(kKeptFrameEnds / 2)) return;
  prunedEnd_ = *(waiting - 1);
  frameEnds_.erase(frameEnds_.begin(), waiting);
}

void OutputQueue::clear() {
  for (Piece& piece : pieces_) {
    wipe(piece);
    if (piece.chunk) chunks_.giveBack(std::move(piece.chunk), piece.chunkCapacity);
  }
  confidential_ = false;
  pieces_.clear();
  // A small first chunk is kept for the next frames; larger ones are returned.
  if (chunkCapacity_ > kFirstChunkBytes) {
    chunks_.giveBack(std::move(chunk_), chunkCapacity_);
    chunkCapacity_ = 0;
  }
  chunkUsed_ = 0;
  ownBytes_ = chunkCapacity_;
  if (frameEnds_.capacity() > kKeptFrameEnds) frameEnds_ = {};
  frameEnds_.clear();
  appendedBytes_ = sentBytes_ = prunedEnd_ = 0;
  waitingFileBytes_ = 0;
}

void OutputQueue::wipe(const Piece& piece) const {
  if (confidential_ && piece.chunk) keel::wipe({piece.chunk.get(), piece.chunkCapacity});
}

void OutputQueue::dropUnbegunFrames() {
  // The end of the frame in flight, or of what is sent if the next frame is not begun.
  std::uint64_t keepUntil = sentBytes_;
  std::uint64_t begin = prunedEnd_;
  for (const std::uint64_t end : frameEnds_) {
    if (begin < sentBytes_ && sentBytes_ < end) keepUntil = end;
    begin = end;
  }
  std::uint64_t excess = appendedBytes_ - keepUntil;
  while (excess > 0) {
    Piece& last = pieces_.back();
    const std::size_t dropped =
        static_cast<std::size_t>(std::min<std::uint64_t>(excess, last.size()));
    last.end -= dropped;
    excess -= dropped;
    if (last.size() > 0) break;
    waitingFileBytes_ -= last.fileBytes();
    pieces_.pop_back();
  }
  appendedBytes_ = keepUntil;
  std::erase_if(frameEnds_, [keepUntil](std::uint64_t end) { return end > keepUntil; });
  if (empty()) clear();
}

std::unique_ptr<OutputQueue> OutputQueuePool::take() {
  if (idle_.empty()) return std::make_unique<OutputQueue>(chunks_);
  auto queue = std::move(idle_.back());
  idle_.pop_back();
  return queue;
}

void OutputQueuePool::giveBack(std::unique_ptr<OutputQueue> queue) {
  KEEL_CHECK(queue->empty());
  if (idle_.size() < kIdleQueues) idle_.push_back(std::move(queue));
}

}  // namespace keel::xpc
