// SPDX-License-Identifier: Apache-2.0
//
// Receiving: readiness, which epoll(7) reports once (edge-triggered), puts the stream on the list
// of its user (FairShare). When the user is served, one recvmsg(2) takes what the socket has, up to
// the reactor's read budget, and the complete frames are delivered in place (FrameReader); if they
// queue many blocks, these run in between. A stream leaves the list when the socket is known to be
// empty.
//
// Sending: send() appends to the output queue and registers an end-of-turn hook; then one
// sendmsg(2) writes everything the turn produced for this peer (FrameWriter). What the socket does
// not take stays queued, and the stream waits for EPOLLOUT.
//
// Ending: the receiver is never called from within a call that it made. A stream that must end
// because of what was sent, or because the total backlog is too large, is marked (State) and
// ends with the turn. Once marked it neither reads nor writes: its queue stays as it is until the
// goodbye goes through it.
#include "runtime/transport/frame_stream.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
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
      reader_(std::min(limits::kHelloBytes, terms.frameLimitBytes)),
      terms_(std::move(terms)) {}

FrameStream::~FrameStream() {
  detach();
}

void FrameStream::start(Receiver& receiver) {
  receiver_ = &receiver;
  watchAsNeeded();
}

void FrameStream::send(const OutgoingMessage& message, EndOfTurnHook::Urgency urgency) {
  if (!socket_ || state_ != State::open) return;
  if (writer_.waitingBytes() > limits::kPauseReadingBytes) [[unlikely]] {
    // A large amount in one turn: flushes now, so that only what the peer does not read is held.
    writeProblem_ = writer_.flush(socket_.get(), context_);
    if (writeProblem_ != 0) return endWithTurn(State::writeFailed);
    if (writer_.isStuck()) retryLater();
    updateBacklog();
    if (state_ != State::open) return;
    queueOutput(urgency);
  }
  writer_.append(message, context_);
  if (!writer_.isBlocked()) {
    queueOutput(urgency);
  } else if (writer_.ownBytes() != accountedOwnBytes_) {
    updateBacklog();
  }
}

void FrameStream::updateBacklog() {
  const std::size_t waiting = writer_.waitingBytes();
  backlogFull_ = waiting > limits::kPauseReadingBytes ||
                 (backlogFull_ && waiting > limits::kPauseReadingBytes / 2);
  const bool counts = writer_.isBlocked() || backlogFull_;
  accountedOwnBytes_ = counts ? writer_.ownBytes() : 0;
  context_.backlogs().update(this, user(), counts ? waiting : 0, accountedOwnBytes_);
  updateCharge();
  watchProgress();
  if (!counts) return;
  if (waiting > limits::kWaitingBytes) return dropSlowReader();
  // A user is left a small backlog even when others hold everything.
  if (waiting > limits::kHelloBytes) {
    while (user()->bytes() > terms_.quota->grantedBytes() && dropSlowReaders(user())) {
    }
  }
  // Superseded values are charged to the process (see Buffer::chargeTo). An eighth is left for the
  // backlogs that are dropped and not freed yet.
  constexpr std::size_t kLimitBytes = limits::kTotalWaitingBytes / 8 * 7;
  if (context_.droppedReaderCount() == 0 &&
      context_.backlogs().exclusiveTotal() + MemoryAccount::ofProcess().bytes() > kLimitBytes)
    dropSlowReaders(nullptr);
}

bool FrameStream::dropSlowReaders(const MemoryAccount* user) {
  const auto largest = context_.backlogs().largestHolders(user);
  for (FrameStream* each : largest) each->dropSlowReader();
  return !largest.empty();
}

// The backlog counts as released. It is freed, and the goodbye sent, at the end of the turn that
// serves the peer's user: with thousands of frames that takes up to 0.3 ms, and thousands of
// readers may be dropped at once.
void FrameStream::dropSlowReader() {
  if (state_ != State::open) return;
  ++context_.droppedReaderCount();
  droppedBytes_ = writer_.waitingBytes();
  accountedOwnBytes_ = 0;
  context_.backlogs().update(this, user(), 0, 0);
  endWithTurn(State::tooSlow);
  updateCharge();
}

