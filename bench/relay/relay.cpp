// SPDX-License-Identifier: Apache-2.0
// The bare relay: the limit of what sockets can do. One thread, one epoll instance. A frame is a
// little-endian length of 4 bytes, and a letter with its parameters:
//   S          from a client: follow; the same frame answers it
//   P payload  a publish: the frame is forwarded unchanged to every follower
//   A count    to a publisher: the number of forwarded publishes (4 bytes)
// All publishes of one read are forwarded with one write per follower and answered with one frame.
// There are no names; nothing is retained, checked or limited.
//
// usage: keel-relay PATH
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "runtime/foundation/file_descriptor.h"

namespace {

constexpr std::size_t kReadBytes = 512u << 10;

struct Peer {
  keel::FileDescriptor socket;
  std::string rest;     // an incomplete frame
  std::string waiting;  // the backlog
};

class Relay {
 public:
  explicit Relay(const char* path);
  void turn();

 private:
  void accept();
  void read(Peer& peer);
  std::size_t pass(Peer& peer, std::string_view bytes);
  void send(Peer& peer, std::string_view bytes);
  void listenTo(const Peer& peer, int operation, bool forRoom);
  void remove(const Peer& peer);

  keel::FileDescriptor listener_{::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)};
  keel::FileDescriptor epoll_{epoll_create1(EPOLL_CLOEXEC)};
  std::unordered_map<int, std::unique_ptr<Peer>> peers_;
  std::vector<Peer*> followers_;
  std::vector<char> buffer_;
};

Relay::Relay(const char* path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path, sizeof address.sun_path - 1);
  if (bind(listener_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      listen(listener_.get(), 4096) != 0) {
    std::perror(path);
    _exit(1);
  }
  epoll_event event{EPOLLIN, {.ptr = nullptr}};
  epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, listener_.get(), &event);
}

void Relay::turn() {
  std::array<epoll_event, 256> events;
  const int count = epoll_wait(epoll_.get(), events.data(), static_cast<int>(events.size()), -1);
  for (int place = 0; place < count; ++place) {
    const epoll_event& event = events[static_cast<std::size_t>(place)];
    if (event.data.ptr == nullptr) {
      accept();
      continue;
    }
    Peer& peer = *static_cast<Peer*>(event.data.ptr);
    if ((event.events & EPOLLOUT) != 0) {
      const std::string waiting = std::exchange(peer.waiting, {});
      send(peer, waiting);
      if (peer.waiting.empty()) listenTo(peer, EPOLL_CTL_MOD, /*forRoom=*/false);
    }
    if ((event.events & ~EPOLLOUT) != 0) read(peer);
  }
}

void Relay::accept() {
  const int socket = accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (socket < 0) return;
  auto& peer = peers_[socket];
  peer = std::make_unique<Peer>();
  peer->socket.reset(socket);
  listenTo(*peer, EPOLL_CTL_ADD, /*forRoom=*/false);
}

void Relay::listenTo(const Peer& peer, int operation, bool forRoom) {
  epoll_event event{forRoom ? EPOLLIN | EPOLLOUT : EPOLLIN, {.ptr = const_cast<Peer*>(&peer)}};
  epoll_ctl(epoll_.get(), operation, peer.socket.get(), &event);
}

void Relay::read(Peer& peer) {
  const std::size_t before = peer.rest.size();
  if (buffer_.size() < before + kReadBytes) buffer_.resize(before + kReadBytes);
  const ssize_t got = recv(peer.socket.get(), buffer_.data() + before, kReadBytes, 0);
  if (got < 0 && errno == EAGAIN) return;
  if (got <= 0) return remove(peer);
  std::memcpy(buffer_.data(), peer.rest.data(), before);
  const std::string_view bytes(buffer_.data(), before + static_cast<std::size_t>(got));
  peer.rest.assign(bytes.substr(pass(peer, bytes)));
}

// Returns the size of the complete frames at the beginning, which are forwarded.
std::size_t Relay::pass(Peer& peer, std::string_view bytes) {
  std::size_t start = 0, end = 0;
  std::uint32_t count = 0;
  while (bytes.size() - end > 4) {
    std::uint32_t size = 0;
    std::memcpy(&size, bytes.data() + end, sizeof size);
    if (bytes.size() - end - 4 < size) break;
    if (bytes[end + 4] == 'S') {
      followers_.push_back(&peer);
      send(peer, bytes.substr(end, 5));
      start = end + 5;
    } else {
      ++count;
    }
    end += 4 + size;
  }
  if (count == 0) return end;
  for (Peer* const follower : followers_) send(*follower, bytes.substr(start, end - start));
  std::array<char, 9> answer{5, 0, 0, 0, 'A'};
  std::memcpy(answer.data() + 5, &count, sizeof count);
  send(peer, {answer.data(), answer.size()});
  return end;
}

void Relay::send(Peer& peer, std::string_view bytes) {
  if (peer.waiting.empty()) {
    const ssize_t sent = ::send(peer.socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent > 0) bytes.remove_prefix(static_cast<std::size_t>(sent));
    // An error is reported as the end of the connection.
    if (bytes.empty()) return;
    listenTo(peer, EPOLL_CTL_MOD, /*forRoom=*/true);
  }
  peer.waiting += bytes;
}

void Relay::remove(const Peer& peer) {
  std::erase(followers_, &peer);
  peers_.erase(peer.socket.get());
}

}  // namespace

int main(int argumentCount, char** arguments) {
  if (argumentCount != 2) return 2;
  for (Relay relay(arguments[1]);;) relay.turn();
}
