// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <utility>
#include <vector>

#include "runtime/wire/message.h"

namespace keel::xpc {

// Recycles messages with their memory, so that a busy daemon allocates none. On one thread.
class MessagePool {
 public:
  // An empty message of the pool, returned on destruction.
  class Borrowed {
   public:
    Borrowed(MessagePool& pool, std::unique_ptr<OutgoingMessage> message)
        : pool_(&pool), message_(std::move(message)) {}
    Borrowed(Borrowed&&) = default;
    Borrowed& operator=(Borrowed&&) = delete;
    ~Borrowed() {
      if (message_) pool_->giveBack(std::move(message_));
    }
    OutgoingMessage& operator*() const { return *message_; }
    OutgoingMessage* operator->() const { return message_.get(); }

   private:
    MessagePool* pool_;
    std::unique_ptr<OutgoingMessage> message_;
  };

  Borrowed borrow() {
    if (idle_.empty()) return Borrowed(*this, std::make_unique<OutgoingMessage>());
    auto message = std::move(idle_.back());
    idle_.pop_back();
    return Borrowed(*this, std::move(message));
  }

 private:
  static constexpr std::size_t kIdleMessages = 16;
  static constexpr std::size_t kLargestKeptBytes = 64u << 10;

  void giveBack(std::unique_ptr<OutgoingMessage> message) {
    if (idle_.size() == kIdleMessages || message->capacityBytes() > kLargestKeptBytes) return;
    // The pool must not keep values alive.
    message->clear();
    idle_.push_back(std::move(message));
  }

  std::vector<std::unique_ptr<OutgoingMessage>> idle_;
};

}  // namespace keel::xpc