void FrameStream::updateCharge() {
  const std::size_t charge = reader_.keptBytes() + accountedOwnBytes_ + writer_.unreadFileBytes();
  if (charge == chargedBytes_) return;
  if (charge < chargedBytes_) context_.noteReleased(chargedBytes_ - charge);
  terms_.quota->account->charge(charge);
  terms_.quota->account->refund(std::exchange(chargedBytes_, charge));
}

void FrameStream::watchProgress() {
  if (!writer_.isBlocked() && writer_.unreadFileBytes() == 0) {
    idleSeconds_ = 0;
    return;
  }
  if (progressTimer_ == 0)
    progressTimer_ = context_.reactor().after(std::chrono::seconds(1), [this] { checkProgress(); });
}

void FrameStream::checkProgress() {
  progressTimer_ = 0;
  if (writer_.unreadFileBytes() > 0) {
    writer_.updateUnread(socket_.get());
    updateCharge();
  }
  if (writer_.isBlocked() && ++idleSeconds_ >= limits::kStallSeconds)
    return endWithTurn(State::stalled);
  watchProgress();
}

void FrameStream::endWithTurn(State how) {
  if (state_ != State::open) return;
  state_ = how;
  queueOutput(EndOfTurnHook::Urgency::normal);
}

void FrameStream::setReading(bool reading) {
  if (reading != paused_) return;
  paused_ = !reading;
  if (!socket_) return;
  if (reading) queueInput();
}

// Idempotent.
void FrameStream::queueInput() {
  if ((mayRead_ || keepsFrames_) && wantsToRead() && state_ == State::open)
    context_.reactor().addInput(share(), *this);
}

void FrameStream::queueOutput(EndOfTurnHook::Urgency urgency) {
  context_.reactor().atEndOfTurn(share(), *this, urgency);
}

void FrameStream::returnFiles(std::vector<FileDescriptor> files) {
  if (!socket_) return;
  reader_.files().insert(reader_.files().begin(), std::move_iterator(files.begin()),
                         std::move_iterator(files.end()));
  updateFileCount();
}

void FrameStream::liftHelloBound() {
  reader_.setFrameLimit(terms_.frameLimitBytes);
}

void FrameStream::setConfidential() {
  writer_.setConfidential();
  reader_.setConfidential();
}

void FrameStream::close(std::string_view goodbye) {
  if (socket_) sendGoodbyeAndClose(goodbye);
}

void FrameStream::perform(Block block) {
  if (onIoThread()) return block();
  performLater(std::move(block));
}

void FrameStream::performLater(Block block) {
  context_.reactor().post(share(), std::move(block));
}

bool FrameStream::onIoThread() const {
  return context_.reactor().isCurrent();
}

void FrameStream::onReady(std::uint32_t events) {
  if (state_ != State::open) return;
  const bool hungUp = (events & (EPOLLHUP | EPOLLRDHUP | EPOLLERR)) != 0;
  if (writer_.isBlocked() && (hungUp || (events & EPOLLOUT) != 0)) {
    writer_.unblock();
    queueOutput(EndOfTurnHook::Urgency::normal);
  }
  peerClosed_ = peerClosed_ || hungUp;
  mayRead_ = mayRead_ || hungUp || (events & EPOLLIN) != 0;
  queueInput();
}

bool FrameStream::takeInput() {
  if (socket_ && state_ == State::open && wantsToRead() && (reader_.isInRead() || beginInput())) {
    const Stop stop = deliverFrames();
    if (stop == Stop::enoughBlocks) return true;
    if (stop == Stop::nothingLeft && endInput()) queueInput();
  }
  suspendInput();
  return false;
}

void FrameStream::suspendInput() {
  const bool wasInRead = reader_.isInRead();
  // Also for a stream that has ended: what was read may have to be wiped.
  reader_.endRead();
  if (!wasInRead || !socket_) return;
  keepsFrames_ = reader_.keptBytes() > 0;
  updateCharge();
  queueInput();
}

