// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <utility>
#include <vector>

#include "runtime/wire/message.h"

namespace keel::xpc {

// Messages to build in, kept with their memory: a busy daemon allocates none. On one thread.
class MessagePool {
 public:
  // A message of the pool, empty at first, that goes back when this is destroyed.
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
    // Values that it refers to must not live on in the pool.
    message->clear();
    idle_.push_back(std::move(message));
  }

  std::vector<std::unique_ptr<OutgoingMessage>> idle_;
};

}  // namespace keel::xpc
