// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string_view>

#include "runtime/foundation/memory_account.h"
#include "runtime/transport/admissions.h"
#include "runtime/transport/frame_reader.h"
#include "runtime/transport/frame_writer.h"
#include "runtime/transport/transport.h"

namespace keel::xpc {

// Carries frames over a connected stream socket (unix(7)), with back-pressure both ways: a slow
// reader is dropped, and a peer that does not take what it is sent is not read.
class FrameStream final : public Transport, private Reactor::Watcher, private ShareMember {
 public:
  // The limits of a stream, and the quota that pays for it.
  struct Terms {
    // Largest frame once the hello bound is lifted.
    std::size_t frameLimitBytes;
    // Pays for incomplete frames; borrowed.
    const MemoryQuota* quota = &MemoryQuota::ofProcess();
    // Schedules all connections of the peer's user; borrowed. Null: the reactor's own share.
    Share* share = nullptr;
    // Held until the socket is closed: the connection counts as open until then.
    Admission admission{};
  };

  // The context is borrowed.
  FrameStream(FileDescriptor socket, TransportContext& context, Terms terms);
  ~FrameStream() override;

  void start(Receiver& receiver) override;
  TransportContext& context() override { return context_; }
  void send(const OutgoingMessage& message, EndOfTurnHook::Urgency urgency) override;
  void setReading(bool reading) override;
  void returnFiles(std::vector<FileDescriptor> files) override;
  void liftHelloBound() override;
  void setConfidential() override;
  void close(std::string_view goodbye) override;
  bool maySendFiles() override { return writer_.maySendFiles(socket_.get(), context_); }
  void perform(Block block) override;
  void performLater(Block block) override;
  bool onIoThread() const override;

 private:
  // A stream that is no longer open neither sends nor reads, and ends with the turn.
  enum class State : std::uint8_t { open, writeFailed, tooSlow, stalled, tooManyFiles };

  void onReady(std::uint32_t events) override;
  bool takeInput() override;
  void suspendInput() override;
  void onEndOfTurn() override;
  std::shared_ptr<void> holdAlive() override { return receiver_->holdAlive(); }

  // Each returns false when the stream has ended.
  bool beginInput();
  bool take(FrameReader::Outcome& outcome);
  bool endInput();
  bool flush();

  // The reason for which deliverFrames() stopped. Interrupted: by the receiver, or after a file.
  enum class Stop : std::uint8_t { nothingLeft, enoughBlocks, interrupted };
  Stop deliverFrames();
  void queueInput();
  void queueOutput(EndOfTurnHook::Urgency urgency);

  void retryLater();
  void retry();
  // Accounts for the backlog, and drops the largest ones if their total is too large.
  void updateBacklog();
  // Drops the largest backlogs of `user`, or if it is null of the user who holds most. Returns
  // false if there are none.
  bool dropSlowReaders(const MemoryAccount* user);
  // Watches, once a second, a peer that has something to read.
  void watchProgress();
  void checkProgress();
  void updateFileCount();
  // Charges what the peer makes this process hold: an incomplete frame, the backlog, unread files.
  void updateCharge();
  void endWithTurn(State how);
  void dropSlowReader();

  // Ends the stream because of the peer or the socket; sends `goodbye` unless it is empty.
  void fail(std::string_view reason, std::string_view goodbye);
  void failWith(int problem);
  void detach();
  void sendGoodbyeAndClose(std::string_view goodbye);
  void watchAsNeeded();
  void stopWatching();
  bool wantsToRead() const { return !paused_ && !backlogFull_; }
  Share& share() { return terms_.share != nullptr ? *terms_.share : context_.reactor().ownShare(); }
  const MemoryAccount* user() const { return terms_.quota->account; }

  // Members that every sent frame touches are together, in as few cache lines as possible.
  FileDescriptor socket_;
  State state_ = State::open;
  bool mayRead_ = false;      // the socket may have more bytes, or its end
  bool peerClosed_ = false;   // so the end must be read
  bool keepsFrames_ = false;  // complete frames were read and not delivered
  bool paused_ = false;       // by the receiver
  bool backlogFull_ = false;  // the peer is not read until it takes its backlog
  int writeProblem_ = 0;      // errno
  TransportContext& context_;
  FrameWriter writer_;
  std::size_t accountedOwnBytes_ = 0;
  Receiver* receiver_ = nullptr;
  FrameReader reader_;
  Terms terms_;
  std::size_t accountedFiles_ = 0;
  std::size_t chargedBytes_ = 0;
  std::size_t droppedBytes_ = 0;        // the backlog of a reader that is too slow
  Reactor::TimerId retryTimer_ = 0;     // 0: none
  Reactor::TimerId progressTimer_ = 0;  // 0: none
  std::uint8_t idleSeconds_ = 0;        // since the peer last read anything it was sent
  std::uint32_t watchedEvents_ = 0;     // 0: the socket is not watched
};

}  // namespace keel::xpc
