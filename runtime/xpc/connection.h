// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "runtime/dispatch/block.h"
#include "runtime/dispatch/reactor.h"
#include "runtime/dispatch/serial_queue.h"
#include "runtime/foundation/error.h"
#include "runtime/foundation/string.h"
#include "runtime/transport/peer_identity.h"
#include "runtime/transport/transport.h"
#include "runtime/wire/limits.h"
#include "runtime/xpc/heavy_turns.h"
#include "runtime/xpc/interface.h"

namespace keel::xpc {

template <class Protocol, class ErrorHandler, class Held>
class RemoteProxy;

// Domain of errors that say why a call could not be made or was not answered; the code is a ConnectionErrorCode.
inline constexpr std::string_view kConnectionErrorDomain = "KLNConnectionErrorDomain";

enum class ConnectionErrorCode : std::int64_t {
  invalid = 1,         // the connection ended, before the call or before its answer
  notImplemented = 2,  // the peer's list lacks that selector
  refused = 3,         // the peer answered with a failure; its code and text are in the user info
  badReply = 4,        // the peer's answer does not fit the method
};

// One connection between two processes. Each side exports an object for the other to call and calls the other's through a
// proxy.
//
// Life: made, configured (interfaces, object, handlers), resumed; from then on the transport's machinery keeps it alive until
// it is invalidated, by either side. Then the invalidation handler runs once, and the exported object and both handlers are let
// go.
//
// Messages and handlers run on the connection's queue: the I/O thread itself, or the queue given with setQueue(). Replies may
// be sent from any thread; everything else belongs on the I/O thread.
class Connection final : public std::enable_shared_from_this<Connection>, public ReplyRoute, private Transport::Receiver {
 public:
  // `options` differ between the daemon's end and a client's.
  struct Options {
    // Whether this side takes sealed memory files.
    bool takesDescriptors = true;
    // The largest value that is taken, however it travels.
    std::size_t receiveLimitBytes = limits::kFrameBytes;
    // Who pays for what the peer sends; borrowed.
    const MemoryQuota* quota = &MemoryQuota::ofProcess();
    // Where heavy requests take turns with those of other connections.
    std::shared_ptr<HeavyTurns> heavyTurns = std::make_shared<HeavyTurns>();
  };

  // Smaller than a Block: idle connections are many.
  using Handler = std::move_only_function<void()>;

  static std::shared_ptr<Connection> create(PeerIdentity peer, std::unique_ptr<Transport> transport, const Options& options);
  ~Connection() override;

  pid_t processIdentifier() const { return peer_.pid; }
  uid_t effectiveUserIdentifier() const { return peer_.uid; }
  std::int32_t auditSessionIdentifier() const { return peer_.auditSession; }
  const PeerIdentity& peer() const { return peer_; }
  const MemoryQuota& quota() const { return *options_.quota; }
  // Stable text for people: "<connection 12 pid 345 (mailmod) uid 501 session 3>".
  std::string description() const;

  // Configuration, before resume().
  void setExportedInterface(const Interface& interface) { exportedInterface_ = &interface; }
  template <class Protocol>
  void setExportedObject(std::shared_ptr<Protocol> object) {
    KEEL_CHECK(exportedInterface_ == &Interface::interfaceWithProtocol<Protocol>());
    exportedObject_ = std::move(object);
  }
  void setRemoteObjectInterface(const Interface& interface) { remoteInterface_ = &interface; }
  // The peer sent something that could not be decoded; the connection stays usable.
  void setInterruptionHandler(Handler handler) { interruptionHandler_ = std::move(handler); }
  void setInvalidationHandler(Handler handler) { invalidationHandler_ = std::move(handler); }
  // Messages and handlers run on `queue` instead of the I/O thread; of the requests, those declared slow run on `slowRequests`,
  // borrowed, in their place in that queue.
  void setQueue(std::shared_ptr<SerialQueue> queue, Executor& slowRequests) {
    queue_ = std::move(queue);
    slowRequests_ = &slowRequests;
  }
  // What the peers say to each other holds secrets: the bytes are wiped wherever they were held, once they are done with.
  void setConfidential() {
    confidential_ = true;
    transport_->setConfidential();
  }
  // Called once, on the I/O thread, when the peer's hello has come and calls can be made.
  void setReadyHandler(Handler handler) { caller().readyHandler = std::move(handler); }

  void resume();
  // Ends the connection from this side; `goodbye`, unless empty, tells the peer why. Idempotent.
  void invalidate(std::string_view goodbye = {});

  // A proxy that sends asynchronously. `onError(Error)` is called on the connection's queue, later, when a call cannot be made
  // or its answer does not come. remote_proxy.h has the calls.
  template <class Protocol, class ErrorHandler>
  RemoteProxy<Protocol, ErrorHandler, std::shared_ptr<Connection>> remoteObjectProxyWithErrorHandler(ErrorHandler onError) {
    return {shared_from_this(), std::move(onError)};
  }

  // The peer's last words, empty when it said none. For the invalidation handler.
  std::string_view farewell() const { return farewell_.isNull() ? std::string_view() : farewell_.view(); }

  // For RemoteProxy.
  using ErrorBlock = std::move_only_function<void(Error)>;
  using ReplyReader = std::move_only_function<bool(ArgumentReader& results, std::uint64_t resultCount)>;
  // The number by which the peer knows the method at `place` of `interface`; negative when it has none, or no hello came yet.
  std::int64_t methodNumber(const Interface& interface, std::size_t place) const;
  bool takesDescriptors() const { return peerTakesDescriptors_ && transport_->maySendFiles(); }
  bool isValid() const { return state_ == State::running; }
  bool isConfidential() const { return confidential_; }
  void sendOneWay(const OutgoingMessage& message) { transport_->send(message, EndOfTurn::Urgency::normal); }
  // Registers the answer's reader and returns the id to send.
  std::uint64_t expectReply(ReplyReader read, ErrorBlock onError);
  // The request cannot be sent after all.
  void unexpectReply(std::uint64_t requestId, Error error);
  void sendRequest(const OutgoingMessage& message) { transport_->send(message, EndOfTurn::Urgency::normal); }
  // Runs onError(error) later, on the connection's queue.
  void reportError(ErrorBlock onError, Error error);

