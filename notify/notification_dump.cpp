// SPDX-License-Identifier: Apache-2.0
// The diagnostic dump. It is written in its encoded form at once: published data are spliced in as they came, never decoded.
#include <fmt/format.h>

#include <cstddef>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "notify/notification_handler.h"
#include "notify/notification_service.h"
#include "platform/foundation/cbor_writer.h"
#include "platform/logging/logger.h"
#include "platform/product/product.h"

namespace keel {

namespace {

constexpr std::string_view kAllNames = "_all";

void writeConnection(cbor::Writer& writer, const std::shared_ptr<xpc::Connection>& connection) {
  writer.text(connection ? connection->description() : "<unconnected>");
}

void writeDate(cbor::Writer& writer, const std::optional<Date>& date, std::string_view otherwise) {
  if (date) {
    writer.date(*date);
  } else {
    writer.text(otherwise);
  }
}

void writeSubscribers(cbor::Writer& writer, SubscriberSet* subscribers) {
  writer.array(subscribers != nullptr ? subscribers->count() : 0);
  if (subscribers == nullptr) return;
  subscribers->forEach([&writer](KLNSubscriptionObject& subscription) {
    writer.map(2);
    writer.text("subscriber");
    writeConnection(writer, subscription.owner());
    writer.text("updateDate");
    writeDate(writer, subscription.lastUpdated(), "<never updated>");
  });
}

void writeItem(cbor::Writer& writer, KLNPublishedObject& item, bool withData) {
  writer.map(withData ? 5 : 4);
  writer.text("name");
  if (item.name().isNull()) {
    writer.null();
  } else {
    writer.text(item.name().view());
  }
  writer.text("publisher");
  writeConnection(writer, item.owner());
  writer.text("publishDate");
  writeDate(writer, item.lastUpdated(), "<never published>");
  writer.text("subscribers");
  writeSubscribers(writer, item.subscribers());
  if (!withData) return;
  writer.text("publishedData");
  if (item.data().isNull()) {
    writer.text("<no data>");
  } else {
    writer.encoded(item.data().encoded());
  }
}

// The entries, and the error when there is no item of that name.
std::pair<Array, Error> dump(KLNNotificationService& service, const Name& name, bool withData) {
  ByteSink bytes;
  cbor::Writer writer(bytes);
  Error error;
  const auto& published = service.published();
  if (name.view() == kAllNames) {
    writer.array(published.size());
    for (const auto& [key, item] : published) writeItem(writer, *item, withData);
  } else if (const auto found = published.find(name); found != published.end()) {
    writer.array(1);
    writeItem(writer, *found->second, withData);
  } else {
    writer.array(0);
    const std::string text = fmt::format("{} not found", name);
    error = Error(KLNErrorDomain, errNotFound, Dictionary(Value::map({{std::string(NSLocalizedDescriptionKey), text}})));
  }
  return {Array(Buffer::copyOf(bytes)), std::move(error)};
}

}  // namespace

void KLNNotificationHandler::dumpNotification(Name name, bool withData, xpc::Reply<Array, Error> andHandler) {
  const auto& service = KLNNotificationService::defaultService();
  service->inputQueue()->async([name = std::move(name), service, withData, reply = std::move(andHandler)]() mutable {
    auto [entries, error] = dump(*service, name, withData);
    reply(std::move(entries), std::move(error));
  });
}

}  // namespace keel
