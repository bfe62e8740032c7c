// SPDX-License-Identifier: Apache-2.0
// Records a client's publications and subscriptions, and restores them after a reconnection.
#include <algorithm>
#include <utility>

#include "client/client_core.h"

namespace keel {

void ClientCore::published(PublicationRecord record) {
  record.order = nextOrder_++;
  String name = record.name;
  publications_.insert_or_assign(std::move(name), std::move(record));
}

void ClientCore::updated(const String& name, Dictionary item) {
  const auto found = publications_.find(name);
  if (found != publications_.end()) found->second.item = std::move(item);
}

void ClientCore::removed(const String& name) {
  publications_.erase(name);
}

std::vector<PublicationState> ClientCore::publications() const {
  std::vector<const PublicationRecord*> records;
  for (const auto& [name, record] : publications_) records.push_back(&record);
  std::ranges::sort(records, {}, &PublicationRecord::order);
  std::vector<PublicationState> states;
  for (const PublicationRecord* record : records) states.push_back(record->state());
  return states;
}

std::shared_ptr<SubscriptionRecord> ClientCore::subscribed(String name, EventCallback callback) {
  auto record = std::make_shared<SubscriptionRecord>(name, nextOrder_++, std::move(callback),
                                                     weak_from_this());
  subscriptions_.insert_or_assign(std::move(name), record);
  return record;
}

void ClientCore::revertPublication(const String& name) {
  if (!ready_) return;
  proxy([](Error) {}).call<&protocols::NotifyProxy::removePublishedItemForName>(name, [](Error) {});
}

void ClientCore::revertSubscription(const String& name) {
  if (!ready_) return;
  proxy([](Error) {}).call<&protocols::NotifyProxy::unsubscribeFrom>(name);
}

void ClientCore::cancel(std::shared_ptr<SubscriptionRecord> record) {
  if (isForked()) return;
  gate_.afterRunning(onIoThread(), [&] { record->cancelled = true; });
  reactor_.post([self = shared_from_this(), record = std::move(record)] { self->drop(*record); });
}

void ClientCore::drop(SubscriptionRecord& record) {
  record.callback = nullptr;
  record.state = Subscription::State::ended;
  const auto found = subscriptions_.find(record.name);
  if (found == subscriptions_.end() || found->second.get() != &record) return;
  subscriptions_.erase(found);
  revertSubscription(record.name);
}

void ClientCore::deliver(const String& name, Dictionary item, Error error) {
  const auto found = subscriptions_.find(name);
  if (found == subscriptions_.end()) return;
  const auto record = found->second;
  const Event event{name, std::move(item), std::move(error)};
  runCallback([&] {
    if (!record->cancelled) record->callback(event);
  });
}

void ClientCore::restore() {
  std::vector<std::pair<std::uint64_t, std::function<void()>>> steps;
  for (const auto& [name, record] : publications_) {
    steps.emplace_back(record.order, [this, &record] { restorePublication(record); });
  }
  for (const auto& [name, record] : subscriptions_) {
    steps.emplace_back(record->order, [this, record] { restoreSubscription(record); });
  }
  std::ranges::sort(steps, {}, &decltype(steps)::value_type::first);
  for (const auto& [order, step] : steps) step();
}

void ClientCore::restorePublication(const PublicationRecord& record) {
  const auto answered = [weak = weak_from_this(), order = record.order,
                         name = record.name](Error error) {
    if (const auto self = weak.lock()) self->publicationRestored(order, name, std::move(error));
  };
  proxy(answered).call<&protocols::NotifyProxy::publishItem>(record.item, record.name, record.flags,
                                                             record.value, answered);
}

void ClientCore::restoreSubscription(const std::shared_ptr<SubscriptionRecord>& record) {
  const auto answered = [weak = weak_from_this(), record](Error error) {
    if (const auto self = weak.lock()) self->subscriptionRestored(record, std::move(error));
  };
  proxy(answered).call<&protocols::NotifyProxy::subscribeTo>(
      record->name, std::uint64_t{0},
      [answered](Dictionary, Error error) { answered(std::move(error)); });
}

void ClientCore::publicationRestored(std::uint64_t order, const String& name, Error error) {
  const auto found = publications_.find(name);
  if (!ready_ || found == publications_.end() || found->second.order != order) return;
  PublicationRecord& record = found->second;
  record.kind = error ? PublicationState::Kind::refused : PublicationState::Kind::published;
  record.error = std::move(error);
  if (!record.error || !publicationHandler_) return;
  runCallback([&] { publicationHandler_(record.state()); });
}

void ClientCore::subscriptionRestored(const std::shared_ptr<SubscriptionRecord>& record,
                                      Error error) {
  if (!ready_ || record->cancelled) return;
  record->state = error ? Subscription::State::refused : Subscription::State::active;
  if (!error) return;
  runCallback([&] {
    if (!record->cancelled) record->callback(Event{record->name, nullptr, error});
  });
}

}  // namespace keel
