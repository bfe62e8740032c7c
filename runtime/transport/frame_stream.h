// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/socket.h>

#include <memory>
#include <string>
#include <vector>

#include "runtime/dispatch/reactor.h"
#include "runtime/foundation/file_descriptor.h"
#include "runtime/transport/frame_splitter.h"
#include "runtime/transport/output_queue.h"
#include "runtime/transport/transport.h"
#include "runtime/wire/argument.h"

namespace keel::xpc {

// Frames over a connected stream socket (unix(7)), with back-pressure both ways: a reader that is too slow is dropped, a peer
// that does not take what it is sent is not read.
class FrameStream final : public Transport, private Reactor::Watcher, private EndOfTurn {
 public:
  // What a stream may cost, and who pays for it.
  struct Terms {
    // Bounds the frames that are taken once the hello bound is lifted.
    std::size_t frameLimitBytes;
    // Pays for frames that came in part; borrowed.
    const MemoryQuota* quota = &MemoryQuota::ofProcess();
    // Held until the socket is closed: the connection's place among those that may be open.
    std::shared_ptr<void> admission{};
  };

  // The reactor is borrowed.
  FrameStream(FileDescriptor socket, Reactor& reactor, Terms terms);
  ~FrameStream() override;

  void start(Receiver& receiver) override;
  void send(const OutgoingMessage& message, EndOfTurn::Urgency urgency) override;
  void setReading(bool reading) override;
  void liftHelloBound() override;
  void setConfidential() override;
  void close(std::string_view goodbye) override;
  bool maySendFiles() override;
  void perform(Block block) override;
  void performLater(Block block) override;
  bool onIoThread() const override;

 private:
  void onReady(std::uint32_t events) override;
  void onEndOfTurn() override;

  // Each returns false when the stream has ended.
  bool readOnce();
  bool takeRead(std::span<std::byte> bytes, msghdr& header, ssize_t received);
  bool takeFiles(msghdr& header);
  bool handFramesOver();
  bool flush();
  // Writes what the socket takes; a failure is noted in problem_.
  void write();
  void writeAgainLater();
  void writeAgain();
  // Counts what waits here, and has the stream dropped for which most waits when all is too much.
  void countWaiting();
  void endSlow();
  // Notes how many files wait for their message.
  void countFiles();
  void endForUnclaimedFiles();
  // Charges what is kept of a frame that came in part. False when the peer's user holds too much.
  bool chargeKept();

  // Ends it because of the peer or the socket, with a word to the peer unless `goodbye` is empty.
  void fail(std::string_view reason, std::string_view goodbye);
  void detach();
  void sayGoodbye(std::string_view goodbye, bool dropWaiting);
  void watchAsNeeded();
  void stopWatching();
  bool wantsToRead() const { return reading_ && !outputFull_; }

  // What every frame that is sent looks at stands together, in as few cache lines as it takes.
  FileDescriptor socket_;
  bool reading_ = true;
  bool outputFull_ = false;     // so much waits that the peer's requests have to
  bool outputBlocked_ = false;  // the socket takes no more for now
  bool handOverPending_ = false;
  bool handedOverLast_ = false;  // at the end of the last turn
  bool tooSlow_ = false;
  bool keepsFilesUnclaimed_ = false;
  bool confidential_ = false;
  bool readToItsEnd_ = false;
  bool ending_ = false;  // at the end of the turn
  bool handingOver_ = false;
  int problem_ = 0;  // errno of a write that failed
  Reactor& reactor_;
  BorrowedOutputQueue output_;
  std::size_t countedOwnBytes_ = 0;  // of what waits, as it was noted last
  std::size_t unreadFileBytes_ = 0;  // sent since the peer was last seen to have read everything
  Receiver* receiver_ = nullptr;
  FrameSplitter splitter_;
  Terms terms_;
  std::size_t countedFiles_ = 0;  // that were noted as unclaimed
  std::size_t chargedKeptBytes_ = 0;
  std::vector<FileDescriptor> files_;  // received, not yet claimed
  Reactor::TimerId writingAgain_ = 0;  // 0: not waiting for better times
  std::uint32_t watchedEvents_ = 0;    // 0: the socket is not watched
};

}  // namespace keel::xpc
