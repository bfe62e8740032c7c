// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <expected>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "runtime/dispatch/block.h"
#include "runtime/dispatch/serial_queue.h"
#include "runtime/foundation/error.h"
#include "runtime/foundation/string.h"
#include "runtime/transport/peer_identity.h"
#include "runtime/transport/transport.h"
#include "runtime/transport/transport_context.h"
#include "runtime/wire/limits.h"
#include "runtime/xpc/heavy_request_queue.h"
#include "runtime/xpc/interface.h"
#include "runtime/xpc/pending_replies.h"
#include "runtime/xpc/request_server.h"

namespace keel::xpc {

template <class Protocol, class ErrorHandler>
class RemoteProxy;

// Domain of the errors of calls that could not be made or were not answered; the code is a
// ConnectionErrorCode.
inline constexpr std::string_view kConnectionErrorDomain = "KLNConnectionErrorDomain";

enum class ConnectionErrorCode : std::int64_t {
  invalid = 1,         // the connection ended, before the call or before its answer
  notImplemented = 2,  // the peer's list lacks that selector
  refused = 3,         // the peer answered with a failure; its code and text are in the user info
  badReply = 4,        // the peer's answer does not fit the method
};
Error connectionError(ConnectionErrorCode code, std::string_view description);

// A connection between two processes. Each side exports an object for the other to call, and calls
// the other's through a proxy (remote_proxy.h). RequestServer is the serving half.
//
// Life: created, configured (interfaces, object, handlers), resumed; from then on the transport
// keeps it alive until either side invalidates it. Then the invalidation handler runs once, and the
// exported object and both handlers are released.
//
// Messages and handlers run on the connection's queue: the I/O thread itself, or the queue given
// with setQueue(). Replies may be sent from any thread; everything else belongs on the I/O thread.
// Destroyed on the I/O thread.
class Connection final : public std::enable_shared_from_this<Connection>,
                         public ReplyRoute,
                         private Transport::Receiver {
 public:
  // `options` differ between the daemon's end and a client's.
  struct Options {
    // This side accepts sealed memory files.
    bool takesDescriptors = true;
    // Upper bound of a received value, in a frame or in a file.
    std::size_t receiveLimitBytes = limits::kFrameBytes;
    // Pays for what the peer sends; borrowed.
    const MemoryQuota* quota = &MemoryQuota::ofProcess();
    // Checks large messages, one of a user at a time. Null: they are checked as they are received.
    std::shared_ptr<SerialQueue> checks{};
    // Shared with the other connections of the service.
    std::shared_ptr<HeavyRequestQueue> heavyRequests = std::make_shared<HeavyRequestQueue>();
  };

  // Smaller than a Block: idle connections are many.
  using Handler = std::move_only_function<void()>;
  using ErrorBlock = PendingReplies::ErrorBlock;

  static std::shared_ptr<Connection> create(PeerIdentity peer, std::unique_ptr<Transport> transport,
                                            const Options& options);
  ~Connection() override;

  pid_t processIdentifier() const { return peer_.pid; }
  uid_t effectiveUserIdentifier() const { return peer_.uid; }
  std::int32_t auditSessionIdentifier() const { return peer_.auditSession; }
  const PeerIdentity& peer() const { return peer_; }
  const MemoryQuota& quota() const { return *options_.quota; }
  // Returns a stable text for people: "<connection 12 pid 345 (mailmod) uid 501 session 3>".
  std::string description() const;

  // Configuration, before resume().
  void setExportedInterface(const Interface& interface) { server_.setInterface(interface); }
  template <class Protocol>
  void setExportedObject(std::shared_ptr<Protocol> object) {
    KEEL_CHECK(server_.interface() == &Interface::interfaceWithProtocol<Protocol>());
    server_.setObject(std::move(object));
  }
  void setRemoteObjectInterface(const Interface& interface) { remoteInterface_ = &interface; }
  // Called when the peer sent something that could not be decoded; the connection stays usable.
  void setInterruptionHandler(Handler handler) { interruptionHandler_ = std::move(handler); }
  void setInvalidationHandler(Handler handler) { invalidationHandler_ = std::move(handler); }
  // Runs messages and handlers on `queue` instead of the I/O thread, and requests declared slow on
  // `slowRequests`, borrowed, in the queue's order.
  void setQueue(std::shared_ptr<SerialQueue> queue, Executor& slowRequests);
  // Declares that messages hold secrets: every buffer that held them is wiped after use.
  void setConfidential();
  // Called once, on the I/O thread, when the peer's hello has arrived and calls can be made.
  void setReadyHandler(Handler handler) { asking().readyHandler = std::move(handler); }

  void resume();
  // Ends the connection from this side and sends `goodbye`, the reason, unless empty. Idempotent.
  void invalidate(std::string_view goodbye = {});
  bool isValid() const { return state_ == State::running; }
  // Returns the text of the peer's goodbye; empty if it sent none. For the invalidation handler.
  std::string_view goodbye() const {
    return goodbye_.isNull() ? std::string_view() : goodbye_.view();
  }

  // Returns a proxy that sends asynchronously. `onError(Error)` runs later, on the connection's
  // queue, when a call cannot be made or its reply does not arrive.
  template <class Protocol, class ErrorHandler>
  RemoteProxy<Protocol, ErrorHandler> remoteObjectProxyWithErrorHandler(ErrorHandler onError) {
    return {shared_from_this(), std::move(onError)};
  }

  // For callers that encode calls to the peer themselves.

  // Returns the peer's index of a method, or the error to report when it cannot be called.
  template <auto Member>
  std::expected<std::int64_t, Error> indexOf() const {
    using Protocol = typename MemberTraits<decltype(Member)>::Protocol;
    return indexAt(Interface::interfaceWithProtocol<Protocol>(),
                   MethodsOf<Protocol>::template indexOf<Member>());
  }
  bool takesDescriptors() const { return peerTakesDescriptors_ && transport_->maySendFiles(); }
  bool isConfidential() const { return confidential_; }
  TransportContext& context() const { return transport_->context(); }
  void send(const OutgoingMessage& message) {
    transport_->send(message, EndOfTurnHook::Urgency::normal);
  }
  PendingReplies& pendingReplies() { return asking().pending; }
  // Runs onError(error) later, on the connection's queue.
  void reportError(ErrorBlock onError, Error error);

  // ReplyRoute.
  void sendReply(std::uint64_t requestId, std::size_t resultCount, WriteResults write,
                 void* results) override;
  void sendFailure(std::uint64_t requestId, FailureCode code, std::string_view text) override;
  void sendReplies(std::span<const std::uint64_t> requestIds, std::size_t resultCount,
                   WriteResults write, void* results) override;

 private:
  friend class RequestServer;
  enum class State : std::uint8_t { configured, running, ended };
  // State of a side that expects replies. Allocated lazily: idle connections are many.
  struct Asking {
    Handler readyHandler;
    PendingReplies pending;
  };

  Connection(PeerIdentity peer, std::unique_ptr<Transport> transport, const Options& options);

  // Transport::Receiver.
  void onFrame(std::span<const std::byte> bytes, std::vector<FileDescriptor>& files) override;
  void onOversizedFrame(std::size_t sizeBytes, std::span<const std::byte> beginning) override;
  void onClosed(std::string_view reason) override;
  std::shared_ptr<void> holdAlive() override { return shared_from_this(); }

  Asking& asking();
  void receiveHello(std::span<const std::byte> bytes);
  void checkFrame(std::span<const std::byte> bytes, SealedValues values);
  void queueFrame(std::span<const std::byte> bytes, SealedValues& values);
  // On the connection's queue.
  void receive(std::span<const std::byte> bytes, SealedValues& values);
  void receiveReply(cbor::Cursor& cursor, std::uint64_t count, SealedValues& values);
  void receiveFailure(cbor::Cursor& cursor, std::uint64_t count);
  void receiveGoodbye(cbor::Cursor& cursor, std::uint64_t count);
  std::optional<PendingReplies::Reply> takePending(cbor::Cursor& cursor);
  void interrupted(std::string_view why);
  void protocolViolation(std::string_view what);

  std::expected<std::int64_t, Error> indexAt(const Interface& interface, std::size_t index) const;
  void end(std::string_view text, bool transportIsClosed);
  void failPending(const String& goodbye);
  // Runs the invalidation handler and releases everything the connection holds for others.
  void release();
  void runOnQueue(Block block);

  // For RequestServer.
  const Options& options() const { return options_; }
  Transport& transport() { return *transport_; }
  bool hasQueue() const { return queue_ != nullptr; }
  // Calls `call`, which may end the connection; release() then waits until `call` has returned.
  template <class Call>
  auto inCallee(Call call) {
    struct Restore {
      bool& flag;
      const bool outer = std::exchange(flag, true);
      ~Restore() { flag = outer; }
    } const restore{inCallee_};
    return call();
  }

  // Members that every delivery reads are together, in as few cache lines as possible.
  std::atomic<State> state_ = State::configured;
  bool helloReceived_ = false;
  bool peerTakesDescriptors_ = false;
  bool interruptionLogged_ = false;
  bool inCallee_ = false;  // in the exported object or the interruption handler
  bool confidential_ = false;
  const Interface* remoteInterface_ = nullptr;
  TransportContext::MethodIndexes methodIndexes_;
  std::unique_ptr<Transport> transport_;
  std::shared_ptr<SerialQueue> queue_;
  RequestServer server_;
  const Options options_;
  const std::uint32_t number_;
  PeerIdentity peer_;
  Executor* slowRequests_ = nullptr;  // with queue_
  Handler interruptionHandler_;
  Handler invalidationHandler_;
  std::unique_ptr<Asking> asking_;  // null: this side has expected no reply yet
  String goodbye_;
  std::shared_ptr<Connection> keptAlive_;  // from resume() until the end
};

}  // namespace keel::xpc
