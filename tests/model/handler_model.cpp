// SPDX-License-Identifier: Apache-2.0
#include "tests/model/handler_model.h"

#include <fmt/format.h>

#include <utility>

namespace keel::model {

HandlerModel::ClientId HandlerModel::connect(std::string description) {
  clients_.push_back({.description = std::move(description),
                      .publications = {},
                      .subscriptions = {},
                      .sent = {},
                      .dumps = {}});
  return clients_.size() - 1;
}

void HandlerModel::publish(ClientId client, std::uint64_t request, const ModelName& name,
                           std::optional<int> value) {
  if (!name) return reply(client, request, textOfError(12));
  enqueue(client, [this, client, request, name = *name, value] {
    if (clients_[client].publications.contains(name)) return reply(client, request, textOfError(9));
    auto& item = items_[name];
    if (item && item->isPublished) {
      return reply(client, request,
                   textOfError(9, fmt::format("the key {} has already been published", name)));
    }
    if (!item)
      item =
          std::make_shared<Item>(Item{.name = name, .owner = {}, .value = {}, .subscriptions = {}});
    item->isPublished = true;
    item->owner = client;
    clients_[client].publications.insert(name);
    setData(*item, value);
    reply(client, request, "ok");
  });
}

void HandlerModel::update(ClientId client, std::uint64_t request, const ModelName& name,
                          std::optional<int> value) {
  enqueue(client, [this, client, request, name, value] {
    if (!name || !clients_[client].publications.contains(*name))
      return reply(client, request, textOfError(11));
    setData(*items_.at(*name), value);
    reply(client, request, "ok");
  });
}

void HandlerModel::remove(ClientId client, std::uint64_t request, const ModelName& name) {
  enqueue(client, [this, client, request, name] {
    if (!name || clients_[client].publications.erase(*name) == 0)
      return reply(client, request, textOfError(11));
    const auto item = items_.at(*name);
    if (item->subscriptions.empty()) {
      items_.erase(*name);
    } else {
      item->isPublished = false;
    }
    reply(client, request, "ok");
  });
}

void HandlerModel::subscribe(ClientId client, std::uint64_t request, const ModelName& name) {
  if (!name) return reply(client, request, "null " + textOfError(12));
  enqueue(client, [this, client, request, name = *name] {
    if (clients_[client].subscriptions.contains(name))
      return reply(client, request, "null " + textOfError(9));
    const auto subscription = std::make_shared<Subscription>(Subscription{client});
    clients_[client].subscriptions[name] = subscription;
    auto& item = items_[name];
    if (item) {
      line_.push_back([this, item, subscription] { deliver(*item, *subscription); });
    } else {
      item =
          std::make_shared<Item>(Item{.name = name, .owner = {}, .value = {}, .subscriptions = {}});
    }
    item->subscriptions.push_back(subscription);
    reply(client, request, "null ok");
  });
}

void HandlerModel::unsubscribe(ClientId client, const ModelName& name) {
  enqueue(client, [this, client, name] {
    if (!name) return;
    auto found = clients_[client].subscriptions.extract(*name);
    if (!found.empty()) detach(*name, found.mapped());
  });
}

void HandlerModel::dump(ClientId client, std::uint64_t request, const ModelName& name,
                        bool withData) {
  enqueue(client, [this, client, request, name, withData] {
    std::string text;
    std::string error = "ok";
    if (name == "_all") {
      for (const auto& [key, item] : items_) text += describe(*item, withData);
    } else if (name && items_.contains(*name)) {
      text = describe(*items_.at(*name), withData);
    } else {
      error = textOfError(11, textOf(name) + " not found");
    }
    if (clients_[client].alive)
      clients_[client].dumps.push_back(replyText(request, fmt::format("[{}] {}", text, error)));
  });
}

void HandlerModel::interrupt(ClientId client) {
  clients_[client].sent.push_back("failure");
}

void HandlerModel::die(ClientId client) {
  clients_[client].alive = false;
  line_.push_back([this, client] {
    for (const auto& [name, subscription] : std::exchange(clients_[client].subscriptions, {}))
      detach(name, subscription);
    for (const auto& name : std::exchange(clients_[client].publications, {}))
      items_.at(name)->isPublished = false;
  });
}

void HandlerModel::runTurn() {
  for (auto count = line_.size(); count > 0; --count) {
    line_.front()();
    line_.pop_front();
  }
}

std::vector<std::string> HandlerModel::take(ClientId client) {
  return std::exchange(clients_[client].sent, {});
}

void HandlerModel::enqueue(ClientId client, std::function<void()> work) {
  ++clients_[client].waitingCount;
  line_.push_back([this, client, work = std::move(work)] {
    work();
    --clients_[client].waitingCount;
  });
}

std::string HandlerModel::replyText(std::uint64_t request, const std::string& text) {
  return fmt::format("reply {} {}", request, text);
}

void HandlerModel::reply(ClientId client, std::uint64_t request, const std::string& text) {
  if (clients_[client].alive) clients_[client].sent.push_back(replyText(request, text));
}

std::string HandlerModel::connectionText(std::optional<ClientId> client) const {
  return client && exists(*client) ? clients_[*client].description : "<unconnected>";
}

void HandlerModel::deliver(Item& item, Subscription& subscription) {
  if (!exists(subscription.client)) return;
  subscription.updated = true;
  Client& client = clients_[subscription.client];
  if (client.alive) client.sent.push_back(updateText(item.name, textOfData(item.value)));
}

void HandlerModel::setData(Item& item, std::optional<int> value) {
  item.value = value;
  item.dated = true;
  for (const auto& subscription : item.subscriptions) deliver(item, *subscription);
}

void HandlerModel::detach(const std::string& name,
                          const std::shared_ptr<Subscription>& subscription) {
  std::erase(items_.at(name)->subscriptions, subscription);
}

std::string HandlerModel::describe(const Item& item, bool withData) const {
  std::string subscribers;
  for (const auto& subscription : item.subscriptions) {
    subscribers += fmt::format("{{{} {}}}", connectionText(subscription->client),
                               subscription->updated ? "date" : "<never updated>");
  }
  const std::string data = item.value ? textOfData(item.value) : "<no data>";
  return fmt::format("{{{} {} {} [{}]{}}}", item.name, connectionText(item.owner),
                     item.dated ? "date" : "<never published>", subscribers,
                     withData ? " " + data : "");
}

}  // namespace keel::model
