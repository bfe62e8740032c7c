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

// Messages from the library's thread to the one that waits for them with poll(2). Full, it makes
// the sender wait: then the daemon is not read any more, and its limit for slow readers holds, not
// our memory.
template <class Message>
class Mailbox {
 public:
  static constexpr std::size_t kMessages = 1024;
  static constexpr std::size_t kBytes = 64u << 20;

  Mailbox() : readable_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}
  Mailbox(const Mailbox&) = delete;
  Mailbox& operator=(const Mailbox&) = delete;
  ~Mailbox() { ::close(readable_); }

  // Readable when there may be messages.
  int descriptor() const { return readable_; }

  // `bytes` is what the message holds.
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

  // Senders wait no more, and what they send is dropped.
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
