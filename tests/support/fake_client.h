// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "protocols/subscriber_proxy.h"
#include "runtime/dispatch/manual_executor.h"
#include "runtime/xpc/connection.h"

namespace keel::testing {

// A decoded message of the daemon to a client.
struct Received {
  enum class Kind : std::uint8_t { update, reply, failure, goodbye };

  Kind kind;
  // Of a reply or failure.
  std::uint64_t requestId = 0;
  // Of a reply: its encoded results. FakeClient::resultsOf() decodes them.
  std::vector<std::byte> results{};
  // Of an update: the arguments of updateSubscriptionFor:withItem:flags:error:.
  Name name{};
  Dictionary item{};
  std::uint64_t flags = 0;
  Error error{};
  // Of a failure or goodbye.
  std::string text{};
};

// A client at the other end of a connection, without a socket: sends a hello and requests, decodes
// and records every message of the daemon, and dispatches callbacks like any client. It dies
// whenever the test wants. The test configures and resumes connection(), as a listener's delegate
// would. Everything runs on the test's thread; deferred work runs on the executor.
class FakeClient {
 public:
  explicit FakeClient(ManualExecutor& executor) : FakeClient(executor, identity(100)) {}
  FakeClient(ManualExecutor& executor, xpc::PeerIdentity peer);
  // Dies, if still alive.
  ~FakeClient();
  FakeClient(const FakeClient&) = delete;
  FakeClient& operator=(const FakeClient&) = delete;

  // Returns the identity of a fictitious process.
  static xpc::PeerIdentity identity(pid_t pid, std::int32_t auditSession = 7);

  // Returns the daemon's end, owned until the client dies; null afterwards.
  const std::shared_ptr<xpc::Connection>& connection() const { return connection_; }
  // Omits methods that an old client lacks. Call it before connection() is resumed.
  void exportSelectors(std::vector<std::string> selectors) { selectors_ = std::move(selectors); }

  // Sends a request for method `Member` of a protocol that the daemon exports; returns its id.
  template <auto Member, class... Arguments>
  std::uint64_t request(Arguments... arguments);
  // Sends a one-way message for a method without a reply.
  template <auto Member, class... Arguments>
  void tell(Arguments... arguments);
  // Sends a message that the daemon cannot serve: the connection is interrupted.
  void sendNonsense();
  // Closes the client's end and releases the connection.
  void die(std::string_view reason = {});

  // Returns the messages received and not yet taken, in order.
  const std::vector<Received>& received() const { return received_; }
  // Returns those messages and clears them.
  std::vector<Received> take();
  // Returns the results of that request; nothing if it is unanswered or was answered with a
  // failure.
  template <auto Member>
  auto resultsOf(std::uint64_t requestId) const;
  bool isAnswered(std::uint64_t requestId) const;
  // Returns the number of sends to it. A batch counts once.
  int sendCount() const { return sendCount_; }
  // Returns the selectors of the daemon's hello.
  const std::vector<std::string>& daemonSelectors() const { return daemonSelectors_; }

 private:
  class FakeTransport;
  class Recorder;
  template <class Results>
  struct ResultsOf;

  template <auto Member>
  using MethodOf = typename xpc::MethodsOf<
      typename xpc::MemberTraits<decltype(Member)>::Protocol>::template MethodOf<Member>;
  template <auto Member>
  std::uint64_t numberOf() const;
  template <class... Arguments>
  void deliver(xpc::OutgoingMessage& message, const std::tuple<Arguments...>& arguments);

  void sayHello();
  void deliver(const xpc::OutgoingMessage& message);
  void onMessage(std::span<const std::byte> frame);
  void onHello(cbor::Cursor& cursor);
  void onAnswer(xpc::MessageKind kind, cbor::Cursor& cursor);
  std::uint64_t numberOf(std::string_view selector) const;

  std::vector<std::string> selectors_;
  std::vector<std::string> daemonSelectors_;
  std::vector<Received> received_;
  std::uint64_t lastRequestId_ = 0;
  int sendCount_ = 0;
  FakeTransport* transport_ = nullptr;  // owned by the connection; null once that is destroyed
  std::shared_ptr<Recorder> recorder_;
  std::shared_ptr<xpc::Connection> connection_;
};

template <auto Member, class... Arguments>
std::uint64_t FakeClient::request(Arguments... arguments) {
  static_assert(MethodOf<Member>::kHasReply);
  xpc::OutgoingMessage message;
  cbor::Writer writer = message.begin();
  writer.array(4);
  writer.unsignedInteger(static_cast<std::uint64_t>(xpc::MessageKind::request));
  writer.unsignedInteger(++lastRequestId_);
  writer.unsignedInteger(numberOf<Member>());
  const std::uint64_t id = lastRequestId_;
  deliver(message, typename MethodOf<Member>::Sent(std::move(arguments)...));
  return id;
}

template <auto Member, class... Arguments>
void FakeClient::tell(Arguments... arguments) {
  static_assert(!MethodOf<Member>::kHasReply);
  xpc::OutgoingMessage message;
  cbor::Writer writer = message.begin();
  writer.array(3);
  writer.unsignedInteger(static_cast<std::uint64_t>(xpc::MessageKind::oneWay));
  writer.unsignedInteger(numberOf<Member>());
  deliver(message, typename MethodOf<Member>::Sent(std::move(arguments)...));
}

template <class... Results>
struct FakeClient::ResultsOf<xpc::Reply<Results...>> {
  static std::optional<std::tuple<Results...>> read(std::span<const std::byte> bytes) {
    cbor::Cursor cursor(bytes);
    std::uint64_t count = 0;
    if (!cursor.array(count) || count != sizeof...(Results)) return std::nullopt;
    xpc::SealedValues noFiles;
    xpc::ArgumentReader reader(cursor.rest(), noFiles, xpc::limits::kFrameBytesFromDaemon);
    std::tuple<Results...> results;
    const bool read = std::apply(
        [&](auto&... each) {
          return (xpc::Argument<std::decay_t<decltype(each)>>::read(reader, each) && ...);
        },
        results);
    if (!read || !reader.cursor.atEnd()) return std::nullopt;
    return results;
  }
};

template <auto Member>
auto FakeClient::resultsOf(std::uint64_t requestId) const {
  using Results = ResultsOf<typename MethodOf<Member>::ReplyBlock>;
  for (const Received& each : received_) {
    if (each.kind == Received::Kind::reply && each.requestId == requestId)
      return Results::read(each.results);
  }
  return decltype(Results::read({}))();
}

template <auto Member>
std::uint64_t FakeClient::numberOf() const {
  return numberOf(MethodOf<Member>::kSelector);
}

template <class... Arguments>
void FakeClient::deliver(xpc::OutgoingMessage& message, const std::tuple<Arguments...>& arguments) {
  message.writer().array(sizeof...(Arguments));
  xpc::ArgumentWriter writer{message, /*takesDescriptors=*/false};
  std::apply(
      [&](const auto&... each) {
        (xpc::Argument<std::decay_t<decltype(each)>>::write(writer, each), ...);
      },
      arguments);
  message.finish();
  deliver(message);
}

}  // namespace keel::testing
