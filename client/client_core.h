// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <expected>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "client/back_off.h"
#include "client/client.h"
#include "client/client_records.h"
#include "client/gate.h"
#include "client/operation.h"
#include "protocols/auth_proxy.h"
#include "protocols/notify_proxy.h"
#include "runtime/dispatch/reactor.h"
#include "runtime/xpc/remote_proxy.h"

namespace keel {

// Which service a client talks to.
enum class ClientService : std::uint8_t { notify, auth };

// The implementation of KLNClient and KLNAuthClient: keeps a connection, sends operations over it,
// and records the program's publications and subscriptions. Lives on the I/O thread; methods that
// may be called from other threads say so. The program's callbacks run only through the gate, and
// never within a call by the program.
class ClientCore final : public std::enable_shared_from_this<ClientCore> {
 public:
  using Connector = std::function<std::expected<std::shared_ptr<xpc::Connection>, Error>()>;

  // The reactor is borrowed and outlives the core; `process` is the process that runs it.
  // `socketPath` is for messages; `random` returns numbers in [0, 1).
  ClientCore(Reactor& reactor, Connector connector, std::string socketPath, ClientOptions options,
             std::function<double()> random, ClientService service = ClientService::notify,
             pid_t process = ::getpid());

  // These may be called from any thread. In a forked process submit() fails and the others do
  // nothing.
  void start();
  const ClientOptions& options() const { return options_; }
  bool onIoThread() const { return reactor_.isCurrent(); }
  ClientResult<void> submit(std::shared_ptr<Operation> operation,
                            std::chrono::milliseconds timeout);
  void setStateHandler(std::move_only_function<void(const ConnectionState&)> handler);
  void setPublicationHandler(std::move_only_function<void(const PublicationState&)> handler);
  void cancel(std::shared_ptr<SubscriptionRecord> record);
  void close();
  // Stops all callbacks, then ends everything.
  void abandon();

  // For operations.
  //
  // Calls a method of the daemon and passes the answer to `answered(core, operation, inTime,
  // results...)`; `inTime` is false if the operation has ended already.
  template <auto Member, class AnOperation, class Answered, class... Arguments>
  void ask(const std::shared_ptr<AnOperation>& operation, Answered answered,
           Arguments&&... arguments) {
    const std::weak_ptr<ClientCore> weak = weak_from_this();
    auto onError = [weak, operation](const Error& error) {
      if (const auto core = weak.lock()) core->callFailed(*operation, error);
    };
    proxy<typename xpc::MemberTraits<decltype(Member)>::Protocol>(std::move(onError))
        .template call<Member>(std::forward<Arguments>(arguments)..., [weak, operation, answered](
                                                                          const auto&... results) {
          const auto core = weak.lock();
          if (core) answered(*core, *operation, core->settle(*operation), results...);
        });
  }
  // Removes the operation from the list. Returns false if it has ended already.
  bool settle(Operation& operation);
  // Runs `callback`, which calls the program, through the gate.
  template <class Callback>
  void runCallback(Callback callback) {
    gate_.pass(std::move(callback));
  }
  template <class T>
  void finish(OperationOf<T>& operation, ClientResult<T> result) {
    runCallback([&] { operation.finish(std::move(result)); });
    operation.drop();
  }
  ClientError answerError(const Operation& operation, const Error& error) const;

  ClientRecords& records() { return records_; }

 private:
  bool isForked() const { return process_ != ::getpid(); }

  template <class Protocol, class ErrorHandler>
  auto proxy(ErrorHandler onError) {
    return connection_->remoteObjectProxyWithErrorHandler<Protocol>(std::move(onError));
  }

  void begin(std::shared_ptr<Operation> operation);
  void send(Operation& operation);
  void timedOut(std::uint64_t id);
  void callFailed(Operation& operation, const Error& error);
  void fail(Operation& operation, ClientError error);
  // Fails the operations that were sent, or all of them, with `errorOf(operation)`.
  template <class ErrorOf>
  void failOperations(bool all, ErrorOf errorOf);

  void connect();
  void configureForNotify();
  void connected();
  void disconnected(ClientError reason);
  void setState(ConnectionState state);
  void end();

  Reactor& reactor_;
  const Connector connector_;
  const std::string socketPath_;
  const ClientOptions options_;
  const ClientService service_;
  const pid_t process_;
  // Leaks a core that the parent started, in a forked process. Destroying it there would remove its
  // connection from the epoll(7) instance that the two share, and the parent would miss every
  // further event.
  std::shared_ptr<ClientCore> leakedAfterFork_;
  bool started_ = false;  // written before the core is shared with other threads
  Gate gate_;
  ClientRecords records_{gate_};
  std::atomic<std::size_t> waitingRequests_{0};
  std::atomic<std::size_t> waitingBytes_{0};

  BackOff backOff_;
  Reactor::TimerId connectTimer_ = 0;
  Reactor::TimerId steadyTimer_ = 0;
  std::shared_ptr<xpc::Connection> connection_;  // null: none
  std::uint64_t connectionNumber_ = 0;           // distinguishes the connection from earlier ones
  bool ready_ = false;                           // the daemon's hello has arrived
  bool ended_ = false;
  ConnectionState state_;
  ClientError disconnection_;  // the reason for having no connection

  std::map<std::uint64_t, std::shared_ptr<Operation>>
      operations_;  // by id, in the order of submission
  std::uint64_t nextId_ = 1;
  std::move_only_function<void(const ConnectionState&)> stateHandler_;
};

}  // namespace keel
