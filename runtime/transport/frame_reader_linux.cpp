// SPDX-License-Identifier: Apache-2.0
#include "runtime/transport/frame_reader.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "runtime/foundation/secret.h"
#include "runtime/transport/foreign_descriptors.h"
#include "runtime/wire/limits.h"

namespace keel::xpc {

FrameReader::FrameReader(std::size_t frameLimitBytes)
    : splitter_(frameLimitBytes, limits::kFrameBytesFromDaemon) {}

void FrameReader::setConfidential() {
  confidential_ = true;
  splitter_.setConfidential();
}

FrameReader::Outcome FrameReader::read(int socket, TransportContext& context) {
  // The kept beginning of a frame goes in front of its rest; a long one stays where it is.
  const std::span<std::byte> buffer = context.readBuffer();
  const std::size_t kept =
      splitter_.keptBytes() <= TransportContext::kHeadroomBytes ? splitter_.take(buffer) : 0;
  Reactor& reactor = context.reactor();
  iovec vector{buffer.data() + kept, reactor.readBudgetBytes()};
  alignas(cmsghdr) std::array<std::byte, CMSG_SPACE(limits::kDescriptorsPerRead * sizeof(int))>
      control;
  msghdr header{};
  header.msg_iov = &vector;
  header.msg_iovlen = 1;
  header.msg_control = control.data();
  header.msg_controllen = control.size();
  ssize_t received = 0;
  do {
    received = ::recvmsg(socket, &header, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
  } while (received < 0 && errno == EINTR);
  const int problem = received < 0 ? errno : 0;
  filled_ = buffer.first(kept + (received > 0 ? static_cast<std::size_t>(received) : 0));
  splitter_.give(filled_);
  inRead_ = true;
  Outcome outcome;
  if (received > 0) {
    const auto bytes = static_cast<std::size_t>(received);
    reactor.noteRead(bytes);
    // The kernel ends a read behind the bytes that descriptors came with.
    outcome.wasShort = bytes < vector.iov_len && header.msg_controllen == 0;
    if (header.msg_controllen > 0) takeFiles(header, outcome);
  } else if (received == 0) {
    reachedEnd_ = true;
    outcome.kind = Outcome::Kind::end;
  } else if (problem == EAGAIN || problem == EWOULDBLOCK) {
    outcome.kind = Outcome::Kind::nothing;
  } else {
    outcome.kind = Outcome::Kind::failed;
    outcome.problem = problem;
  }
  return outcome;
}

void FrameReader::takeFiles(msghdr& header, Outcome& outcome) {
  std::size_t count = 0;
  for (cmsghdr* item = CMSG_FIRSTHDR(&header); item != nullptr; item = CMSG_NXTHDR(&header, item)) {
    if (item->cmsg_level != SOL_SOCKET || item->cmsg_type != SCM_RIGHTS) continue;
    for (std::size_t at = CMSG_LEN(0); at + sizeof(int) <= item->cmsg_len;
         at += sizeof(int), ++count) {
      int number = -1;
      std::memcpy(&number, reinterpret_cast<const std::byte*>(item) + at, sizeof(int));
      FileDescriptor descriptor(number);
      if (isMemoryFile(descriptor)) {
        files_.push_back(std::move(descriptor));
      } else {
        outcome.foreign.push_back(std::move(descriptor));
      }
    }
  }
  if (!outcome.foreign.empty()) outcome.violation = "a descriptor that is not a memory file";
  if (count > limits::kDescriptorsPerMessage) outcome.violation = "too many descriptors at once";
  if (!outcome.violation.empty()) outcome.kind = Outcome::Kind::violation;
}

void FrameReader::resume() {
  splitter_.give({});
  inRead_ = true;
}

void FrameReader::endRead() {
  if (!std::exchange(inRead_, false)) return;
  splitter_.keepRest();
  if (confidential_) {
    if (!filled_.empty()) wipe(filled_);
    // Only what handled a frame has had secrets on its stack.
    if (hasFound_) wipeStack();
  }
  hasFound_ = false;
  filled_ = {};
}

}  // namespace keel::xpc
