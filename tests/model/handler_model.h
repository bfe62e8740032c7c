// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "tests/model/step.h"

namespace keel::model {

// The simplest possible model of the notify service: one queue of requests, and for each client the
// texts of the messages sent to it. It has no behaviours, weak references or indexes.
class HandlerModel {
 public:
  using ClientId = std::size_t;

  // `description` is the text of the connection.
  ClientId connect(std::string description);

  // Requests; `number` is the client's id of them.
  void publish(ClientId client, std::uint64_t request, const ModelName& name,
               std::optional<int> value);
  void update(ClientId client, std::uint64_t request, const ModelName& name,
              std::optional<int> value);
  void remove(ClientId client, std::uint64_t request, const ModelName& name);
  void subscribe(ClientId client, std::uint64_t request, const ModelName& name);
  void unsubscribe(ClientId client, const ModelName& name);
  void dump(ClientId client, std::uint64_t request, const ModelName& name, bool withData);
  void interrupt(ClientId client);
  void die(ClientId client);

  // Serves the requests queued now; requests queued meanwhile are left for the next call.
  void runTurn();
  bool isIdle() const { return line_.empty(); }

  // Returns the messages sent to the client since the last call, except replies to dumps.
  std::vector<std::string> take(ClientId client);
  // Returns all replies to its dumps: each is a snapshot of the moment the dump was served, and may
  // be sent later.
  const std::vector<std::string>& dumps(ClientId client) const { return clients_[client].dumps; }

 private:
  struct Subscription {
    ClientId client;
    bool updated = false;
  };
  struct Item {
    std::string name;
    bool isPublished = false;
    std::optional<ClientId> owner;
    std::optional<int> value;
    bool dated = false;
    std::vector<std::shared_ptr<Subscription>> subscriptions;
  };
  struct Client {
    std::string description;
    bool alive = true;
    int waitingCount = 0;  // queued requests, which keep its connection alive
    std::set<std::string> publications;
    std::map<std::string, std::shared_ptr<Subscription>> subscriptions;
    std::vector<std::string> sent;
    std::vector<std::string> dumps;
  };

  void enqueue(ClientId client, std::function<void()> work);
  static std::string replyText(std::uint64_t request, const std::string& text);
  void reply(ClientId client, std::uint64_t request, const std::string& text);
  bool exists(ClientId client) const {
    return clients_[client].alive || clients_[client].waitingCount > 0;
  }
  std::string connectionText(std::optional<ClientId> client) const;

  void deliver(Item& item, Subscription& subscription);
  void setData(Item& item, std::optional<int> value);
  void detach(const std::string& name, const std::shared_ptr<Subscription>& subscription);
  std::string describe(const Item& item, bool withData) const;

  std::vector<Client> clients_;
  std::map<std::string, std::shared_ptr<Item>> items_;
  std::deque<std::function<void()>> line_;
};

}  // namespace keel::model
