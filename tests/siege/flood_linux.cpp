// SPDX-License-Identifier: Apache-2.0
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <system_error>
#include <utility>

#include "tests/siege/flood.h"

namespace keel::siege {

namespace {

constexpr int kEventsPerRound = 256;
constexpr int kSendsPerEvent = 4;
constexpr int kPollMilliseconds = 100;
constexpr std::chrono::milliseconds kReconnectPatience{100};

[[noreturn]] void fail(const char* what) {
  throw std::system_error(errno, std::system_category(), what);
}

}  // namespace

ssize_t sendWith(int socket, std::string_view bytes, int file) {
  if (file < 0) return ::send(socket, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  iovec part{.iov_base = const_cast<char*>(bytes.data()), .iov_len = bytes.size()};
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control.data();
  message.msg_controllen = control.size();
  cmsghdr* const head = CMSG_FIRSTHDR(&message);
  head->cmsg_level = SOL_SOCKET;
  head->cmsg_type = SCM_RIGHTS;
  head->cmsg_len = CMSG_LEN(sizeof(int));
  std::memcpy(CMSG_DATA(head), &file, sizeof file);
  return ::sendmsg(socket, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
}

FileDescriptor connectTo(const std::string& path, Deadline deadline) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket) fail("socket");
  while (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) < 0) {
    if (errno != EAGAIN && errno != EINTR) fail("connect");
    if (std::chrono::steady_clock::now() >= deadline) return {};
    ::poll(nullptr, 0, 1);
  }
  return socket;
}

struct Flood::Stream {
  enum class Piece : std::uint8_t { prelude, block, tail, none };

  StreamPlan plan;
  FileDescriptor socket;
  Piece piece = Piece::prelude;
  std::size_t offset = 0;
  bool isSending = true;

  std::string_view rest() const {
    switch (piece) {
      case Piece::prelude:
        return std::string_view(*plan.prelude).substr(offset);
      case Piece::block:
        return std::string_view(plan.block.bytes()).substr(offset);
      case Piece::tail:
        return std::string_view(*plan.tail).substr(offset);
      case Piece::none:
        break;
    }
    return {};
  }

  void advance() {
    offset = 0;
    if (piece == Piece::block && plan.tail) {
      piece = Piece::tail;
    } else if (plan.block.bytes().empty()) {
      piece = Piece::none;
    } else {
      piece = Piece::block;
      plan.block.renumber();
    }
  }
};

Flood::Flood() : epoll_(epoll_create1(EPOLL_CLOEXEC)) {
  if (!epoll_) fail("epoll_create1");
}
Flood::~Flood() = default;

bool Flood::add(StreamPlan plan, Deadline deadline) {
  FileDescriptor socket = connectTo(plan.path, deadline);
  if (!socket) return false;
  Stream& stream = *streams_.emplace_back(std::make_unique<Stream>());
  stream.plan = std::move(plan);
  stream.socket = std::move(socket);
  ++sendingCount_;
  ++outcome_.connectionCount;
  watch(stream, EPOLL_CTL_ADD);
  return true;
}

void Flood::run(Deadline deadline) {
  while (std::chrono::steady_clock::now() < deadline) serve(deadline);
}

void Flood::runUntilSent(Deadline deadline) {
  while (sendingCount_ > 0 && std::chrono::steady_clock::now() < deadline) serve(deadline);
}

void Flood::runUntilReceived(std::uint64_t bytes, Deadline deadline) {
  while (outcome_.receivedBytes < bytes && std::chrono::steady_clock::now() < deadline) {
    serve(deadline);
  }
}

void Flood::serve(Deadline deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
      deadline - std::chrono::steady_clock::now());
  const int patience =
      static_cast<int>(std::clamp<std::int64_t>(left.count(), 1, kPollMilliseconds));
  std::array<epoll_event, kEventsPerRound> events;
  const int count = epoll_wait(epoll_.get(), events.data(), kEventsPerRound, patience);
  for (int i = 0; i < count; ++i) {
    const epoll_event& event = events[static_cast<std::size_t>(i)];
    Stream& stream = *static_cast<Stream*>(event.data.ptr);
    if (event.events & EPOLLOUT) write(stream);
    if (event.events & EPOLLIN && stream.plan.readBytes > 0) {
      read(stream);
    } else if (event.events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) {
      end(stream);
    }
  }
}

void Flood::watch(Stream& stream, int operation) {
  epoll_event event{.events = EPOLLRDHUP, .data = {.ptr = &stream}};
  if (stream.plan.readBytes > 0) event.events |= EPOLLIN;
  if (stream.isSending) event.events |= EPOLLOUT;
  if (epoll_ctl(epoll_.get(), operation, stream.socket.get(), &event) != 0) fail("epoll_ctl");
}

void Flood::write(Stream& stream) {
  for (int i = 0; i < kSendsPerEvent; ++i) {
    std::string_view rest = stream.rest();
    if (rest.empty()) {
      stream.advance();
      rest = stream.rest();
    }
    if (rest.empty()) {
      stream.isSending = false;
      --sendingCount_;
      return watch(stream, EPOLL_CTL_MOD);
    }
    const bool isBeginning = stream.piece == Stream::Piece::block && stream.offset == 0;
    const ssize_t sent = sendWith(stream.socket.get(), rest.substr(0, stream.plan.writeBytes),
                                  isBeginning ? stream.plan.file : -1);
    if (sent < 0) {
      // Too many descriptors of this user are in flight; the socket stays writable meanwhile.
      if (errno == ETOOMANYREFS) ::poll(nullptr, 0, 1);
      return;
    }
    stream.offset += static_cast<std::size_t>(sent);
    outcome_.sentBytes += static_cast<std::size_t>(sent);
    if (stream.plan.writeBytes != kNoLimit) return;
  }
}

void Flood::read(Stream& stream) {
  thread_local std::array<char, 256 << 10> buffer;
  const ssize_t got = ::recv(stream.socket.get(), buffer.data(),
                             std::min(buffer.size(), stream.plan.readBytes), MSG_DONTWAIT);
  if (got > 0) {
    outcome_.receivedBytes += static_cast<std::size_t>(got);
  } else if (got == 0 || (errno != EAGAIN && errno != EINTR)) {
    end(stream);
  }
}

void Flood::end(Stream& stream) {
  ++outcome_.endedCount;
  if (epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, stream.socket.get(), nullptr) != 0) fail("epoll_ctl");
  if (std::exchange(stream.isSending, false)) --sendingCount_;
  if (stream.plan.whenEnded == WhenEnded::stay) return;
  stream.socket =
      connectTo(stream.plan.path, std::chrono::steady_clock::now() + kReconnectPatience);
  if (!stream.socket) return;
  ++outcome_.connectionCount;
  stream.piece = Stream::Piece::prelude;
  stream.offset = 0;
  stream.isSending = true;
  ++sendingCount_;
  watch(stream, EPOLL_CTL_ADD);
}

}  // namespace keel::siege
