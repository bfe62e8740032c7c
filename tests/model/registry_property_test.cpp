// SPDX-License-Identifier: Apache-2.0
// Calls the registry's operations for several connections directly, most of them in ways that no
// handler does. After each step the results, the deliveries and the whole table match the model.
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <algorithm>
#include <array>
#include <memory>

#include "notify/notification_service.h"
#include "protocols/subscriber_proxy.h"
#include "runtime/dispatch/manual_executor.h"
#include "runtime/foundation/value.h"
#include "tests/model/registry_model.h"
#include "tests/support/fake_client.h"

namespace keel::model {

enum class Operation : std::uint8_t {
  publish,
  publishItem,
  update,
  remove,
  subscribe,
  subscribeTo,
  removeSubscription,
  losePublisher,
  die,
  runTurn,
};

static std::string textOf(Operation kind) {
  constexpr std::array<const char*, 10> kTexts = {
      "publish",     "publishItem",        "update",        "remove", "subscribe",
      "subscribeTo", "removeSubscription", "losePublisher", "die",    "runTurn"};
  return kTexts.at(static_cast<std::size_t>(kind));
}

namespace {

using testing::FakeClient;
using testing::Received;

struct ListeningClient {
  ListeningClient(ManualExecutor& executor, RegistryModel& model)
      : client(executor), id(model.connect()) {
    client.connection()->setRemoteObjectInterface(
        xpc::Interface::interfaceWithProtocol<protocols::SubscriberProxy>());
    client.connection()->resume();
    address = client.connection();
  }

  std::vector<std::string> take() {
    std::vector<std::string> texts;
    for (const Received& each : client.take()) {
      texts.push_back(updateText(each.name.view(), each.item.value().description()) +
                      (each.error ? " " + textOf(each.error) : ""));
    }
    return texts;
  }

  FakeClient client;
  std::weak_ptr<xpc::Connection> address;
  RegistryModel::ClientId id;
};

class World {
 public:
  World() {
    for (std::size_t i = 0; i < kClientCount; ++i)
      clients_.push_back(std::make_unique<ListeningClient>(executor_, model_));
  }

  void run(const Step<Operation>& step) {
    auto& client = *clients_[step.client];
    const auto& connection = client.client.connection();
    const Name name = toName(step.name);
    const Dictionary data = toData(step.value);
    // Results must not depend on whether the caller requests the error.
    Error error;
    Error* const wanted = step.flag ? nullptr : &error;
    const auto expectSame = [&](bool yes, std::string expected) {
      if (wanted == nullptr) expected = expected.substr(0, expected.find(' '));
      RC_ASSERT((yes ? "yes" : wanted == nullptr ? "no" : "no " + textOf(error)) == expected);
    };
    switch (step.kind) {
      case Operation::publish: {
        auto item = service_.newPublishedObjectWith(data, name, 0, 0, connection);
        return expectSame(service_.publish(item, wanted),
                          model_.publish(client.id, step.name, step.value));
      }
      case Operation::publishItem:
        return expectSame(service_.publishItem(data, name, 0, 0, connection, wanted),
                          model_.publishItem(client.id, step.name, step.value));
      case Operation::update:
        return expectSame(service_.updatePublishedItem(data, name, connection, wanted),
                          model_.updatePublishedItem(client.id, step.name, step.value));
      case Operation::remove:
        return expectSame(service_.removePublishedItemForName(name, connection, wanted),
                          model_.removePublishedItemForName(client.id, step.name));
      case Operation::subscribe: {
        const auto subscription = service_.newSubscriptionObjectForName(name, 0, 0, connection);
        return expectSame(service_.subscribe(subscription, wanted),
                          model_.subscribe(client.id, step.name));
      }
      case Operation::subscribeTo:
        return expectSame(service_.subscribeTo(name, connection, 0, wanted),
                          model_.subscribeTo(client.id, step.name));
      case Operation::removeSubscription:
        return expectSame(service_.removeSubscriptionForName(name, connection, wanted),
                          model_.removeSubscriptionForName(client.id, step.name));
      case Operation::losePublisher:
        if (const auto found = service_.published().find(name);
            found != service_.published().end()) {
          found->second->connectionIsInvalid();
        }
        if (step.name) model_.losePublisher(*step.name);
        return;
      case Operation::die:
        client.client.die();
        model_.die(client.id);
        gone_.push_back(std::move(clients_[step.client]));
        clients_[step.client] = std::make_unique<ListeningClient>(executor_, model_);
        return;
      case Operation::runTurn:
        executor_.runOne();
        return model_.runTurn();
    }
  }

  void compare() {
    for (const auto& client : clients_) RC_ASSERT(client->take() == model_.take(client->id));
    RC_ASSERT(table() == model_.table());
    RC_ASSERT(service_.publishers().empty());
  }

 private:
  std::string textOfConnection(const std::shared_ptr<xpc::Connection>& connection) const {
    for (const auto& client : clients_) {
      if (connection && client->client.connection() == connection)
        return std::to_string(client->id);
    }
    return connection ? "somebody gone" : "nobody";
  }
  std::vector<std::string> table() {
    std::vector<std::string> entries;
    for (const auto& [name, item] : service_.published()) {
      std::string subscribers;
      if (item->subscribers() != nullptr) {
        for (const auto& each : item->subscribers()->allObjects()) {
          subscribers += " " + textOfConnection(each->owner()) + (each->lastUpdated() ? "+" : "-");
        }
      }
      entries.push_back(
          fmt::format("{}{} of {} {} {}:{}", name.view(), item->delegate() ? "" : " placeholder",
                      textOfConnection(item->owner()), item->data().value().description(),
                      item->lastUpdated() ? "dated" : "undated", subscribers));
    }
    std::ranges::sort(entries, {},
                      [](const std::string& entry) { return entry.substr(0, entry.find(' ')); });
    return entries;
  }

  ManualExecutor executor_;
  KLNNotificationService service_{executor_};
  RegistryModel model_;
  std::vector<std::unique_ptr<ListeningClient>> clients_;
  std::vector<std::unique_ptr<ListeningClient>> gone_;
};

RC_GTEST_PROP(Model, TheRegistryAnswersAsTheModelSays, ()) {
  const auto steps = *sequencesOf<Operation>({{3, Operation::publish},
                                              {3, Operation::publishItem},
                                              {3, Operation::update},
                                              {3, Operation::remove},
                                              {4, Operation::subscribe},
                                              {4, Operation::subscribeTo},
                                              {2, Operation::removeSubscription},
                                              {1, Operation::losePublisher},
                                              {1, Operation::die},
                                              {4, Operation::runTurn}});
  World world;
  for (const auto& step : steps) {
    world.run(step);
    world.compare();
  }
}

}  // namespace
}  // namespace keel::model
