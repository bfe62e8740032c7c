// SPDX-License-Identifier: Apache-2.0
//
// The life of a frame on its way in: one recvmsg(2) per turn takes what the socket has, up to the reactor's fair share, into a
// buffer that all streams of the thread share. Whole frames are handed over where they lie; only a frame that came in part is
// copied to the stream's own memory, and put back in front of what the next read brings. So an idle connection owns no buffer
// at all.
//
// On its way out: send() appends to the output queue and asks to be told when the turn ends; then one sendmsg(2) writes all
// that the turn produced for this peer. What the socket does not take stays, and the stream waits for EPOLLOUT.
//
// Nothing here calls the receiver from within a call that the receiver made: a stream that has to end because of what was sent
// (a reader too slow) ends at the end of the turn.
#include "runtime/transport/frame_stream.h"

#include <fmt/format.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "runtime/foundation/secret.h"
#include "runtime/transport/farewell.h"
#include "runtime/transport/foreign_descriptors.h"
#include "runtime/transport/unclaimed_files.h"
#include "runtime/transport/waiting_output.h"
#include "runtime/wire/limits.h"

namespace keel::xpc {

namespace {

// Room in front of what is read for the beginning of a frame that came before; longer beginnings stay with the stream.
constexpr std::size_t kHeadroomBytes = 64u << 10;

std::span<std::byte> readBuffer() {
  constexpr std::size_t kSizeBytes = kHeadroomBytes + Reactor::kMostReadBytes;
  thread_local const auto buffer = std::make_unique_for_overwrite<std::byte[]>(kSizeBytes);
  return {buffer.get(), kSizeBytes};
}

constexpr std::string_view kUnclaimed = "descriptors that no message claims";

WaitingOutput<FrameStream, MemoryAccount>& waitingOutput() {
  thread_local WaitingOutput<FrameStream, MemoryAccount> output;
  return output;
}

UnclaimedFiles<FrameStream, MemoryAccount>& unclaimedFiles() {
  thread_local UnclaimedFiles<FrameStream, MemoryAccount> files;
  return files;
}

// How many streams of this thread wait for the system to take more descriptors.
std::size_t& stuckStreams() {
  thread_local std::size_t count = 0;
  return count;
}

// The one that is being dropped because all of them together hold too much.
FrameStream*& leavingUnderPressure() {
  thread_local FrameStream* leaving = nullptr;
  return leaving;
}

}  // namespace

FrameStream::FrameStream(FileDescriptor socket, Reactor& reactor, Terms terms)
    : socket_(std::move(socket)),
      reactor_(reactor),
      splitter_(std::min(limits::kHelloBytes, terms.frameLimitBytes), limits::kFrameBytesFromDaemon),
      terms_(std::move(terms)) {}

FrameStream::~FrameStream() {
  detach();
}

void FrameStream::start(Receiver& receiver) {
  receiver_ = &receiver;
  watchAsNeeded();
}

void FrameStream::send(const OutgoingMessage& message, EndOfTurn::Urgency urgency) {
  if (!socket_ || ending_) return;
  output_.borrow();
  if (output_->waitingBytes() > limits::kPauseReadingBytes) [[unlikely]] {
    // So much in one turn: what the socket takes goes now, so that only what the peer does not read is held.
    if (!outputBlocked_) write();
    if (problem_ != 0) {
      ending_ = true;
      return reactor_.atEndOfTurn(*this, EndOfTurn::Urgency::normal);
    }
    countWaiting();
    if (ending_) return;
    output_.borrow();
    reactor_.atEndOfTurn(*this, urgency);
  }
  if (confidential_) output_->setConfidential();
  output_->append(message);
  if (!outputBlocked_) {
    reactor_.atEndOfTurn(*this, urgency);
  } else if (output_->ownBytes() != countedOwnBytes_) {
    countWaiting();
  }
}

void FrameStream::countWaiting() {
  const std::size_t waiting = output_ ? output_->waitingBytes() : 0;
  outputFull_ = waiting > limits::kPauseReadingBytes || (outputFull_ && waiting > limits::kPauseReadingBytes / 2);
  const bool counts = outputBlocked_ || outputFull_;
  countedOwnBytes_ = counts ? output_->ownBytes() : 0;
  waitingOutput().note(this, terms_.quota->account, counts ? waiting : 0, countedOwnBytes_);
  if (!counts) return;
  if (waiting > limits::kWaitingBytes) return endSlow();
  // Superseded values are the process's own to pay for (see Buffer::chargeTo). One goes at a time; what it held is free only
  // then.
  if (leavingUnderPressure() != nullptr) return;
  if (waitingOutput().ownBytes() + MemoryAccount::ofProcess().bytes() <= limits::kTotalWaitingBytes) return;
  FrameStream* const most = waitingOutput().heaviest();
  leavingUnderPressure() = most;
  most->endSlow();
}

void FrameStream::endSlow() {
  // Others have their turn in being the heaviest.
  waitingOutput().note(this, terms_.quota->account, 0, 0);
  tooSlow_ = true;
  ending_ = true;
  reactor_.atEndOfTurn(*this, EndOfTurn::Urgency::normal);
}

void FrameStream::setReading(bool reading) {
  if (reading == reading_) return;
  reading_ = reading;
  if (!socket_) return;
  if (reading && splitter_.keptBytes() > 0) {
    handOverPending_ = true;
    reactor_.atEndOfTurn(*this, EndOfTurn::Urgency::normal);
  }
  if (!handingOver_) watchAsNeeded();
}

void FrameStream::liftHelloBound() {
  splitter_.setLimit(terms_.frameLimitBytes);
}

void FrameStream::setConfidential() {
  confidential_ = true;
  splitter_.setConfidential();
}

void FrameStream::close(std::string_view goodbye) {
  if (!socket_) return;
  sayGoodbye(goodbye, /*dropWaiting=*/false);
}

bool FrameStream::maySendFiles() {
  if (stuckStreams() > 0) return false;
  if (unreadFileBytes_ <= limits::kUnreadSealedBytes) return true;
  int unread = 0;
  if (::ioctl(socket_.get(), SIOCOUTQ, &unread) != 0 || unread != 0) return false;
  unreadFileBytes_ = 0;
  return true;
}

void FrameStream::perform(Block block) {
  if (reactor_.isCurrent()) return block();
  reactor_.post(std::move(block));
}

void FrameStream::performLater(Block block) {
  reactor_.post(std::move(block));
}

bool FrameStream::onIoThread() const {
  return reactor_.isCurrent();
}

void FrameStream::onReady(std::uint32_t events) {
  // The verdict stands: its queue must stay as it is until the end of the turn, which says goodbye through it.
  if (ending_) return;
  const std::shared_ptr<void> alive = receiver_->holdAlive();
  if ((events & (EPOLLOUT | EPOLLHUP | EPOLLERR)) != 0 && outputBlocked_) {
    outputBlocked_ = false;
    if (!flush()) return;
  }
  const bool readable = (events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0;
  if (readable && wantsToRead() && !handOverPending_) {
    // What was handed over at the end of the last turn is served in this one, before the end that may be read now.
    const bool servedFirst = std::exchange(handedOverLast_, false);
    if (!servedFirst && !readOnce()) return;
  }
  watchAsNeeded();
}

void FrameStream::onEndOfTurn() {
  const std::shared_ptr<void> alive = receiver_ != nullptr ? receiver_->holdAlive() : nullptr;
  if (tooSlow_) {
    const std::string reason = fmt::format("too slow: {} bytes were waiting", output_->waitingBytes());
    return fail(reason, reason);
  }
  if (keepsFilesUnclaimed_) return fail(kUnclaimed, kUnclaimed);
  if (!flush()) return;
  if (handOverPending_ && wantsToRead()) {
    handOverPending_ = false;
    handedOverLast_ = true;
    splitter_.give({});
    if (!handFramesOver()) return;
  }
  watchAsNeeded();
}

bool FrameStream::readOnce() {
  const std::span<std::byte> buffer = readBuffer();
  const std::size_t kept = splitter_.keptBytes() <= kHeadroomBytes ? splitter_.take(buffer) : 0;
  iovec vector{buffer.data() + kept, reactor_.fairReadBytes()};
  alignas(cmsghdr) std::array<std::byte, CMSG_SPACE(limits::kDescriptorsPerRead * sizeof(int))> control;
  msghdr header{};
  header.msg_iov = &vector;
  header.msg_iovlen = 1;
  header.msg_control = control.data();
  header.msg_controllen = control.size();
  ssize_t received = 0;
  do {
    received = ::recvmsg(socket_.get(), &header, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
  } while (received < 0 && errno == EINTR);
  const std::span<std::byte> all = buffer.first(kept + (received > 0 ? static_cast<std::size_t>(received) : 0));
  const bool goesOn = takeRead(all, header, received < 0 ? -errno : received);
  if (confidential_) {
    wipe(all);
    wipeStack();
  }
  return goesOn;
}

// `received` is what the read yielded: bytes, 0 at the end, or an errno below 0.
bool FrameStream::takeRead(std::span<std::byte> bytes, msghdr& header, ssize_t received) {
  const int problem = received < 0 ? static_cast<int>(-received) : 0;
  const bool again = problem == EAGAIN || problem == EWOULDBLOCK;
  splitter_.give(bytes);
  if (received == static_cast<ssize_t>(header.msg_iov->iov_len)) reactor_.noteFullRead();
  if (received > 0 && header.msg_controllen > 0 && !takeFiles(header)) return false;
  if (received > 0 || again) return handFramesOver();
  splitter_.keepRest();
  readToItsEnd_ = received == 0;
  fail(problem == 0 || problem == ECONNRESET ? std::string_view() : std::string_view(std::strerror(problem)), {});
  return false;
}

bool FrameStream::takeFiles(msghdr& header) {
  std::string_view offence;
  std::size_t count = 0;
  for (cmsghdr* item = CMSG_FIRSTHDR(&header); item != nullptr; item = CMSG_NXTHDR(&header, item)) {
    if (item->cmsg_level != SOL_SOCKET || item->cmsg_type != SCM_RIGHTS) continue;
    for (std::size_t at = CMSG_LEN(0); at + sizeof(int) <= item->cmsg_len; at += sizeof(int), ++count) {
      int number = -1;
      std::memcpy(&number, reinterpret_cast<const std::byte*>(item) + at, sizeof(int));
      FileDescriptor descriptor(number);
      if (isMemoryFile(descriptor)) {
        files_.push_back(std::move(descriptor));
      } else {
        closeElsewhere(std::move(descriptor), terms_.admission, terms_.quota->account);
        offence = "a descriptor that is no memory file";
      }
    }
  }
  countFiles();
  if (count > limits::kDescriptorsPerMessage) offence = "too many descriptors at once";
  if (offence.empty()) return true;
  splitter_.keepRest();
  fail(offence, offence);
  return false;
}

void FrameStream::countFiles() {
  if (files_.size() == countedFiles_) return;
  countedFiles_ = files_.size();
  unclaimedFiles().note(this, terms_.quota->account, countedFiles_);
}

void FrameStream::endForUnclaimedFiles() {
  // Its files are as good as closed.
  unclaimedFiles().note(this, terms_.quota->account, 0);
  keepsFilesUnclaimed_ = true;
  ending_ = true;
  reactor_.atEndOfTurn(*this, EndOfTurn::Urgency::normal);
}

bool FrameStream::chargeKept() {
  const std::size_t kept = splitter_.keptBytes();
  if (kept == chargedKeptBytes_) return true;
  terms_.quota->account->charge(kept);
  terms_.quota->account->refund(std::exchange(chargedKeptBytes_, kept));
  return kept < limits::kHelloBytes || terms_.quota->account->bytes() <= terms_.quota->grantedNameBytes();
}

bool FrameStream::handFramesOver() {
  handingOver_ = true;
  bool tookFile = false;
  // One value in a memory file is enough for a turn: it may be large.
  while (reading_ && !ending_ && !tookFile) {
    const FrameSplitter::Found found = splitter_.next();
    if (found == FrameSplitter::Found::nothing) break;
    if (found == FrameSplitter::Found::garbage) {
      const std::string reason = fmt::format("a frame of {} bytes makes no sense", splitter_.frameSizeBytes());
      splitter_.keepRest();
      fail(reason, reason);
      return false;
    }
    if (found == FrameSplitter::Found::frame) {
      receiver_->onFrame(splitter_.frame(), files_);
    } else {
      receiver_->onOversizedFrame(splitter_.frameSizeBytes(), splitter_.frame());
    }
    if (!socket_) return false;
    tookFile = files_.size() < countedFiles_;
    countFiles();
  }
  handingOver_ = false;
  splitter_.keepRest();
  if (!chargeKept()) {
    constexpr std::string_view kOffence = "its user holds too much here for a message of this size";
    fail(kOffence, kOffence);
    return false;
  }
  if (tookFile && splitter_.keptBytes() > 0) {
    handOverPending_ = true;
    reactor_.atEndOfTurn(*this, EndOfTurn::Urgency::normal);
    return true;
  }
  // Descriptors come with the first byte of their frame: none may be left when no frame is under way.
  if (!files_.empty() && !splitter_.inFrame()) {
    fail(kUnclaimed, kUnclaimed);
    return false;
  }
  if (FrameStream* const offender = unclaimedFiles().offender()) offender->endForUnclaimedFiles();
  return true;
}

void FrameStream::write() {
  if (auto flushed = output_->flush(socket_.get()); !flushed) {
    problem_ = flushed.error().value();
    return;
  }
  unreadFileBytes_ += output_->takeSentFileBytes();
  outputBlocked_ = !output_->empty();
  if (output_->isStuck()) writeAgainLater();
  if (!outputBlocked_) return output_.giveBack();
  output_->unshare();
}

void FrameStream::writeAgainLater() {
  if (writingAgain_ != 0) return;
  ++stuckStreams();
  writingAgain_ = reactor_.after(limits::kSendPause, [this] { writeAgain(); });
}

void FrameStream::writeAgain() {
  const std::shared_ptr<void> alive = receiver_->holdAlive();
  writingAgain_ = 0;
  --stuckStreams();
  if (ending_) return;
  outputBlocked_ = false;
  if (flush()) watchAsNeeded();
}

bool FrameStream::flush() {
  if (output_ && !outputBlocked_ && problem_ == 0) write();
  if (problem_ != 0) {
    // EPIPE and ECONNRESET: the peer is gone; what it sent before is not read any more, as nobody could be answered.
    fail(problem_ == EPIPE || problem_ == ECONNRESET ? std::string_view() : std::string_view(std::strerror(problem_)), {});
    return false;
  }
  if (outputBlocked_ || outputFull_ || countedOwnBytes_ > 0) {
    const bool wasFull = outputFull_;
    countWaiting();
    if (wasFull && !outputFull_ && splitter_.keptBytes() > 0) {
      handOverPending_ = true;
      reactor_.atEndOfTurn(*this, EndOfTurn::Urgency::normal);
    }
  }
  return true;
}

void FrameStream::fail(std::string_view reason, std::string_view goodbye) {
  sayGoodbye(goodbye, tooSlow_);
  receiver_->onClosed(reason);
}

void FrameStream::sayGoodbye(std::string_view goodbye, bool dropWaiting) {
  stopWatching();
  // Nothing can lie in a socket that was read to its end; it is closed at once, with detach().
  if (!readToItsEnd_) {
    if (output_ && dropWaiting) output_->dropUnbegunFrames();
    // Whoever does not read an answer longer than any other message gets no more of it: it must not be held any longer.
    if (output_ && output_->waitingBytes() > 2 * limits::kFrameBytes) return detach();
    if (!goodbye.empty()) {
      OutgoingMessage message;
      writeGoodbye(message, goodbye);
      output_.borrow();
      output_->append(message);
    }
    sendFarewell(std::move(socket_), std::move(output_), std::move(terms_.admission), terms_.quota->account, reactor_);
  }
  detach();
}

void FrameStream::detach() {
  stopWatching();
  cancelEndOfTurn();
  waitingOutput().note(this, terms_.quota->account, 0, 0);
  if (leavingUnderPressure() == this) leavingUnderPressure() = nullptr;
  if (writingAgain_ != 0) {
    reactor_.cancel(std::exchange(writingAgain_, 0));
    --stuckStreams();
  }
  countedOwnBytes_ = 0;
  files_.clear();
  countFiles();
  terms_.quota->account->refund(std::exchange(chargedKeptBytes_, 0));
  // A stream that was never started has read nothing.
  if (socket_ && !readToItsEnd_) return closeElsewhere(std::move(socket_), std::move(terms_.admission), terms_.quota->account);
  socket_.reset();
  terms_.admission.reset();
}

void FrameStream::watchAsNeeded() {
  if (!socket_) return;
  const std::uint32_t events = (wantsToRead() ? EPOLLIN : 0u) | (outputBlocked_ && writingAgain_ == 0 ? EPOLLOUT : 0u);
  if (events == watchedEvents_) return;
  // Not watched at all for no events: a peer that hung up would be told of again and again.
  if (watchedEvents_ == 0) {
    reactor_.watch(socket_.get(), events, *this);
  } else if (events == 0) {
    reactor_.unwatch(socket_.get(), *this);
  } else {
    reactor_.rewatch(socket_.get(), events, *this);
  }
  watchedEvents_ = events;
}

void FrameStream::stopWatching() {
  if (watchedEvents_ != 0) reactor_.unwatch(socket_.get(), *this);
  watchedEvents_ = 0;
}

}  // namespace keel::xpc
