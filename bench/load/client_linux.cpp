// SPDX-License-Identifier: Apache-2.0
#include "bench/load/client.h"

#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <vector>

namespace keel::bench {

namespace {

// Usually larger than the contents of a socket, so one read empties it.
constexpr std::size_t kReadBytes = 512u << 10;

std::vector<char>& readBuffer() {
  static std::vector<char> buffer(kReadBytes);
  return buffer;
}

[[noreturn]] void fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace

Client::Client(System& system, const Address& address, Role role, std::size_t number)
    : system_(system), socket_(address.connect()), number_(number), session_(role) {
  system_.greet(session_);
}

std::size_t Client::write() const {
  iovec piece{const_cast<char*>(session_.out.data()) + sentBytes_,
              session_.out.size() - sentBytes_};
  msghdr message{};
  message.msg_iov = &piece;
  message.msg_iovlen = 1;
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
  if (session_.file) {
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    cmsghdr* const head = CMSG_FIRSTHDR(&message);
    head->cmsg_level = SOL_SOCKET;
    head->cmsg_type = SCM_RIGHTS;
    head->cmsg_len = CMSG_LEN(sizeof(int));
    const int file = session_.file.get();
    std::memcpy(CMSG_DATA(head), &file, sizeof file);
  }
  const ssize_t sent = sendmsg(socket_.get(), &message, MSG_NOSIGNAL);
  if (sent < 0 && errno != EAGAIN) fail("send");
  return sent < 0 ? 0 : static_cast<std::size_t>(sent);
}

bool Client::flush() {
  while (sentBytes_ < session_.out.size()) {
    const std::size_t sent = write();
    if (sent == 0) {
      forgetSent();
      return false;
    }
    session_.file.reset();
    sentBytes_ += sent;
  }
  session_.out.clear();
  sentBytes_ = 0;
  return true;
}

// Sent bytes are dropped from the front, so that a backlog does not grow without bound.
void Client::forgetSent() {
  if (sentBytes_ < session_.out.size() / 2) return;
  session_.out.erase(0, sentBytes_);
  sentBytes_ = 0;
}

std::size_t Client::read(char* place, std::size_t size) const {
  iovec piece{place, size};
  msghdr message{};
  message.msg_iov = &piece;
  message.msg_iovlen = 1;
  alignas(cmsghdr) std::array<char, CMSG_SPACE(16 * sizeof(int))> control{};
  if (system_.passesFiles()) {
    message.msg_control = control.data();
    message.msg_controllen = control.size();
  }
  const ssize_t got = recvmsg(socket_.get(), &message, MSG_CMSG_CLOEXEC);
  if (got == 0) throw std::runtime_error("the system closed a connection");
  if (got < 0) {
    if (errno == EAGAIN) return 0;
    fail("receive");
  }
  for (cmsghdr* head = CMSG_FIRSTHDR(&message); head != nullptr;
       head = CMSG_NXTHDR(&message, head)) {
    const std::size_t count = (head->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (std::size_t each = 0; each < count; ++each) {
      int file = -1;
      std::memcpy(&file, CMSG_DATA(head) + each * sizeof file, sizeof file);
      close(file);
    }
  }
  return static_cast<std::size_t>(got);
}

void Client::receive() {
  std::vector<char>& buffer = readBuffer();
  if (rest_.size() == buffer.size())
    throw std::runtime_error("a frame is too long to be collected");
  std::memcpy(buffer.data(), rest_.data(), rest_.size());
  const std::size_t got = read(buffer.data() + rest_.size(), buffer.size() - rest_.size());
  if (got == 0) return;
  const std::string_view bytes(buffer.data(), rest_.size() + got);
  const std::size_t consumed = system_.consume(session_, bytes, seen_);
  rest_.assign(bytes.substr(consumed));
}

}  // namespace keel::bench
