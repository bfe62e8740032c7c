// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <expected>
#include <memory>
#include <tuple>
#include <utility>

#include "runtime/xpc/connection.h"

namespace keel::xpc {

// Appends the arguments, or references to them, and completes the frame. Returns false when it
// would be too large to send.
template <class Sent>
bool finishCall(OutgoingMessage& message, bool takesDescriptors, const Sent& arguments) {
  message.writer().array(std::tuple_size_v<Sent>);
  ArgumentWriter writer{message, takesDescriptors};
  std::apply(
      [&](const auto&... each) {
        (Argument<std::decay_t<decltype(each)>>::write(writer, each), ...);
      },
      arguments);
  return message.finish();
}

// Appends one frame to `message`: a one-way call of method `Member`, which the peer lists under
// `methodIndex`. Returns false when it would be too large to send.
template <auto Member, class... Given>
bool appendOneWayCall(OutgoingMessage& message, std::int64_t methodIndex, bool takesDescriptors,
                      const Given&... given) {
  using Protocol = typename MemberTraits<decltype(Member)>::Protocol;
  using Sent = typename MethodsOf<Protocol>::template MethodOf<Member>::Sent;
  static_assert(sizeof...(Given) == std::tuple_size_v<Sent>, "one for each parameter");
  cbor::Writer writer = message.beginNext();
  writer.array(3);
  writer.unsignedInteger(static_cast<std::uint64_t>(MessageKind::oneWay));
  writer.unsignedInteger(static_cast<std::uint64_t>(methodIndex));
  return finishCall(message, takesDescriptors, std::tuple<const Given&...>(given...));
}

// Calls the object that the peer exports. Typed by the protocol; a call never waits:
//
//   connection->remoteObjectProxyWithErrorHandler<SubscriberProxy>(onError)
//       .call<&SubscriberProxy::updateSubscriptionFor>(name, item, flags, error);
//
// A method with a reply takes a block behind its arguments, called with the results on the
// connection's queue. One proxy makes one call. On the I/O thread only.
template <class Protocol, class ErrorHandler>
class RemoteProxy {
 public:
  RemoteProxy(std::shared_ptr<Connection> connection, ErrorHandler onError)
      : connection_(std::move(connection)), onError_(std::move(onError)) {}

  template <auto Member, class... Given>
  void call(Given&&... given) {
    using M = typename MethodsOf<Protocol>::template MethodOf<Member>;
    const std::expected<std::int64_t, Error> index = connection_->template indexOf<Member>();
    if (!index)
      return connection_->reportError(Connection::ErrorBlock(std::move(onError_)), index.error());
    if constexpr (M::kHasReply) {
      static_assert(sizeof...(Given) == std::tuple_size_v<typename M::Sent> + 1,
                    "arguments, then a block for the reply");
      callForReply<M>(*index, std::make_index_sequence<sizeof...(Given) - 1>(),
                      std::forward_as_tuple(std::forward<Given>(given)...));
    } else {
      static_assert(sizeof...(Given) == std::tuple_size_v<typename M::Sent>,
                    "one for each parameter");
      callOneWay<M>(*index, std::index_sequence_for<Given...>(), given...);
    }
  }

 private:
  static Error tooLarge() {
    return connectionError(ConnectionErrorCode::refused, "the message is too large");
  }

  template <class M, std::size_t... Places>
  void callOneWay(std::int64_t index, std::index_sequence<Places...>,
                  const std::tuple_element_t<Places, typename M::Sent>&... given) {
    const MessagePool::Borrowed message = connection_->context().messages().borrow();
    if (!appendOneWayCall<M::kMember>(*message, index, connection_->takesDescriptors(), given...)) {
      return connection_->reportError(Connection::ErrorBlock(std::move(onError_)), tooLarge());
    }
    send(*message);
  }

  template <class M, std::size_t... Places, class Given>
  void callForReply(std::int64_t index, std::index_sequence<Places...>, Given given) {
    typename M::Sent arguments(
        std::forward<std::tuple_element_t<Places, Given>>(std::get<Places>(given))...);
    constexpr std::size_t kBlock = sizeof...(Places);
    auto block = std::forward<std::tuple_element_t<kBlock, Given>>(std::get<kBlock>(given));
    const std::uint64_t id = connection_->pendingReplies().registerReply(
        replyReader<M>(std::move(block), static_cast<typename M::ReplyBlock*>(nullptr)),
        std::move(onError_));
    const MessagePool::Borrowed message = connection_->context().messages().borrow();
    cbor::Writer writer = message->begin();
    writer.array(4);
    writer.unsignedInteger(static_cast<std::uint64_t>(MessageKind::request));
    writer.unsignedInteger(id);
    writer.unsignedInteger(static_cast<std::uint64_t>(index));
    if (!finishCall(*message, connection_->takesDescriptors(), arguments)) {
      auto pending = connection_->pendingReplies().take(id);
      return connection_->reportError(std::move(pending->onError), tooLarge());
    }
    send(*message);
  }

  void send(OutgoingMessage& message) {
    connection_->send(message);
    if (connection_->isConfidential()) message.wipe();
  }

  template <class M, class Block, class... Results>
  static PendingReplies::Reader replyReader(Block block, Reply<Results...>*) {
    return [block = std::move(block)](ArgumentReader& reader, std::uint64_t count) mutable {
      std::tuple<Results...> results;
      if (count != sizeof...(Results)) return false;
      const bool read = std::apply(
          [&](auto&... each) { return (Argument<Results>::read(reader, each) && ...); }, results);
      if (!read || !reader.cursor.atEnd()) return false;
      std::apply([&](auto&... each) { block(std::move(each)...); }, results);
      return true;
    };
  }

  std::shared_ptr<Connection> connection_;
  ErrorHandler onError_;
};

}  // namespace keel::xpc
