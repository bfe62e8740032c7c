// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tests/model/step.h"

namespace keel::model {

// A model of the registry's operations called directly, without handlers that clean up after
// clients.
class RegistryModel {
 public:
  using ClientId = std::size_t;

  ClientId connect();
  void die(ClientId client) { clients_[client].alive = false; }

  // Each models the operation of the same name; returns "yes", or "no" with the text of the error.
  std::string publish(ClientId client, const ModelName& name, std::optional<int> value);
  std::string publishItem(ClientId client, const ModelName& name, std::optional<int> value);
  std::string updatePublishedItem(ClientId client, const ModelName& name, std::optional<int> value);
  std::string removePublishedItemForName(ClientId client, const ModelName& name);
  std::string subscribe(ClientId client, const ModelName& name);
  std::string subscribeTo(ClientId client, const ModelName& name);
  std::string removeSubscriptionForName(ClientId client, const ModelName& name);
  // Loses the publisher of that item.
  void losePublisher(const std::string& name);

  void runTurn();

  std::vector<std::string> take(ClientId client);
  // Returns one text per entry, ordered by name.
  std::vector<std::string> table() const;

 private:
  struct Subscription {
    std::string name;
    ClientId client;
    bool updated = false;
  };
  struct Item {
    bool recordsSubscribers = true;
    bool isPublished = false;
    std::optional<ClientId> owner;
    std::optional<int> value;
    bool dated = false;
    std::vector<std::shared_ptr<Subscription>> subscriptions;
  };
  struct Client {
    bool alive = true;
    std::vector<std::string> sent;
  };

  Item* find(const ModelName& name);
  void setData(Item& item, ClientId owner, std::optional<int> value);
  void deliver(const Item& item, Subscription& subscription);
  void attach(const std::shared_ptr<Item>& item, const std::shared_ptr<Subscription>& subscription);
  Subscription* lastOf(const Item& item, ClientId client);

  std::vector<Client> clients_;
  std::map<std::string, std::shared_ptr<Item>> items_;
  std::deque<std::function<void()>> line_;
};

}  // namespace keel::model
