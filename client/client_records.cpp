// SPDX-License-Identifier: Apache-2.0
#include "client/client_records.h"

#include <algorithm>
#include <utility>

#include "protocols/notify_proxy.h"
#include "runtime/xpc/remote_proxy.h"

namespace keel {

namespace {

auto proxyOf(xpc::Connection& connection, auto onError) {
  return connection.remoteObjectProxyWithErrorHandler<protocols::NotifyProxy>(std::move(onError));
}

}  // namespace

void ClientRecords::published(PublicationRecord record) {
  record.order = nextOrder_++;
  String name = record.name;
  publications_.insert_or_assign(std::move(name), std::move(record));
}

void ClientRecords::updated(const String& name, Dictionary item) {
  const auto found = publications_.find(name);
  if (found != publications_.end()) found->second.item = std::move(item);
}

void ClientRecords::removed(const String& name) {
  publications_.erase(name);
}

std::vector<PublicationState> ClientRecords::publications() const {
  std::vector<const PublicationRecord*> records;
  for (const auto& [name, record] : publications_) records.push_back(&record);
  std::ranges::sort(records, {}, &PublicationRecord::order);
  std::vector<PublicationState> states;
  for (const PublicationRecord* record : records) states.push_back(record->state());
  return states;
}

std::shared_ptr<SubscriptionRecord> ClientRecords::subscribed(String name, EventCallback callback,
                                                              std::weak_ptr<ClientCore> core) {
  auto record = std::make_shared<SubscriptionRecord>(name, nextOrder_++, std::move(callback),
                                                     std::move(core));
  subscriptions_.insert_or_assign(std::move(name), record);
  return record;
}

void ClientRecords::revertPublication(const String& name) {
  if (!connection_) return;
  proxyOf(*connection_, [](Error) {
  }).call<&protocols::NotifyProxy::removePublishedItemForName>(name, [](Error) {});
}

void ClientRecords::revertSubscription(const String& name) {
  if (!connection_) return;
  proxyOf(*connection_, [](Error) {}).call<&protocols::NotifyProxy::unsubscribeFrom>(name);
}

void ClientRecords::drop(SubscriptionRecord& record) {
  record.callback = nullptr;
  record.state = Subscription::State::ended;
  const auto found = subscriptions_.find(record.name);
  if (found == subscriptions_.end() || found->second.get() != &record) return;
  subscriptions_.erase(found);
  revertSubscription(record.name);
}

void ClientRecords::deliver(const String& name, Dictionary item, Error error) {
  const auto found = subscriptions_.find(name);
  if (found == subscriptions_.end()) return;
  const auto record = found->second;
  const Event event{name, std::move(item), std::move(error)};
  gate_.pass([&] {
    if (!record->cancelled) record->callback(event);
  });
}

void ClientRecords::connected(const std::shared_ptr<ClientRecords>& self,
                              std::shared_ptr<xpc::Connection> connection) {
  connection_ = std::move(connection);
  std::vector<std::pair<std::uint64_t, std::function<void()>>> steps;
  for (const auto& [name, record] : publications_) {
    steps.emplace_back(record.order, [&] { restorePublication(self, record); });
  }
  for (const auto& [name, record] : subscriptions_) {
    steps.emplace_back(record->order, [&] { restoreSubscription(self, record); });
  }
  std::ranges::sort(steps, {}, &decltype(steps)::value_type::first);
  for (const auto& [order, step] : steps) step();
}

void ClientRecords::disconnected() {
  connection_ = nullptr;
  for (auto& [name, record] : publications_) record.kind = PublicationState::Kind::waiting;
  for (auto& [name, record] : subscriptions_) record->state = Subscription::State::waiting;
}

void ClientRecords::end() {
  connection_ = nullptr;
  publications_.clear();
  for (const auto& [name, record] : std::exchange(subscriptions_, {}))
    record->state = Subscription::State::ended;
}

void ClientRecords::restorePublication(const std::weak_ptr<ClientRecords>& weak,
                                       const PublicationRecord& record) {
  const auto answered = [weak, order = record.order, name = record.name](Error error) {
    if (const auto self = weak.lock()) self->publicationRestored(order, name, std::move(error));
  };
  proxyOf(*connection_, answered)
      .call<&protocols::NotifyProxy::publishItem>(record.item, record.name, record.flags,
                                                  record.value, answered);
}

void ClientRecords::restoreSubscription(const std::weak_ptr<ClientRecords>& weak,
                                        const std::shared_ptr<SubscriptionRecord>& record) {
  const auto answered = [weak, record](Error error) {
    if (const auto self = weak.lock()) self->subscriptionRestored(record, std::move(error));
  };
  proxyOf(*connection_, answered)
      .call<&protocols::NotifyProxy::subscribeTo>(
          record->name, std::uint64_t{0},
          [answered](Dictionary, Error error) { answered(std::move(error)); });
}

void ClientRecords::publicationRestored(std::uint64_t order, const String& name, Error error) {
  const auto found = publications_.find(name);
  if (!connection_ || found == publications_.end() || found->second.order != order) return;
  PublicationRecord& record = found->second;
  record.kind = error ? PublicationState::Kind::refused : PublicationState::Kind::published;
  record.error = std::move(error);
  if (!record.error || !publicationHandler_) return;
  gate_.pass([&] { publicationHandler_(record.state()); });
}

void ClientRecords::subscriptionRestored(const std::shared_ptr<SubscriptionRecord>& record,
                                         Error error) {
  if (!connection_ || record->cancelled) return;
  record->state = error ? Subscription::State::refused : Subscription::State::active;
  if (!error) return;
  gate_.pass([&] {
    if (!record->cancelled) record->callback(Event{record->name, nullptr, error});
  });
}

}  // namespace keel
