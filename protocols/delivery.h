// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <cstdint>
#include <expected>
#include <optional>
#include <span>

#include "runtime/foundation/collections.h"
#include "runtime/foundation/error.h"
#include "runtime/foundation/string.h"
#include "runtime/wire/message_pool.h"
#include "runtime/xpc/connection.h"

namespace keel {

// One fan-out of a name to all its subscribers: a batch of one or more versions of the data, or an
// error. Created by the publish behaviour and passed by reference down to the output queue of every
// subscriber's connection. Lives on the notification input queue.
class Delivery {
 public:
  // The versions, oldest first, null for an item without data; borrowed, as the name is.
  Delivery(const Name& name, std::span<const Dictionary> batch);
  // `error` is not null; borrowed.
  Delivery(const Name& name, const Error& error);
  Delivery(const Delivery&) = delete;
  Delivery& operator=(const Delivery&) = delete;

  const Name& name() const { return name_; }
  // Empty for an error.
  std::span<const Dictionary> batch() const { return batch_; }
  // Null for data.
  const Error& error() const { return error_; }

  // Calls updateSubscriptionFor on what the peer exports, once per version or once with the error,
  // and returns at once. The peer knows the item as `name`, which differs from name() only if the
  // subscription was attached to an item of another name. If a call cannot be made, has the block
  // that `makeOnError()` yields run with the error later, on the connection's queue, once per call.
  template <class MakeOnError>
  void sendTo(xpc::Connection& connection, const Name& name, MakeOnError makeOnError) {
    if (name != name_) [[unlikely]] {
      Delivery renamed(name, batch_, error_);
      return renamed.sendTo(connection, name, makeOnError);
    }
    const std::expected<std::int64_t, Error> index = indexAt(connection);
    const xpc::OutgoingMessage* const message = index ? messageFor(connection, *index) : nullptr;
    if (message != nullptr) return connection.send(*message);
    const Error why = index ? tooLarge() : index.error();
    for (std::size_t i = 0; i < callCount(); ++i) connection.reportError(makeOnError(), why);
  }

 private:
  Delivery(const Name& name, std::span<const Dictionary> batch, const Error& error)
      : name_(name), batch_(batch), error_(error) {}

  // The calls as one message, for peers that list the method under one index.
  struct Encoding {
    std::optional<xpc::MessagePool::Borrowed> message;  // none: not encoded yet
    std::int64_t methodIndex = 0;
    std::uint32_t receiverCount = 0;
  };

  std::size_t callCount() const { return error_ ? 1 : batch_.size(); }
  static std::expected<std::int64_t, Error> indexAt(const xpc::Connection& connection);
  static Error tooLarge();
  // Returns null if it would be too large to send.
  const xpc::OutgoingMessage* messageFor(xpc::Connection& connection, std::int64_t methodIndex);
  bool encode(xpc::OutgoingMessage& message, std::int64_t methodIndex, bool takesDescriptors) const;

  const Name& name_;
  const std::span<const Dictionary> batch_;
  const Error& error_;
  // For peers without and with descriptors.
  std::array<Encoding, 2> encodings_;
};

}  // namespace keel