  // ReplyRoute.
  void sendReply(std::uint64_t requestId, std::size_t resultCount, WriteResults write, void* results) override;
  void sendFailure(std::uint64_t requestId, FailureCode code, std::string_view text) override;
  void sendReplies(std::span<const std::uint64_t> requestIds, std::size_t resultCount, WriteResults write,
                   void* results) override;

 private:
  enum class State : std::uint8_t { configured, running, ended };
  struct Expected {
    ReplyReader read;
    ErrorBlock onError;
  };
  // What only a side has that asks for replies: idle connections are many.
  struct Caller {
    Handler readyHandler;
    std::uint64_t nextRequestId = 1;
    std::unordered_map<std::uint64_t, Expected> expected;
  };

  Connection(PeerIdentity peer, std::unique_ptr<Transport> transport, const Options& options);

  // Transport::Receiver.
  void onFrame(std::span<const std::byte> bytes, std::vector<FileDescriptor>& files) override;
  void onOversizedFrame(std::size_t sizeBytes, std::span<const std::byte> beginning) override;
  void onClosed(std::string_view reason) override;
  std::shared_ptr<void> holdAlive() override { return shared_from_this(); }

  Caller& caller() {
    if (!caller_) caller_ = std::make_unique<Caller>();
    return *caller_;
  }
  void queueFrame(std::span<const std::byte> bytes, std::vector<FileDescriptor>& files);
  void sendHello();
  void receiveHello(std::span<const std::byte> bytes);
  // On the connection's queue. `files` are those that the message claims.
  void receive(std::span<const std::byte> bytes, std::vector<FileDescriptor>& files);
  void receiveRequest(cbor::Cursor& cursor, std::uint64_t count, std::vector<FileDescriptor>& files);
  void receiveOneWay(cbor::Cursor& cursor, std::uint64_t count, std::vector<FileDescriptor>& files);
  void receiveAnswer(MessageKind kind, cbor::Cursor& cursor, std::uint64_t count, std::vector<FileDescriptor>& files);
  void dispatch(std::uint64_t method, cbor::Cursor& cursor, std::vector<FileDescriptor>& files, Interface::Call& call);
  // What a heavy request brought, kept until it is its user's turn.
  struct HeavyRequest {
    std::uint64_t method;
    std::uint64_t argumentCount;
    BufferRef arguments;
    std::vector<FileDescriptor> files;
    Interface::Call call;
  };
  void queueHeavy(HeavyRequest request);
  void serveHeavy(HeavyRequest request);
  void serve(std::uint64_t method, ArgumentReader& reader, std::uint64_t argumentCount, Interface::Call& call);
  void receiveGoodbye(cbor::Cursor& cursor, std::uint64_t count);
  // Answers what cannot be served (`requestId` empty for a one-way message) and tells the interruption handler.
  void refuse(std::optional<std::uint64_t> requestId, FailureCode code, std::string_view text);
  void refuseOverQuota(std::optional<std::uint64_t> requestId);
  void interrupted(std::string_view why);
  void sendAnswer(std::uint64_t requestId, OutgoingMessage& message);
  // Returns the new count.
  std::uint32_t changeUnanswered(std::int32_t difference);
  // On the I/O thread.
  void requestAnswered(std::uint64_t requestId);
  void adjustReading();
  void protocolViolation(std::string_view what);
  void end(std::string_view goodbye, bool transportIsClosed);
  void runOnQueue(Block block);
  // Runs the invalidation handler and lets go of everything the connection holds for others.
  void release();

  // What every delivery looks at stands together, in as few cache lines as it takes.
  std::atomic<State> state_ = State::configured;
  bool helloReceived_ = false;
  bool peerTakesDescriptors_ = false;
  bool interruptionLogged_ = false;
  std::atomic<bool> readingPaused_ = false;
  bool inCallee_ = false;  // in a method of the exported object, or in the handler of an interruption
  bool confidential_ = false;
  const Interface* remoteInterface_ = nullptr;
  // Place in remoteInterface_ to the peer's number; shared by connections whose peers have the same list.
  std::shared_ptr<const std::vector<std::int64_t>> methodNumbers_;
  std::unique_ptr<Transport> transport_;
  // What every request looks at.
  std::shared_ptr<SerialQueue> queue_;
  const Interface* exportedInterface_ = nullptr;
  std::shared_ptr<void> exportedObject_;
  std::uint64_t lastRequestId_ = 0;
  // Requests that were dispatched and not answered yet, and bytes of messages that wait on the queue.
  std::atomic<std::uint32_t> unansweredCount_{0};
  std::atomic<std::size_t> queuedBytes_{0};
  // The heavy request that waits for its answer; 0: none does.
  std::atomic<std::uint64_t> heavyRequestId_{0};
  const Options options_;
  const std::uint32_t number_;
  PeerIdentity peer_;
  Executor* slowRequests_ = nullptr;  // with queue_
  Handler interruptionHandler_;
  Handler invalidationHandler_;
  std::unique_ptr<Caller> caller_;  // null: has asked for nothing yet
  String farewell_;
  std::shared_ptr<Connection> keptAlive_;  // from resume() until the end
};

}  // namespace keel::xpc
