// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <memory>
#include <span>
#include <tuple>
#include <utility>

#include "runtime/xpc/connection.h"
#include "runtime/xpc/fan_out.h"

namespace keel::xpc {

// An error of the connection's own domain with a description.
Error connectionError(ConnectionErrorCode code, std::string_view description);

// Calls the object that the peer exports. Typed by the protocol; a call never waits:
//
//   connection->remoteObjectProxyWithErrorHandler<SubscriberProxy>(onError)
//       .template call<&SubscriberProxy::updateSubscriptionFor>(name, item, flags, error);
//
// A method with a reply takes a block behind its arguments, called with the results on the connection's queue. On the I/O
// thread only.
//
// `onError` is called with the error, or has a block() that makes what is called: then nothing is made unless it is needed. The
// connection is held by the proxy, or with `Held` a pointer by whoever calls.
template <class Protocol, class ErrorHandler, class Held = std::shared_ptr<Connection>>
class RemoteProxy {
 public:
  RemoteProxy(Held connection, ErrorHandler onError) : connection_(std::move(connection)), onError_(std::move(onError)) {}

  template <auto Member, class... Given>
  void call(Given&&... given) {
    using M = typename MethodsOf<Protocol>::template MethodOf<Member>;
    if constexpr (M::kHasReply) {
      static_assert(sizeof...(Given) == std::tuple_size_v<typename M::Sent> + 1, "arguments, then a block for the reply");
      callForReply<M>(std::make_index_sequence<sizeof...(Given) - 1>(), std::forward_as_tuple(std::forward<Given>(given)...));
    } else {
      static_assert(sizeof...(Given) == std::tuple_size_v<typename M::Sent>, "one for each parameter");
      callOneWay<M>(std::index_sequence_for<Given...>(), given...);
    }
  }

  // A one-way call for each of `series`, whose arguments are argumentsOf(each): references to small values
  // (FanOut::kLargestInSeriesBytes). While a FanOut lives, throughout which the series stays as it is, it is encoded once for
  // all connections to which the first call would be the same.
  template <auto Member, class Each, class ArgumentsOf>
  void callSeries(std::span<const Each> series, ArgumentsOf argumentsOf) {
    using M = typename MethodsOf<Protocol>::template MethodOf<Member>;
    static_assert(!M::kHasReply);
    static_assert(requires { onError_.block(); }, "each call may fail");
    sendSeries<M>(series, argumentsOf);
  }

 private:
  // The last one-way call of this method, encoded (fan_out.h). One each for peers that take descriptors and those that do not.
  template <class M>
  struct Memo final : FanOut::Call {
    typename M::Sent arguments;
    std::int64_t number = -1;  // negative: not kept
    // Of a series; `arguments` are those of its first call.
    const void* series = nullptr;
    std::size_t seriesLength = 0;
    OutgoingMessage message;

    void forget() override {
      number = -1;
      arguments = {};
      message.begin();
    }
  };

  // By reference: in a call to many connections in a row, counting references up and down would be a good part of the cost.
  template <class M, std::size_t... Places>
  void callOneWay(std::index_sequence<Places...>, const std::tuple_element_t<Places, typename M::Sent>&... given) {
    const auto arguments = std::tie(given...);
    const std::int64_t number = numberOf<M>();
    if (number < 0) return;
    thread_local std::array<Memo<M>, 2> memos;
    const bool takesDescriptors = connection_->takesDescriptors();
    Memo<M>& memo = memos[takesDescriptors ? 1 : 0];
    FanOut* const fanOut = FanOut::current();
    if (fanOut == nullptr || memo.number != number || !same<M>(memo.arguments, arguments)) {
      memo.message.begin();
      memo.number = -1;
      if (!writeOneWay(memo.message, number, takesDescriptors, arguments))
        return fail(ConnectionErrorCode::refused, "the message is too large");
      if (fanOut != nullptr && fanOut->keep(memo)) {
        memo.arguments = arguments;
        memo.number = number;
      }
    } else if (!connection_->isConfidential()) {
      memo.message.share();
    }
    connection_->sendOneWay(memo.message);
  }

  template <class M, class Each, class ArgumentsOf>
  void sendSeries(std::span<const Each> series, ArgumentsOf argumentsOf) {
    const std::int64_t number = numberOf<M>();
    if (number < 0) {
      // Each call has failed, not only the first.
      for (std::size_t i = 1; i < series.size(); ++i) numberOf<M>();
      return;
    }
    // Small values travel in the message itself, whatever the peer takes.
    thread_local Memo<M> memo;
    FanOut* const fanOut = FanOut::current();
    const bool isKept = fanOut != nullptr && memo.number == number && memo.series == series.data() &&
                        memo.seriesLength == series.size() && same<M>(memo.arguments, argumentsOf(series.front()));
    if (!isKept) {
      memo.number = -1;
      memo.message.begin();
      for (const Each& each : series) {
        if (&each != series.data()) memo.message.beginNext();
        KEEL_CHECK(writeOneWay(memo.message, number, /*takesDescriptors=*/false, argumentsOf(each)));
      }
      if (fanOut != nullptr && fanOut->keep(memo)) {
        memo.arguments = argumentsOf(series.front());
        memo.number = number;
        memo.series = series.data();
        memo.seriesLength = series.size();
      }
    }
    if (memo.number >= 0 && !connection_->isConfidential()) memo.message.share();
    connection_->sendOneWay(memo.message);
  }

