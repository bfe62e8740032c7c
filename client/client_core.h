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
#include <unordered_map>
#include <vector>

#include "client/back_off.h"
#include "client/client.h"
#include "client/gate.h"
#include "client/operation.h"
#include "client/publication_record.h"
#include "client/subscription_record.h"
#include "protocols/auth_proxy.h"
#include "protocols/notify_proxy.h"
#include "runtime/dispatch/reactor.h"
#include "runtime/xpc/remote_proxy.h"

namespace keel {

// Which service a client talks to.
enum class ClientService : std::uint8_t { notify, auth };

// The inside of a KLNClient or KLNAuthClient: keeps a connection, sends operations over it, knows
// what the program publishes and follows. It lives on the I/O thread; what may be called from
// elsewhere says so. The program's callbacks are called only through the gate, and never from
// within a call of the program's.
class ClientCore final : public std::enable_shared_from_this<ClientCore> {
 public:
  using Connector = std::function<std::expected<std::shared_ptr<xpc::Connection>, Error>()>;

  // The reactor is borrowed and outlives everything; `process` is where it runs. `socketPath` is
  // for messages; `random` yields numbers from 0 up to 1.
  ClientCore(Reactor& reactor, Connector connector, std::string socketPath, ClientOptions options,
             std::function<double()> random, ClientService service = ClientService::notify,
             pid_t process = ::getpid());

  // From any thread. In a process that was forked since, submit() fails and the others do nothing.
  void start();
  const ClientOptions& options() const { return options_; }
  bool onIoThread() const { return reactor_.isCurrent(); }
  ClientResult<void> submit(std::shared_ptr<Operation> operation,
                            std::chrono::milliseconds timeout);
  void setStateHandler(std::move_only_function<void(const ConnectionState&)> handler);
  void setPublicationHandler(std::move_only_function<void(const PublicationState&)> handler);
  void cancel(std::shared_ptr<SubscriptionRecord> record);
  void close();
  // No callback is called any more; then everything ends.
  void abandon();

  // For operations.
  //
  // Calls a method of the daemon; `answered(core, operation, inTime, results...)` gets the answer.
  // It is not in time when the operation has ended already.
  template <auto Member, class AnOperation, class Answered, class... Arguments>
  void ask(const std::shared_ptr<AnOperation>& operation, Answered answered,
           Arguments&&... arguments) {
    const std::weak_ptr<ClientCore> weak = weak_from_this();
    auto onError = [weak, operation](const Error& error) {
      if (const auto core = weak.lock()) core->couldNotAsk(*operation, error);
    };
    proxy<typename xpc::MemberTraits<decltype(Member)>::Protocol>(std::move(onError))
        .template call<Member>(std::forward<Arguments>(arguments)..., [weak, operation, answered](
                                                                          const auto&... results) {
          const auto core = weak.lock();
          if (core) answered(*core, *operation, core->settle(*operation), results...);
        });
  }
  // Takes the operation off the list. False when it has ended already.
  bool settle(Operation& operation);
  // Runs `callback`, which calls the program.
  template <class Callback>
  void tell(Callback callback) {
    gate_.pass(std::move(callback));
  }
  template <class T>
  void finish(OperationOf<T>& operation, ClientResult<T> result) {
    tell([&] { operation.finish(std::move(result)); });
    operation.drop();
  }
  ClientError answerError(const Operation& operation, const Error& error) const;

  void published(PublicationRecord record);
  void updated(const String& name, Dictionary item);
  void removed(const String& name);
  std::vector<PublicationState> publications() const;
  std::shared_ptr<SubscriptionRecord> subscribed(String name, EventCallback callback);
  // Undoes what was accepted too late.
  void takeBackPublication(const String& name);
  void takeBackSubscription(const String& name);

  // For what is exported to the daemon.
  void deliver(const String& name, Dictionary item, Error error);

 private:
  bool isForked() const { return process_ != ::getpid(); }

  template <class Protocol = protocols::NotifyProxy, class ErrorHandler>
  auto proxy(ErrorHandler onError) {
    return connection_->remoteObjectProxyWithErrorHandler<Protocol>(std::move(onError));
  }

  void begin(std::shared_ptr<Operation> operation);
  void send(Operation& operation);
  void timedOut(std::uint64_t id);
  void couldNotAsk(Operation& operation, const Error& error);
  void fail(Operation& operation, ClientError error);
  // Ends those that were sent, or all, with what `errorOf` makes of each.
  template <class ErrorOf>
  void failOperations(bool all, ErrorOf errorOf);

  void connect();
  void configureForNotify();
  void connected();
  void disconnected(ClientError reason);
  void setState(ConnectionState state);
  void end();

  void restore();
  void restorePublication(const PublicationRecord& record);
  void restoreSubscription(const std::shared_ptr<SubscriptionRecord>& record);
  void publicationRestored(std::uint64_t order, const String& name, Error error);
  void subscriptionRestored(const std::shared_ptr<SubscriptionRecord>& record, Error error);
  void drop(SubscriptionRecord& record);

  Reactor& reactor_;
  const Connector connector_;
  const std::string socketPath_;
  const ClientOptions options_;
  const ClientService service_;
  const pid_t process_;
  // In a forked process, of a core that was started by its parent. Destroyed there, its connection
  // would be taken out of the epoll(7) instance that the two share, and the parent would hear
  // nothing more.
  std::shared_ptr<ClientCore> keptForGood_;
  bool started_ = false;  // written before any other thread has the core
  Gate gate_;
  std::atomic<std::size_t> waitingRequests_{0};
  std::atomic<std::size_t> waitingBytes_{0};

  BackOff backOff_;
  Reactor::TimerId connectTimer_ = 0;
  Reactor::TimerId steadyTimer_ = 0;
  std::shared_ptr<xpc::Connection> connection_;  // null when there is none
  std::uint64_t connectionNumber_ = 0;           // tells the present connection from former ones
  bool ready_ = false;                           // the daemon's hello has come
  bool ended_ = false;
  ConnectionState state_;
  ClientError disconnection_;  // why there is no connection

  std::map<std::uint64_t, std::shared_ptr<Operation>>
      operations_;  // by id, in the order of their beginning
  std::uint64_t nextId_ = 1;
  std::uint64_t nextOrder_ = 1;
  std::unordered_map<String, PublicationRecord, StringHash> publications_;
  std::unordered_map<String, std::shared_ptr<SubscriptionRecord>, StringHash> subscriptions_;
  std::move_only_function<void(const ConnectionState&)> stateHandler_;
  std::move_only_function<void(const PublicationState&)> publicationHandler_;
};

}  // namespace keel
