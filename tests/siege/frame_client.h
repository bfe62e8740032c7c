// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "runtime/foundation/file_descriptor.h"
#include "tests/siege/flood.h"

namespace keel::siege {

// A non-blocking connection to the daemon. Queues what its socket does not take, and splits its
// input into frames.
class FrameClient {
 public:
  // `socket` is connected.
  explicit FrameClient(FileDescriptor socket) : socket_(std::move(socket)) {}
  // Throws std::runtime_error when the backlog of the listener stays full until `deadline`.
  FrameClient(const std::string& path, Deadline deadline) : socket_(connectTo(path, deadline)) {
    if (!socket_) throw std::runtime_error("the daemon does not accept");
  }

  int descriptor() const { return socket_.get(); }
  bool ended() const { return ended_; }
  bool hasOutput() const { return sentBytes_ < output_.size(); }

  void send(std::string_view bytes) {
    output_ += bytes;
    flush();
  }

  void flush() {
    while (hasOutput() && !ended_) {
      const ssize_t sent = ::send(socket_.get(), output_.data() + sentBytes_,
                                  output_.size() - sentBytes_, MSG_DONTWAIT | MSG_NOSIGNAL);
      if (sent < 0) {
        ended_ = errno != EAGAIN && errno != EINTR;
        return;
      }
      sentBytes_ += static_cast<std::size_t>(sent);
    }
    output_.clear();
    sentBytes_ = 0;
  }

  // Calls `take` with every frame that is complete, its length included.
  template <class Take>
  void read(Take take) {
    thread_local std::array<char, 64 << 10> buffer;
    const ssize_t got = ::recv(socket_.get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR)) ended_ = true;
    if (got <= 0) return;
    input_.append(buffer.data(), static_cast<std::size_t>(got));
    std::size_t offset = 0;
    while (input_.size() - offset >= 4) {
      std::uint32_t length = 0;
      std::memcpy(&length, input_.data() + offset, sizeof length);
      if (input_.size() - offset < 4 + length) break;
      take(std::string_view(input_).substr(offset, 4 + length));
      offset += 4 + length;
    }
    input_.erase(0, offset);
  }

 private:
  FileDescriptor socket_;
  std::string output_;
  std::size_t sentBytes_ = 0;
  std::string input_;
  bool ended_ = false;
};

}  // namespace keel::siege
