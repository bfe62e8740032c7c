// SPDX-License-Identifier: Apache-2.0
#include "tests/model/registry_model.h"

#include <fmt/format.h>

#include <utility>

namespace keel::model {

namespace {

std::string no(int code, std::string_view description = {}) {
  return "no " + textOfError(code, description);
}

}  // namespace

RegistryModel::ClientId RegistryModel::connect() {
  clients_.emplace_back();
  return clients_.size() - 1;
}

std::string RegistryModel::publish(ClientId client, const ModelName& name,
                                   std::optional<int> value) {
  if (!name) return no(13);
  auto& item = items_[*name];
  if (item && item->isPublished)
    return no(9, fmt::format("the key {} has already been published", *name));
  if (!item) item = std::make_shared<Item>();
  setData(*item, client, value);
  return "yes";
}

std::string RegistryModel::publishItem(ClientId client, const ModelName& name,
                                       std::optional<int> value) {
  if (!name) return no(13);
  auto& item = items_[*name];
  if (item && item->isPublished) return no(9);
  if (!item) item = std::make_shared<Item>();
  setData(*item, client, value);
  return "yes";
}

std::string RegistryModel::updatePublishedItem(ClientId client, const ModelName& name,
                                               std::optional<int> value) {
  Item* const item = find(name);
  if (item == nullptr) return no(11);
  if (item->owner != client) return no(10);
  if (item->isPublished) {
    setData(*item, client, value);
  } else {
    item->value = value;
  }
  return "yes";
}

std::string RegistryModel::removePublishedItemForName(ClientId client, const ModelName& name) {
  Item* const item = find(name);
  if (item == nullptr) return no(11);
  if (item->owner != client) return no(10);
  if (item->isPublished && !item->subscriptions.empty()) {
    item->isPublished = false;
  } else {
    items_.erase(*name);
  }
  return "yes";
}

std::string RegistryModel::subscribe(ClientId client, const ModelName& name) {
  if (!name) return no(13);
  auto& item = items_[*name];
  if (item && lastOf(*item, client) != nullptr) return no(9);
  const auto subscription = std::make_shared<Subscription>(Subscription{*name, client});
  if (item) {
    attach(item, subscription);
  } else {
    item = std::make_shared<Item>();
    item->subscriptions.push_back(subscription);
  }
  return "yes";
}

std::string RegistryModel::subscribeTo(ClientId client, const ModelName& name) {
  if (!name) return "yes";
  auto& item = items_[*name];
  if (item) {
    attach(item, std::make_shared<Subscription>(Subscription{*name, client}));
  } else {
    item = std::make_shared<Item>(
        Item{.recordsSubscribers = false, .owner = {}, .value = {}, .subscriptions = {}});
  }
  return "yes";
}

std::string RegistryModel::removeSubscriptionForName(ClientId client, const ModelName& name) {
  Item* const item = find(name);
  Subscription* const last = item != nullptr ? lastOf(*item, client) : nullptr;
  if (last == nullptr) return "no ok";
  std::erase_if(item->subscriptions, [last](const auto& each) { return each.get() == last; });
  return "yes";
}

void RegistryModel::losePublisher(const std::string& name) {
  if (Item* const item = find(name)) item->isPublished = false;
}

void RegistryModel::runTurn() {
  for (auto count = line_.size(); count > 0; --count) {
    line_.front()();
    line_.pop_front();
  }
}

std::vector<std::string> RegistryModel::take(ClientId client) {
  return std::exchange(clients_[client].sent, {});
}

std::vector<std::string> RegistryModel::table() const {
  const auto clientText = [this](std::optional<ClientId> client) {
    return client && clients_[*client].alive ? std::to_string(*client) : "nobody";
  };
  std::vector<std::string> entries;
  for (const auto& [name, item] : items_) {
    std::string subscribers;
    for (const auto& each : item->subscriptions)
      subscribers += " " + clientText(each->client) + (each->updated ? "+" : "-");
    entries.push_back(fmt::format("{}{} of {} {} {}:{}", name,
                                  item->isPublished ? "" : " placeholder", clientText(item->owner),
                                  textOfData(item->value), item->dated ? "dated" : "undated",
                                  subscribers));
  }
  return entries;
}

RegistryModel::Item* RegistryModel::find(const ModelName& name) {
  const auto found = name ? items_.find(*name) : items_.end();
  return found == items_.end() ? nullptr : found->second.get();
}

void RegistryModel::setData(Item& item, ClientId owner, std::optional<int> value) {
  item.isPublished = true;
  item.owner = owner;
  item.value = value;
  item.dated = true;
  for (const auto& subscription : item.subscriptions) deliver(item, *subscription);
}

void RegistryModel::deliver(const Item& item, Subscription& subscription) {
  Client& client = clients_[subscription.client];
  if (!client.alive) return;
  subscription.updated = true;
  client.sent.push_back(updateText(subscription.name, textOfData(item.value)));
}

void RegistryModel::attach(const std::shared_ptr<Item>& item,
                           const std::shared_ptr<Subscription>& subscription) {
  if (item->recordsSubscribers) item->subscriptions.push_back(subscription);
  line_.push_back([this, item, subscription] { deliver(*item, *subscription); });
}

RegistryModel::Subscription* RegistryModel::lastOf(const Item& item, ClientId client) {
  Subscription* last = nullptr;
  for (const auto& each : item.subscriptions) {
    if (each->client == client) last = each.get();
  }
  return last;
}

}  // namespace keel::model
