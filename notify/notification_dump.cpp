// SPDX-License-Identifier: Apache-2.0
// The diagnostic dump of one item, or of all.
#include <fmt/format.h>

#include <string>
#include <utility>

#include "notify/dump_answer.h"
#include "notify/notification_handler.h"
#include "notify/notification_service.h"
#include "platform/product/product.h"
#include "runtime/foundation/value.h"
#include "runtime/logging/logger.h"

namespace keel {

namespace {

constexpr std::string_view kAllNames = "_all";

Error notFound(const Name& name) {
  const std::string text = fmt::format("{} not found", name);
  return Error(KLNErrorDomain, errNotFound,
               Dictionary(Value::map({{std::string(NSLocalizedDescriptionKey), text}})));
}

void dumpOne(KLNNotificationService& service, const Name& name, bool withData,
             xpc::Reply<Array, Error> reply) {
  const auto found = service.published().find(name);
  if (found == service.published().end()) return reply(Array(Value::list({})), notFound(name));
  DumpAnswer answer(1, withData);
  answer.describe(*found->second);
  if (auto entries = answer.take()) reply(std::move(*entries), nullptr);
}

}  // namespace

void KLNNotificationHandler::dumpNotification(Name name, bool withData,
                                              xpc::Reply<Array, Error> andHandler) {
  const auto& service = KLNNotificationService::defaultService();
  service->inputQueue()->async([handler = shared_from_this(), name = std::move(name), service,
                                withData, reply = std::move(andHandler)]() mutable {
    if (name.view() != kAllNames) return dumpOne(*service, name, withData, std::move(reply));
    service->dumpDesk().begin(withData, handler->xpcConnection(), std::move(reply));
  });
}

}  // namespace keel
