// SPDX-License-Identifier: Apache-2.0
//
// In: at most one recvmsg(2) per turn takes what the socket has, up to the reactor's fair share,
// and its whole frames are handed to the receiver where they lie (FrameReader).
//
// Out: send() appends to the output queue and asks for the end of the turn; then one sendmsg(2)
// writes everything the turn produced for this peer (FrameWriter). What the socket does not take
// stays, and the stream waits for EPOLLOUT.
//
// The end: nothing here calls the receiver from within a call that the receiver made. A stream that
// has to end because of what was sent, or because all backlogs together are too large, is marked
// (Life) and ends with the turn. From the mark on it neither reads nor writes: its queue stays as
// it is until the goodbye goes through it.
#include "runtime/transport/frame_stream.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "runtime/transport/foreign_descriptors.h"
#include "runtime/transport/linger.h"
#include "runtime/wire/limits.h"

namespace keel::xpc {

namespace {

constexpr std::string_view kUnclaimed = "descriptors that no message claims";

bool isEndOfPeer(int problem) {
  return problem == EPIPE || problem == ECONNRESET;
}

}  // namespace

FrameStream::FrameStream(FileDescriptor socket, TransportContext& context, Terms terms)
    : socket_(std::move(socket)),
      context_(context),
      writer_(context),
      reader_(context, std::min(limits::kHelloBytes, terms.frameLimitBytes)),
      terms_(std::move(terms)) {}

FrameStream::~FrameStream() {
  detach();
}

void FrameStream::start(Receiver& receiver) {
  receiver_ = &receiver;
  watchAsNeeded();
}

void FrameStream::send(const OutgoingMessage& message, EndOfTurnHook::Urgency urgency) {
  if (!socket_ || life_ != Life::open) return;
  if (writer_.waitingBytes() > limits::kPauseReadingBytes) [[unlikely]] {
    // So much in one turn: what the socket takes goes now, so that only what the peer does not read
    // is held.
    writeProblem_ = writer_.flush(socket_.get());
    if (writeProblem_ != 0) return endWithTurn(Life::writeFailed);
    if (writer_.isStuck()) retryLater();
    bookBacklog();
    if (life_ != Life::open) return;
    context_.reactor().atEndOfTurn(*this, urgency);
  }
  writer_.append(message);
  if (!writer_.isBlocked()) {
    context_.reactor().atEndOfTurn(*this, urgency);
  } else if (writer_.ownBytes() != bookedOwnBytes_) {
    bookBacklog();
  }
}

void FrameStream::bookBacklog() {
  const std::size_t waiting = writer_.waitingBytes();
  backlogFull_ = waiting > limits::kPauseReadingBytes ||
                 (backlogFull_ && waiting > limits::kPauseReadingBytes / 2);
  const bool counts = writer_.isBlocked() || backlogFull_;
  bookedOwnBytes_ = counts ? writer_.ownBytes() : 0;
  context_.backlogs().note(this, user(), counts ? waiting : 0, bookedOwnBytes_);
  if (!counts) return;
  if (waiting > limits::kWaitingBytes) return dropSlowReader();
  // Superseded values are charged to the process (see Buffer::chargeTo). One stream goes at a time:
  // what it holds is free only once it has ended.
  if (context_.beingDropped() != nullptr) return;
  if (context_.backlogs().ownTotal() + MemoryAccount::ofProcess().bytes() <=
      limits::kTotalWaitingBytes)
    return;
  context_.beingDropped() = context_.backlogs().heaviest();
  context_.beingDropped()->dropSlowReader();
}

void FrameStream::dropSlowReader() {
  // The next heaviest is another one.
  context_.backlogs().note(this, user(), 0, 0);
  endWithTurn(Life::tooSlow);
}

void FrameStream::endWithTurn(Life how) {
  life_ = how;
  context_.reactor().atEndOfTurn(*this, EndOfTurnHook::Urgency::normal);
}

void FrameStream::setReading(bool reading) {
  if (reading != paused_) return;
  paused_ = !reading;
  if (!socket_) return;
  if (reading && reader_.keptBytes() > 0) handOverAtEndOfTurn();
  watchAsNeeded();
}

void FrameStream::liftHelloBound() {
  reader_.setFrameLimit(terms_.frameLimitBytes);
}

void FrameStream::setConfidential() {
  writer_.setConfidential();
  reader_.setConfidential();
}

void FrameStream::close(std::string_view goodbye) {
  if (socket_) sayGoodbye(goodbye);
}

void FrameStream::perform(Block block) {
  if (onIoThread()) return block();
  performLater(std::move(block));
}

void FrameStream::performLater(Block block) {
  context_.reactor().post(std::move(block));
}

bool FrameStream::onIoThread() const {
  return context_.reactor().isCurrent();
}

void FrameStream::onReady(std::uint32_t events) {
  if (life_ != Life::open) return;
  const std::shared_ptr<void> alive = receiver_->holdAlive();
  if ((events & (EPOLLOUT | EPOLLHUP | EPOLLERR)) != 0 && writer_.isBlocked()) {
    writer_.unblock();
    if (!flush()) return;
  }
  const bool readable = (events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0;
  if (readable && wantsToRead() && handOver_ != HandOver::pending) {
    // What was handed over at the end of the last turn is served in this one, before the end that
    // may be read now.
    const bool servedFirst = std::exchange(handOver_, HandOver::none) == HandOver::done;
    if (!servedFirst && !readOnce()) return;
  }
  watchAsNeeded();
}

void FrameStream::onEndOfTurn() {
  const std::shared_ptr<void> alive = receiver_ != nullptr ? receiver_->holdAlive() : nullptr;
  if (life_ == Life::tooSlow) {
    const std::string reason =
        fmt::format("too slow: {} bytes were waiting", writer_.waitingBytes());
    return fail(reason, reason);
  }
  if (life_ == Life::hoardsFiles) return fail(kUnclaimed, kUnclaimed);
  if (!flush()) return;
  if (handOver_ == HandOver::pending && wantsToRead()) {
    handOver_ = HandOver::done;
    reader_.resume();
    if (!handFramesOver()) return;
  }
  watchAsNeeded();
}

bool FrameStream::readOnce() {
  FrameReader::Outcome outcome = reader_.read(socket_.get());
  const bool goesOn = take(outcome);
  // Of a stream that has ended, too: what was read may have to be wiped.
  reader_.endRead();
  return goesOn;
}

bool FrameStream::take(FrameReader::Outcome& outcome) {
  using Kind = FrameReader::Outcome::Kind;
  switch (outcome.kind) {
    case Kind::bytes:
    case Kind::nothing:
      bookFiles();
      return handFramesOver();
    case Kind::offence:
      for (FileDescriptor& each : outcome.foreign)
        closeInBackground(std::move(each), terms_.admission, user());
      fail(outcome.offence, outcome.offence);
      return false;
    case Kind::end:
      fail({}, {});
      return false;
    case Kind::failed:
      failWith(outcome.problem);
      return false;
  }
  return false;
}

void FrameStream::bookFiles() {
  if (reader_.files().size() == bookedFiles_) return;
  bookedFiles_ = reader_.files().size();
  context_.unclaimedFiles().note(this, user(), bookedFiles_, bookedFiles_);
}

bool FrameStream::chargeKept() {
  const std::size_t kept = reader_.keptBytes();
  if (kept == chargedKeptBytes_) return true;
  terms_.quota->account->charge(kept);
  terms_.quota->account->refund(std::exchange(chargedKeptBytes_, kept));
  return kept < limits::kHelloBytes ||
         terms_.quota->account->bytes() <= terms_.quota->grantedNameBytes();
}

bool FrameStream::handFramesOver() {
  if (!handFrames()) return false;
  reader_.endRead();
  if (!chargeKept()) {
    constexpr std::string_view kOffence = "its user holds too much here for a message of this size";
    fail(kOffence, kOffence);
    return false;
  }
  if (handOver_ == HandOver::pending) return true;
  // Descriptors come with the first byte of their frame: none may be left when no frame is under
  // way.
  if (!reader_.files().empty() && !reader_.isInFrame()) {
    fail(kUnclaimed, kUnclaimed);
    return false;
  }
  if (context_.unclaimedFiles().ownTotal() > limits::kUnclaimedDescriptors) {
    FrameStream* const hoarder = context_.unclaimedFiles().heaviest();
    // Its files are as good as closed.
    context_.unclaimedFiles().note(hoarder, hoarder->user(), 0, 0);
    hoarder->endWithTurn(Life::hoardsFiles);
  }
  return true;
}

// Whole frames, one after the other. Stops behind a value in a memory file, since that may be
// large: the rest waits for the next turn.
bool FrameStream::handFrames() {
  while (!paused_ && life_ == Life::open) {
    switch (reader_.next()) {
      case FrameSplitter::Found::nothing:
        return true;
      case FrameSplitter::Found::garbage: {
        const std::string reason =
            fmt::format("a frame of {} bytes makes no sense", reader_.frameSizeBytes());
        fail(reason, reason);
        return false;
      }
      case FrameSplitter::Found::frame:
        receiver_->onFrame(reader_.frame(), reader_.files());
        break;
      case FrameSplitter::Found::oversized:
        // What came with its first byte would be taken for the next frame's.
        if (!reader_.files().empty()) {
          fail(kUnclaimed, kUnclaimed);
          return false;
        }
        receiver_->onOversizedFrame(reader_.frameSizeBytes(), reader_.frame());
        break;
    }
    if (!socket_) return false;
    const bool tookFile = reader_.files().size() < bookedFiles_;
    bookFiles();
    if (tookFile) {
      reader_.endRead();
      if (reader_.keptBytes() > 0) handOverAtEndOfTurn();
      return true;
    }
  }
  return true;
}

void FrameStream::handOverAtEndOfTurn() {
  handOver_ = HandOver::pending;
  context_.reactor().atEndOfTurn(*this, EndOfTurnHook::Urgency::normal);
}

bool FrameStream::flush() {
  if (writeProblem_ == 0) writeProblem_ = writer_.flush(socket_.get());
  if (writeProblem_ != 0) {
    // What the peer sent before it went is not read any more: nobody could be answered.
    failWith(writeProblem_);
    return false;
  }
  if (writer_.isStuck()) retryLater();
  if (writer_.isBlocked() || backlogFull_ || bookedOwnBytes_ > 0) {
    const bool wasFull = backlogFull_;
    bookBacklog();
    if (wasFull && !backlogFull_ && reader_.keptBytes() > 0) handOverAtEndOfTurn();
  }
  return true;
}

void FrameStream::retryLater() {
  if (retryTimer_ != 0) return;
  ++context_.stuckStreamCount();
  retryTimer_ = context_.reactor().after(limits::kSendPause, [this] { retry(); });
}

void FrameStream::retry() {
  const std::shared_ptr<void> alive = receiver_->holdAlive();
  retryTimer_ = 0;
  --context_.stuckStreamCount();
  if (life_ != Life::open) return;
  writer_.unblock();
  if (flush()) watchAsNeeded();
}

void FrameStream::failWith(int problem) {
  fail(isEndOfPeer(problem) ? std::string_view() : std::string_view(std::strerror(problem)), {});
}

void FrameStream::fail(std::string_view reason, std::string_view goodbye) {
  sayGoodbye(goodbye);
  receiver_->onClosed(reason);
}

void FrameStream::sayGoodbye(std::string_view goodbye) {
  stopWatching();
  // Nothing can lie in a socket that was read to its end; it is closed at once, with detach().
  if (!reader_.hasReachedEnd()) {
    if (life_ == Life::tooSlow) writer_.dropUnbegunFrames();
    // Whoever does not read an answer longer than any other message gets no more of it: it must not
    // be held any longer.
    if (writer_.waitingBytes() > 2 * limits::kFrameBytes) return detach();
    if (!goodbye.empty()) {
      const MessagePool::Borrowed message = context_.messages().borrow();
      writeGoodbye(*message, goodbye);
      writer_.append(*message);
    }
    lingerAndClose(std::move(socket_), writer_.release(), std::move(terms_.admission), user(),
                   context_.reactor());
  }
  detach();
}

void FrameStream::detach() {
  stopWatching();
  cancelEndOfTurn();
  context_.backlogs().note(this, user(), 0, 0);
  if (context_.beingDropped() == this) context_.beingDropped() = nullptr;
  if (retryTimer_ != 0) {
    context_.reactor().cancel(std::exchange(retryTimer_, 0));
    --context_.stuckStreamCount();
  }
  bookedOwnBytes_ = 0;
  reader_.files().clear();
  bookFiles();
  terms_.quota->account->refund(std::exchange(chargedKeptBytes_, 0));
  // A stream that was never started has read nothing.
  if (socket_ && !reader_.hasReachedEnd()) {
    return closeInBackground(std::move(socket_), std::move(terms_.admission), user());
  }
  socket_.reset();
  terms_.admission.reset();
}

void FrameStream::watchAsNeeded() {
  if (!socket_) return;
  const bool waitsForRoom = writer_.isBlocked() && retryTimer_ == 0;
  const std::uint32_t events = (wantsToRead() ? EPOLLIN : 0u) | (waitsForRoom ? EPOLLOUT : 0u);
  if (events == watchedEvents_) return;
  // Not watched at all for no events: a peer that hung up would be reported again and again.
  Reactor& reactor = context_.reactor();
  if (watchedEvents_ == 0) {
    reactor.watch(socket_.get(), events, *this);
  } else if (events == 0) {
    reactor.unwatch(socket_.get(), *this);
  } else {
    reactor.rewatch(socket_.get(), events, *this);
  }
  watchedEvents_ = events;
}

void FrameStream::stopWatching() {
  if (watchedEvents_ != 0) context_.reactor().unwatch(socket_.get(), *this);
  watchedEvents_ = 0;
}

}  // namespace keel::xpc