void FrameStream::onEndOfTurn() {
  const std::shared_ptr<void> alive = receiver_ != nullptr ? receiver_->holdAlive() : nullptr;
  if (state_ == State::tooSlow) {
    const std::string reason = fmt::format("too slow: {} bytes were waiting", droppedBytes_);
    return fail(reason, reason);
  }
  if (state_ == State::stalled) {
    const std::string reason = fmt::format("nothing was read for {} s", int{limits::kStallSeconds});
    return fail(reason, reason);
  }
  if (state_ == State::tooManyFiles) return fail(kUnclaimed, kUnclaimed);
  if (!flush()) return;
  watchAsNeeded();
  queueInput();
}

// Delivers what is kept, else reads once.
bool FrameStream::beginInput() {
  if (std::exchange(keepsFrames_, false)) {
    reader_.resume();
    return true;
  }
  FrameReader::Outcome outcome = reader_.read(socket_.get(), context_);
  const bool isEmpty = outcome.kind == FrameReader::Outcome::Kind::nothing || outcome.wasShort;
  mayRead_ = !isEmpty || peerClosed_;
  return take(outcome);
}

bool FrameStream::take(FrameReader::Outcome& outcome) {
  using Kind = FrameReader::Outcome::Kind;
  switch (outcome.kind) {
    case Kind::bytes:
    case Kind::nothing:
      updateFileCount();
      return true;
    case Kind::violation:
      for (FileDescriptor& each : outcome.foreign)
        closeInBackground(std::move(each), terms_.admission, user());
      fail(outcome.violation, outcome.violation);
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

void FrameStream::updateFileCount() {
  if (reader_.files().size() == accountedFiles_) return;
  accountedFiles_ = reader_.files().size();
  context_.unclaimedFiles().update(this, user(), accountedFiles_, accountedFiles_);
}

// Charges and checks what is left when all complete frames have been delivered.
bool FrameStream::endInput() {
  reader_.endRead();
  updateCharge();
  // A user over quota must still be able to send small messages, to release what it holds.
  if (reader_.keptBytes() >= limits::kSmallMessageBytes && terms_.quota->isExceeded()) {
    constexpr std::string_view kOverQuota =
        "its user is over quota: no memory for a message of this size";
    fail(kOverQuota, kOverQuota);
    return false;
  }
  // Descriptors arrive with the first byte of their frame: none may be left when no frame is
  // incomplete.
  if (!reader_.files().empty() && (!reader_.isInFrame() || reader_.isSkipping())) {
    fail(kUnclaimed, kUnclaimed);
    return false;
  }
  if (context_.unclaimedFiles().exclusiveTotal() > limits::kUnclaimedDescriptors) {
    FrameStream* const largest = context_.unclaimedFiles().largestHolder();
    // Its files are about to be closed.
    context_.unclaimedFiles().update(largest, largest->user(), 0, 0);
    largest->endWithTurn(State::tooManyFiles);
  }
  return true;
}

// Stops after a value in a memory file, which may be large: the rest waits until the stream's input
// is next taken.
FrameStream::Stop FrameStream::deliverFrames() {
  while (!paused_ && state_ == State::open) {
    switch (reader_.next()) {
      case FrameSplitter::Found::nothing:
        return Stop::nothingLeft;
      case FrameSplitter::Found::garbage: {
        const std::string reason =
            fmt::format("a frame of {} bytes is beyond all limits", reader_.frameSizeBytes());
        fail(reason, reason);
        return Stop::interrupted;
      }
      case FrameSplitter::Found::frame:
        receiver_->onFrame(reader_.frame(), reader_.files());
        break;
      case FrameSplitter::Found::oversized:
        receiver_->onOversizedFrame(reader_.frameSizeBytes(), reader_.frame());
        break;
    }
    if (!socket_) return Stop::interrupted;
    const bool tookFile = reader_.files().size() < accountedFiles_;
    updateFileCount();
    if (tookFile) return Stop::interrupted;
    // A large message may ask for as much work as many small ones.
    const bool wasLarge = reader_.frame().size() > limits::kSmallMessageBytes;
    if (context_.reactor().hasEnoughBlocks() || (wasLarge && context_.reactor().isContended()))
      return Stop::enoughBlocks;
  }
  return Stop::interrupted;
}

bool FrameStream::flush() {
  const std::size_t waiting = writer_.waitingBytes();
  if (writeProblem_ == 0) writeProblem_ = writer_.flush(socket_.get(), context_);
  if (writeProblem_ != 0) {
    // The peer's remaining requests are not read: no answer could reach it.
    failWith(writeProblem_);
    return false;
  }
  if (writer_.waitingBytes() < waiting) idleSeconds_ = 0;
  if (writer_.isStuck()) retryLater();
  if (writer_.isBlocked() || backlogFull_ || chargedBytes_ > 0 || writer_.unreadFileBytes() > 0)
    updateBacklog();
  return true;
}

void FrameStream::retryLater() {
  if (retryTimer_ != 0) return;
  ++context_.stuckStreamCount();
  retryTimer_ = context_.reactor().after(limits::kSendPause, [this] { retry(); });
}

void FrameStream::retry() {
  retryTimer_ = 0;
  --context_.stuckStreamCount();
  if (state_ != State::open) return;
  writer_.unblock();
  queueOutput(EndOfTurnHook::Urgency::normal);
}

void FrameStream::failWith(int problem) {
  fail(isEndOfPeer(problem) ? std::string_view() : std::string_view(std::strerror(problem)), {});
}

void FrameStream::fail(std::string_view reason, std::string_view goodbye) {
  sendGoodbyeAndClose(goodbye);
  receiver_->onClosed(reason);
}

void FrameStream::sendGoodbyeAndClose(std::string_view goodbye) {
  stopWatching();
  // A socket that was read to its end holds no unread data; detach() closes it directly.
  if (!reader_.hasReachedEnd()) {
    if (state_ == State::tooSlow) writer_.dropUnbegunFrames();
    // A peer that does not read an answer larger than any other message gets no more of it, so that
    // it is not held any longer.
    if (writer_.waitingBytes() > 2 * limits::kFrameBytes) return detach();
    if (!goodbye.empty()) {
      const MessagePool::Borrowed message = context_.messages().borrow();
      writeGoodbye(*message, goodbye);
      writer_.append(*message, context_);
    }
    lingerAndClose(std::move(socket_), writer_.release(), std::move(terms_.admission), user(),
                   context_.reactor());
  }
  detach();
}

void FrameStream::detach() {
  if (state_ == State::tooSlow) --context_.droppedReaderCount();
  state_ = State::writeFailed;
  stopWatching();
  cancelEndOfTurn();
  context_.backlogs().update(this, user(), 0, 0);
  if (progressTimer_ != 0) context_.reactor().cancel(std::exchange(progressTimer_, 0));
  if (retryTimer_ != 0) {
    context_.reactor().cancel(std::exchange(retryTimer_, 0));
    --context_.stuckStreamCount();
  }
  accountedOwnBytes_ = 0;
  reader_.files().clear();
  updateFileCount();
  context_.noteReleased(chargedBytes_ + limits::kConnectionBytes);
  terms_.quota->account->refund(std::exchange(chargedBytes_, 0));
  // A stream that was never started has read nothing.
  if (socket_ && !reader_.hasReachedEnd()) {
    return closeInBackground(std::move(socket_), std::move(terms_.admission), user());
  }
  socket_.reset();
  terms_.admission = Admission();
}

void FrameStream::watchAsNeeded() {
  if (!socket_) return;
  const bool waitsForRoom = writer_.isBlocked() && retryTimer_ == 0;
  const std::uint32_t events =
      EPOLLIN | EPOLLRDHUP | EPOLLET | (waitsForRoom ? std::uint32_t{EPOLLOUT} : 0u);
  if (events == watchedEvents_) return;
  Reactor& reactor = context_.reactor();
  if (watchedEvents_ == 0) {
    reactor.watch(socket_.get(), events, *this);
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