  template <class M, std::size_t... Places, class Given>
  void callForReply(std::index_sequence<Places...>, Given given) {
    const std::int64_t number = numberOf<M>();
    if (number < 0) return;
    typename M::Sent arguments(std::forward<std::tuple_element_t<Places, Given>>(std::get<Places>(given))...);
    constexpr std::size_t kBlock = sizeof...(Places);
    auto block = std::forward<std::tuple_element_t<kBlock, Given>>(std::get<kBlock>(given));
    const std::uint64_t id = connection_->expectReply(
        replyReader<M>(std::move(block), static_cast<typename M::ReplyBlock*>(nullptr)), std::move(onError_));
    OutgoingMessage message;
    cbor::Writer writer = message.begin();
    writer.array(4);
    writer.unsignedInteger(static_cast<std::uint64_t>(MessageKind::request));
    writer.unsignedInteger(id);
    writer.unsignedInteger(static_cast<std::uint64_t>(number));
    if (!write(message, connection_->takesDescriptors(), arguments)) {
      return connection_->unexpectReply(id, connectionError(ConnectionErrorCode::refused, "the message is too large"));
    }
    connection_->sendRequest(message);
    if (connection_->isConfidential()) message.wipe();
  }

  template <class M, class Block, class... Results>
  static Connection::ReplyReader replyReader(Block block, Reply<Results...>*) {
    return [block = std::move(block)](ArgumentReader& reader, std::uint64_t count) mutable {
      std::tuple<Results...> results;
      if (count != sizeof...(Results)) return false;
      const bool read = std::apply([&](auto&... each) { return (Argument<Results>::read(reader, each) && ...); }, results);
      if (!read || !reader.cursor.atEnd()) return false;
      std::apply([&](auto&... each) { block(std::move(each)...); }, results);
      return true;
    };
  }

  // Of a frame that has begun.
  template <class Sent>
  static bool writeOneWay(OutgoingMessage& message, std::int64_t number, bool takesDescriptors, const Sent& arguments) {
    cbor::Writer writer = message.writer();
    writer.array(3);
    writer.unsignedInteger(static_cast<std::uint64_t>(MessageKind::oneWay));
    writer.unsignedInteger(static_cast<std::uint64_t>(number));
    return write(message, takesDescriptors, arguments);
  }

  // The arguments, or references to them.
  template <class Sent>
  static bool write(OutgoingMessage& message, bool takesDescriptors, const Sent& arguments) {
    message.writer().array(std::tuple_size_v<Sent>);
    ArgumentWriter writer{message, takesDescriptors};
    std::apply([&](const auto&... each) { (Argument<std::decay_t<decltype(each)>>::write(writer, each), ...); }, arguments);
    return message.finish();
  }

  template <class M, class Given>
  static bool same(const typename M::Sent& left, const Given& right) {
    return [&]<std::size_t... Places>(std::index_sequence<Places...>) {
      return (
          Argument<std::tuple_element_t<Places, typename M::Sent>>::sameAs(std::get<Places>(left), std::get<Places>(right)) &&
          ...);
    }(std::make_index_sequence<std::tuple_size_v<typename M::Sent>>());
  }

  // The peer's number of the method; negative, and the error reported, when the call cannot be made.
  template <class M>
  std::int64_t numberOf() {
    const std::int64_t number = connection_->methodNumber(Interface::interfaceWithProtocol<Protocol>(),
                                                          MethodsOf<Protocol>::template placeOf<M::kMember>());
    if (!connection_->isValid()) {
      fail(ConnectionErrorCode::invalid, "the connection is invalid");
      return -1;
    }
    if (number < 0) fail(ConnectionErrorCode::notImplemented, "the peer does not implement the method");
    return number;
  }

  void fail(ConnectionErrorCode code, std::string_view text);

  Held connection_;
  ErrorHandler onError_;
};

template <class Protocol, class ErrorHandler, class Held>
void RemoteProxy<Protocol, ErrorHandler, Held>::fail(ConnectionErrorCode code, std::string_view text) {
  if constexpr (requires { onError_.block(); }) {
    connection_->reportError(onError_.block(), connectionError(code, text));
  } else {
    connection_->reportError(Connection::ErrorBlock(std::move(onError_)), connectionError(code, text));
  }
}

// A proxy for one call to a connection that the caller holds.
template <class Protocol, class ErrorHandler>
RemoteProxy<Protocol, ErrorHandler, Connection*> borrowedProxyOf(Connection& connection, ErrorHandler onError) {
  return RemoteProxy<Protocol, ErrorHandler, Connection*>(&connection, std::move(onError));
}

}  // namespace keel::xpc
