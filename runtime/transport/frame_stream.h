// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string_view>

#include "runtime/foundation/memory_account.h"
#include "runtime/transport/frame_reader.h"
#include "runtime/transport/frame_writer.h"
#include "runtime/transport/transport.h"

namespace keel::xpc {

// Frames over a connected stream socket (unix(7)), with back-pressure both ways: a reader that is
// too slow is dropped, and a peer that does not take what it is sent is not read.
class FrameStream final : public Transport, private Reactor::Watcher, private EndOfTurnHook {
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

  // The context is borrowed.
  FrameStream(FileDescriptor socket, TransportContext& context, Terms terms);
  ~FrameStream() override;

  void start(Receiver& receiver) override;
  TransportContext& context() override { return context_; }
  void send(const OutgoingMessage& message, EndOfTurnHook::Urgency urgency) override;
  void setReading(bool reading) override;
  void liftHelloBound() override;
  void setConfidential() override;
  void close(std::string_view goodbye) override;
  bool maySendFiles() override { return writer_.maySendFiles(socket_.get()); }
  void perform(Block block) override;
  void performLater(Block block) override;
  bool onIoThread() const override;

 private:
  // Once it is no longer open, a stream sends and takes nothing more, and ends with the turn.
  enum class Life : std::uint8_t { open, writeFailed, tooSlow, hoardsFiles };
  // Frames that were read and not handed over, because the peer's requests had to wait.
  enum class HandOver : std::uint8_t {
    none,
    pending,  // at the end of this turn
    done,  // at the end of the last turn: they are served in this one, before anything else is read
  };

  void onReady(std::uint32_t events) override;
  void onEndOfTurn() override;

  // Each returns false when the stream has ended.
  bool readOnce();
  bool take(FrameReader::Outcome& outcome);
  bool handFramesOver();
  bool handFrames();
  bool flush();

  void handOverAtEndOfTurn();
  void retryLater();
  void retry();
  // Books the backlog, and drops the heaviest stream when all backlogs together are too large.
  void bookBacklog();
  void bookFiles();
  // Charges what is kept of a frame that came in part. Returns false when the peer's user holds too
  // much.
  bool chargeKept();
  void endWithTurn(Life how);
  void dropSlowReader();

  // Ends it because of the peer or the socket, with a word to the peer unless `goodbye` is empty.
  void fail(std::string_view reason, std::string_view goodbye);
  void failWith(int problem);
  void detach();
  void sayGoodbye(std::string_view goodbye);
  void watchAsNeeded();
  void stopWatching();
  bool wantsToRead() const { return !paused_ && !backlogFull_; }
  const MemoryAccount* user() const { return terms_.quota->account; }

  // What every frame that is sent looks at stands together, in as few cache lines as possible.
  FileDescriptor socket_;
  Life life_ = Life::open;
  HandOver handOver_ = HandOver::none;
  bool paused_ = false;       // by the receiver
  bool backlogFull_ = false;  // so much waits for the peer that its requests have to
  int writeProblem_ = 0;      // errno
  TransportContext& context_;
  FrameWriter writer_;
  std::size_t bookedOwnBytes_ = 0;
  Receiver* receiver_ = nullptr;
  FrameReader reader_;
  Terms terms_;
  std::size_t bookedFiles_ = 0;
  std::size_t chargedKeptBytes_ = 0;
  Reactor::TimerId retryTimer_ = 0;  // 0: none is set
  std::uint32_t watchedEvents_ = 0;  // 0: the socket is not watched
};

}  // namespace keel::xpc
