// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "runtime/dispatch/block.h"
#include "runtime/foundation/buffer.h"
#include "runtime/foundation/cbor_cursor.h"
#include "runtime/foundation/file_descriptor.h"
#include "runtime/xpc/heavy_request_queue.h"
#include "runtime/xpc/interface.h"
#include "runtime/xpc/request_ledger.h"

namespace keel::xpc {

class Connection;

// The serving half of a connection: decodes requests and one-way messages, calls the exported
// object, and answers. A message that cannot be served is answered with a failure, and the
// connection stays. Owned by its connection. Messages are received on the connection's queue;
// answers may come from any thread.
class RequestServer {
 public:
  explicit RequestServer(Connection& connection) : connection_(connection) {}
  RequestServer(const RequestServer&) = delete;
  RequestServer& operator=(const RequestServer&) = delete;

  void setInterface(const Interface& interface) { interface_ = &interface; }
  const Interface* interface() const { return interface_; }
  void setObject(std::shared_ptr<void> object) { object_ = std::move(object); }
  // Declares that messages are received off the I/O thread.
  void setShared() { ledger_.setShared(); }

  // `cursor` is behind the message's kind; `count` is the number of the message's elements.
  void receiveRequest(cbor::Cursor& cursor, std::uint64_t count, SealedValues& values);
  void receiveOneWay(cbor::Cursor& cursor, std::uint64_t count, SealedValues& values);
  // Refuses a message whose frame was skipped; `requestId` is empty if it has none.
  void refuseOversized(std::optional<std::uint64_t> requestId, std::string_view text);
  // Answers a message that cannot be served (`requestId` empty for a one-way message) and runs the
  // interruption handler.
  void refuse(std::optional<std::uint64_t> requestId, FailureCode code, std::string_view text);
  // Returns the weight of a message's method without decoding its arguments.
  Weight weightOf(std::span<const std::byte> frame) const;

  // See ReplyRoute.
  void sendReply(std::uint64_t requestId, std::size_t resultCount, ReplyRoute::WriteResults write,
                 void* results);
  void sendFailure(std::uint64_t requestId, FailureCode code, std::string_view text);
  // Returns false, having sent nothing, when the replies cannot travel together.
  bool sendReplies(std::span<const std::uint64_t> requestIds, std::size_t resultCount,
                   ReplyRoute::WriteResults write, void* results);

  // Mark that a message is being checked elsewhere, so the peer is not read. On the I/O thread.
  void checkBegun();
  void checkEnded();
  // Count the messages pending on the connection's queue. On the I/O thread.
  void messageQueued(std::size_t sizeBytes);
  void messageServed(std::size_t sizeBytes);

 private:
  // A heavy request that waits for the user's previous one to finish.
  struct HeavyRequest {
    std::uint64_t method;
    std::uint64_t argumentCount;
    BufferRef arguments;
    SealedValues values;
    Interface::Call call;
  };

  void dispatch(std::uint64_t method, cbor::Cursor& cursor, SealedValues& values,
                Interface::Call& call);
  void queueHeavy(HeavyRequest request);
  void serveHeavy(HeavyRequest request);
  void serve(std::uint64_t method, ArgumentReader& reader, std::uint64_t argumentCount,
             Interface::Call& call);
  void refuseOverQuota(std::optional<std::uint64_t> requestId);
  template <class Build>
  void answer(std::uint64_t requestId, Build build);
  // On the I/O thread.
  void requestAnswered(std::uint64_t requestId);
  void decideOnReading();
  void onIoThread(Block block);

  Connection& connection_;
  const Interface* interface_ = nullptr;
  std::shared_ptr<void> object_;
  std::uint64_t lastRequestId_ = 0;
  RequestLedger ledger_;
};

}  // namespace keel::xpc
