// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/eventfd.h>
#include <unistd.h>

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <optional>
#include <utility>

namespace keel {

// Bounded queue of messages from the library's thread to a thread that polls. A full mailbox blocks
// the sender: the library then stops reading, so the daemon's limit for slow readers applies, and
// memory here stays bounded.
template <class Message>
class Mailbox {
 public:
  static constexpr std::size_t kMessages = 1024;
  static constexpr std::size_t kBytes = 64u << 20;

  Mailbox() : readable_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}
  Mailbox(const Mailbox&) = delete;
  Mailbox& operator=(const Mailbox&) = delete;
  ~Mailbox() { ::close(readable_); }

  // Returns a descriptor that is readable while there may be messages.
  int descriptor() const { return readable_; }

  // `bytes` is the size of the message.
  void push(Message message, std::size_t bytes = 0) {
    std::unique_lock lock(mutex_);
    room_.wait(lock, [&] {
      return closed_ || messages_.empty() ||
             (messages_.size() < kMessages && bytes_ + bytes <= kBytes);
    });
    if (closed_) return;
    messages_.emplace_back(std::move(message), bytes);
    bytes_ += bytes;
    ::eventfd_write(readable_, 1);
  }

  std::optional<Message> take() {
    const std::lock_guard lock(mutex_);
    eventfd_t count = 0;
    if (messages_.size() <= 1) ::eventfd_read(readable_, &count);
    if (messages_.empty()) return std::nullopt;
    auto [message, bytes] = std::move(messages_.front());
    messages_.pop_front();
    bytes_ -= bytes;
    room_.notify_one();
    return std::move(message);
  }

  // Unblocks senders and drops their messages from now on.
  void close() {
    const std::lock_guard lock(mutex_);
    closed_ = true;
    room_.notify_all();
  }

 private:
  const int readable_;
  std::mutex mutex_;
  std::condition_variable room_;
  std::deque<std::pair<Message, std::size_t>> messages_;
  std::size_t bytes_ = 0;
  bool closed_ = false;
};

}  // namespace keel
