// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "client/client_error.h"
#include "runtime/xpc/remote_proxy.h"

namespace keel {

// The part of a KLNModuleConnection that is independent of the protocol. Once connected it lives on
// the I/O thread, except where a comment says otherwise.
class ModuleLink : public std::enable_shared_from_this<ModuleLink> {
 public:
  // May be opened and destroyed on any thread.
  static ClientResult<std::shared_ptr<ModuleLink>> open(const std::string& serviceName,
                                                        const std::string& serviceDirectory,
                                                        const xpc::Interface& remoteInterface);
  explicit ModuleLink(std::string serviceName) : serviceName_(std::move(serviceName)) {}
  void close();
  // Runs `call` once calls can be made; drops it if the connection ends first. From any thread.
  void whenReady(Block call);
  // Returns the reason if no call can be made on this thread or in this process.
  std::optional<ClientError> refusal() const;

  const std::shared_ptr<xpc::Connection>& connection() const { return connection_; }
  ClientError errorOf(const Error& error) const;
  ClientError timedOut(std::chrono::milliseconds timeout) const;
  ClientError lost() const;

 private:
  void end();

  const std::string serviceName_;
  std::shared_ptr<xpc::Connection> connection_;
  std::vector<Block> waiting_;
  bool ready_ = false;
  bool ended_ = false;
};

// A program's connection to the Mach service of a module, which the system starts on demand. It
// lasts until one side ends it: a module exits after a while without connections, so keep none
// that is not needed.
//
//   auto greeter = KLNModuleConnection<GreeterProxy>::open("com.example.greeter");
//   auto answer = (*greeter)->call<&GreeterProxy::greet>(String("Bob"));   //
//   ClientResult<std::tuple<String>>
//
// May be used from any thread.
template <class Protocol>
class KLNModuleConnection {
 public:
  template <class... Results>
  static std::tuple<Results...> resultsOf(xpc::Reply<Results...>*);
  // The results of a method with a reply.
  template <auto Member>
  using Answer = decltype(resultsOf(
      static_cast<typename xpc::MethodsOf<Protocol>::template MethodOf<Member>::ReplyBlock*>(
          nullptr)));

  // An empty `serviceDirectory` is the default, /run/keeld.
  static ClientResult<std::unique_ptr<KLNModuleConnection>> open(
      const std::string& serviceName, const std::string& serviceDirectory = {}) {
    auto link = ModuleLink::open(serviceName, serviceDirectory,
                                 xpc::Interface::interfaceWithProtocol<Protocol>());
    if (!link) return std::unexpected(std::move(link.error()));
    return std::unique_ptr<KLNModuleConnection>(new KLNModuleConnection(std::move(*link)));
  }
  ~KLNModuleConnection() { link_->close(); }
  KLNModuleConnection(const KLNModuleConnection&) = delete;
  KLNModuleConnection& operator=(const KLNModuleConnection&) = delete;

  // Calls and waits for the answer, possibly until the module has started. Fails immediately with
  // `wouldDeadlock` on the library's own thread, and with `forked` in a child forked since.
  template <auto Member, class... Given>
  ClientResult<Answer<Member>> call(Given... given) {
    if (auto refusal = link_->refusal()) return std::unexpected(std::move(*refusal));
    auto promise = std::make_shared<Promise<Answer<Member>>>(link_);
    auto future = promise->future();
    link_->whenReady(
        [link = link_, promise, arguments = std::make_tuple(std::move(given)...)]() mutable {
          auto onError = [link, promise](const Error& error) {
            promise->set(std::unexpected(link->errorOf(error)));
          };
          auto onAnswer = [promise](auto... results) {
            promise->set(Answer<Member>(std::move(results)...));
          };
          auto proxy = link->connection()->template remoteObjectProxyWithErrorHandler<Protocol>(
              std::move(onError));
          std::apply(
              [&](auto&... each) {
                proxy.template call<Member>(std::move(each)..., std::move(onAnswer));
              },
              arguments);
        });
    promise.reset();
    if (future.wait_for(timeout_) == std::future_status::timeout)
      return std::unexpected(link_->timedOut(timeout_));
    return future.get();
  }
  // Sets the timeout of later calls; 30 s by default.
  void setTimeout(std::chrono::milliseconds timeout) { timeout_ = timeout; }

 private:
  // A promise that is fulfilled exactly once, at the latest with lost() when it is destroyed.
  template <class Result>
  class Promise {
   public:
    explicit Promise(std::shared_ptr<ModuleLink> link) : link_(std::move(link)) {}
    ~Promise() { set(std::unexpected(link_->lost())); }
    std::future<ClientResult<Result>> future() { return promise_.get_future(); }
    void set(ClientResult<Result> result) {
      if (!std::exchange(done_, true)) promise_.set_value(std::move(result));
    }

   private:
    const std::shared_ptr<ModuleLink> link_;
    std::promise<ClientResult<Result>> promise_;
    bool done_ = false;
  };

  explicit KLNModuleConnection(std::shared_ptr<ModuleLink> link) : link_(std::move(link)) {}

  const std::shared_ptr<ModuleLink> link_;
  std::chrono::milliseconds timeout_{30'000};
};

}  // namespace keel
