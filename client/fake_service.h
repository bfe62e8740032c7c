// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/product/product.h"
#include "protocols/notify_proxy.h"
#include "protocols/subscriber_proxy.h"
#include "runtime/foundation/value.h"
#include "runtime/xpc/connection.h"
#include "runtime/xpc/remote_proxy.h"

namespace keel {

// A fake of the daemon's end of one client's connection: records calls and sends scripted answers.
class FakeService final : public protocols::NotifyProxy {
 public:
  // The record and script shared by all connections of a test.
  struct Shared {
    std::vector<std::string> calls;
    std::string refusalText;                // description in refusals; empty for none
    std::map<std::string, int> refusals;    // error code by name
    std::map<std::string, Value> lastData;  // by name
    Value dump = Value::list({});
    Value modules = Value::map({});
    bool answers = true;  // if false, answers are held until answerHeld()
  };

  FakeService(Shared& shared, std::shared_ptr<xpc::Connection> connection)
      : shared_(shared), connection_(std::move(connection)) {}

  static void serve(const std::shared_ptr<FakeService>& service) {
    auto& connection = *service->connection_;
    connection.setExportedInterface(
        xpc::Interface::interfaceWithProtocol<protocols::NotifyProxy>());
    connection.setExportedObject<protocols::NotifyProxy>(service);
    connection.setRemoteObjectInterface(
        xpc::Interface::interfaceWithProtocol<protocols::SubscriberProxy>());
    connection.setInvalidationHandler([weak = std::weak_ptr(service)] {
      if (const auto self = weak.lock()) self->ended_ = true;
    });
    connection.resume();
  }

  void end(std::string_view goodbye) {
    connection_->invalidate(goodbye);
    held_.clear();
  }
  bool ended() const { return ended_; }
  std::size_t heldCount() const { return held_.size(); }
  void answerHeld() {
    for (Block& answer : std::exchange(held_, {})) answer();
  }
  void send(const char* name, const Value& data, Error error = nullptr) {
    connection_->remoteObjectProxyWithErrorHandler<protocols::SubscriberProxy>([](Error) {})
        .call<&protocols::SubscriberProxy::updateSubscriptionFor>(Name(name), Dictionary(data),
                                                                  std::uint64_t{0}, error);
  }

  void authCheckForUser(String user, std::int32_t andASID,
                        xpc::Reply<bool, Error> withHandler) override {
    note("authCheck", user);
    answer(std::move(withHandler), andASID == 7, Error());
  }
  void subscribeTo(Name name, std::uint64_t, xpc::Reply<Dictionary, Error> andHandler) override {
    note("subscribe", name);
    answer(std::move(andHandler), Dictionary(), refusalOf(name));
  }
  void unsubscribeFrom(Name name) override { note("unsubscribe", name); }
  void publishItem(Dictionary item, Name name, std::uint64_t flags, std::int64_t value,
                   xpc::Reply<Error> withHandler) override {
    note("publish", name);
    lastFlags = flags;
    lastValue = value;
    shared_.lastData[std::string(name.view())] = item.value();
    answer(std::move(withHandler), refusalOf(name));
  }
  void updatePublishedItem(Dictionary item, Name name, xpc::Reply<Error> withHandler) override {
    note("update", name);
    shared_.lastData[std::string(name.view())] = item.value();
    answer(std::move(withHandler), refusalOf(name));
  }
  void removePublishedItemForName(Name name, xpc::Reply<Error> withHandler) override {
    note("remove", name);
    answer(std::move(withHandler), refusalOf(name));
  }
  void getModuleTableWithHandler(xpc::Reply<Dictionary> handler) override {
    note("modules", "");
    answer(std::move(handler), Dictionary(shared_.modules));
  }
  void dumpNotification(Name name, bool withData, xpc::Reply<Array, Error> andHandler) override {
    note(withData ? "dump with data" : "dump", name);
    answer(std::move(andHandler), Array(shared_.dump), refusalOf(name));
  }

  std::uint64_t lastFlags = 0;
  std::int64_t lastValue = 0;

 private:
  void note(const std::string& what, const String& name) {
    shared_.calls.push_back(what + " " + (name.isNull() ? "(null)" : std::string(name.view())));
  }
  Error refusalOf(const Name& name) const {
    if (name.isNull()) return Error(KLNErrorDomain, errNilName);
    const auto found = shared_.refusals.find(std::string(name.view()));
    if (found == shared_.refusals.end()) return nullptr;
    if (shared_.refusalText.empty()) return Error(KLNErrorDomain, found->second);
    return Error(
        KLNErrorDomain, found->second,
        Dictionary(Value::map({{std::string(NSLocalizedDescriptionKey), shared_.refusalText}})));
  }
  template <class Reply, class... Results>
  void answer(Reply reply, Results... results) {
    if (shared_.answers) return reply(std::move(results)...);
    held_.emplace_back([reply = std::move(reply), ... results = std::move(results)]() mutable {
      reply(std::move(results)...);
    });
  }

  Shared& shared_;
  std::shared_ptr<xpc::Connection> connection_;
  std::vector<Block> held_;
  bool ended_ = false;
};

}  // namespace keel
