// SPDX-License-Identifier: Apache-2.0
#include "notify/notification_handler.h"

#include <fmt/format.h>

#include <span>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "auth/auth_service.h"
#include "modules/module_manager.h"
#include "notify/dump_answer.h"
#include "notify/dump_coordinator.h"
#include "notify/incremental_work_queue.h"
#include "notify/notification_service.h"
#include "notify/update_coalescer.h"
#include "platform/product/product.h"
#include "runtime/dispatch/block_clock.h"
#include "runtime/dispatch/current_user.h"
#include "runtime/foundation/value.h"
#include "runtime/logging/logger.h"

namespace keel {

namespace {

Logger& log = _loggerForCategory("notification");

using Service = std::shared_ptr<KLNNotificationService>;

// Everything a request needs travels in the block itself, the service too, which is fetched anew
// for each.
template <class Work>
void queueWork(const Service& service, Work work) {
  auto block = [user = currentUser(), run = std::move(work)]() mutable {
    const WorkingFor working(user);
    run();
  };
  using Queued = decltype(block);
  static_assert(sizeof(Queued) <= Block::kInlineBytes &&
                std::is_nothrow_move_constructible_v<Queued>);
  service->inputQueue()->async(std::move(block));
}

std::string describe(const std::shared_ptr<xpc::Connection>& connection) {
  return connection ? connection->description() : "(null)";
}

constexpr std::string_view kAllNames = "_all";

Error notFoundError(const Name& name) {
  const std::string text = fmt::format("{} not found", name);
  return Error(KLNErrorDomain, errNotFound,
               Dictionary(Value::map({{std::string(NSLocalizedDescriptionKey), text}})));
}

void dumpOne(KLNNotificationService& service, const Name& name, bool withData,
             xpc::Reply<Array, Error> reply) {
  const auto found = service.published().find(name);
  if (found == service.published().end()) return reply(Array(Value::list({})), notFoundError(name));
  DumpAnswer answer(1, withData);
  answer.append(*found->second);
  if (auto entries = answer.take()) reply(std::move(*entries), nullptr);
}

Error exceptionError(std::string_view nameKey, const Name& name, const Exception& raised) {
  const auto& symbols = raised.callStackSymbols();
  return Error(
      KLNErrorDomain, errRequestFailed,
      Dictionary(Value::map({
          {std::string(nameKey), name.view()},
          {"exception", Value::map({{"name", raised.name()}, {"reason", raised.reason()}})},
          {"backtrace", Value::List(symbols.begin(), symbols.end())},
      })));
}

// Guards a request: logs what `serve` throws and returns it as the request's error.
template <class Serve>
Error guarded(fmt::format_string<const Name&> text, std::string_view nameKey, const Name& name,
              Serve serve) {
  try {
    return serve();
  } catch (const Exception& raised) {
    log.error(text, name);
    return exceptionError(nameKey, name, raised);
  } catch (const std::exception& raised) {
    log.error(text, name);
    return exceptionError(nameKey, name, Exception("std::exception", raised.what()));
  }
}

// Subscribers that the end of a publication visits in the time that one name takes.
constexpr std::size_t kSubscribersPerName = 16;

std::size_t weightOf(const KLNSubscriptionObject&) {
  return 1;
}
std::size_t weightOf(KLNPublishedObject& item) {
  return 1 +
         (item.subscribers() != nullptr ? item.subscribers()->count() / kSubscribersPerName : 0);
}

// Empties a client's table until the step's work is done, and notifies each object that its
// connection is gone, unless another client owns it by now.
template <class Table, class IsOwn>
void endObjects(Table& table, std::size_t& done, IsOwn isOwn) {
  while (!table.empty() && done < KLNNotificationHandler::kCleanUpStep) {
    const auto ending = table.begin();
    done += weightOf(*ending->second);
    if (isOwn(*ending->second)) ending->second->connectionIsInvalid();
    table.erase(ending);
  }
}

}  // namespace

void KLNNotificationHandler::authCheckForUser(String user, std::int32_t andASID,
                                              xpc::Reply<bool, Error> withHandler) {
  KLNAuthService::defaultService()->isAuthedUser(
      std::move(user), andASID,
      [reply = std::move(withHandler)](bool authenticated, Error error) mutable {
        reply(authenticated, std::move(error));
      });
}

void KLNNotificationHandler::subscribeTo(Name name, std::uint64_t withFlags,
                                         xpc::Reply<Dictionary, Error> andHandler) {
  log.debug("NotificationHandler we have a subscription request: {}", name);
  if (name.isNull()) return andHandler(nullptr, Error(KLNErrorDomain, errNilName));
  const Service& service = KLNNotificationService::defaultService();
  queueWork(service, [handler = shared_from_this(), service, name = std::move(name),
                      reply = std::move(andHandler), withFlags]() mutable {
    Error error = guarded(
        "NotificationHandler: subscribeTo: received an exception processing a subscription request "
        "for {}",
        "subscriptionName", name, [&] { return handler->subscribe(*service, name, withFlags); });
    reply(nullptr, std::move(error));
  });
}

Error KLNNotificationHandler::subscribe(KLNNotificationService& service, const Name& name,
                                        std::uint64_t flags) {
  if (const auto existing = subscriptions_.find(name); existing != subscriptions_.end()) {
    log.standard("NotificationHandler: subscribeTo: already subscribed to {} subscription {}", name,
                 fmt::ptr(existing->second.get()));
    return Error(KLNErrorDomain, errDuplicate);
  }
  const auto subscription = service.newSubscriptionObjectForName(name, flags, 0, xpcConnection());
  log.debug("NotificationHandler subscribing {} with {}", name, fmt::ptr(subscription.get()));
  Error error;
  if (!subscription || !service.subscribe(subscription, &error)) return error;
  subscription->setCleanUp(std::shared_ptr<const bool>(shared_from_this(), &cleanUpHasBegun_));
  // Most clients follow one name or a few, fewer than the default bucket count.
  if (subscriptions_.empty()) subscriptions_.reserve(1);
  subscriptions_[name] = subscription;
  return error;
}

// The block keeps the connection alive: without it the registry could not find the subscription,
// which would stay with the item for good.
void KLNNotificationHandler::unsubscribeFrom(Name name) {
  log.debug("unsubscribeFrom {}", name);
  const Service& service = KLNNotificationService::defaultService();
  queueWork(service, [handler = shared_from_this(), service, name = std::move(name),
                      connection = xpcConnection()] { handler->unsubscribe(*service, name); });
}

void KLNNotificationHandler::unsubscribe(KLNNotificationService& service, const Name& name) {
  Error error;
  if (const auto found = subscriptions_.find(name); found == subscriptions_.end()) {
    error = Error(KLNErrorDomain, errNotFound);
  } else {
    log.debug("unsubscribeFrom {} subscription {}", name, fmt::ptr(found->second.get()));
    service.removeSubscriptionForName(name, xpcConnection(), &error);
    subscriptions_.erase(found);
  }
  if (error) log.error("unsubscribeFrom {} failed to find subscription", name);
}

void KLNNotificationHandler::publishItem(Dictionary item, Name name, std::uint64_t flags,
                                         std::int64_t value, xpc::Reply<Error> withHandler) {
  if (log.enabled(LogLevel::debug)) {
    log.debug("NotificationHandler we have a publish request: {} from {}", name,
              describe(xpcConnection()));
  }
  if (name.isNull()) return withHandler(Error(KLNErrorDomain, errNilName));
  const Service& service = KLNNotificationService::defaultService();
  queueWork(service,
            [handler = shared_from_this(), service, name = std::move(name),
             reply = std::move(withHandler), item = std::move(item), flags, value]() mutable {
              reply(guarded("NotificationHandler: publishItem: received an exception publishing {}",
                            "publishName", name,
                            [&] { return handler->publish(*service, item, name, flags, value); }));
            });
}

Error KLNNotificationHandler::publish(KLNNotificationService& service, const Dictionary& item,
                                      const Name& name, std::uint64_t flags, std::int64_t value) {
  if (publishedItems().contains(name)) {
    log.error("NotificationHandler we don't allow duplicate publications {}", name);
    return Error(KLNErrorDomain, errDuplicate);
  }
  auto published = service.newPublishedObjectWith(item, name, flags, value, xpcConnection());
  if (!published) return Error(KLNErrorDomain, errRequestFailed);
  Error error;
  if (!service.publish(published, &error)) return error;
  if (!publishedItems_) publishedItems_ = std::make_unique<PublishedItems>();
  (*publishedItems_)[name] = published;
  return error;
}

void KLNNotificationHandler::updatePublishedItem(Dictionary item, Name name,
                                                 xpc::Reply<Error> withHandler) {
  if (log.enabled(LogLevel::debug)) {
    log.debug("updatePublishedItem: updating {} from {}", name, describe(xpcConnection()));
  }
  KLNNotificationService::defaultService()->work().coalescer().add(
      *this, std::move(name), std::move(item), std::move(withHandler));
}

void KLNNotificationHandler::update(UpdateBatch& batch) {
  const auto found = publishedItems().find(batch.name);
  if (found == publishedItems().end()) {
    for (auto& reply : batch.replies) {
      log.error("updatePublishedItem: item : {} not found", batch.name);
      reply(Error(KLNErrorDomain, errNotFound));
    }
    return;
  }
  KLNPublishedObject& item = *found->second;
  // A client that follows what it publishes receives each update before the answer to it.
  const bool followsItself = item.subscriberForConnection(xpcConnection()) != nullptr;
  const std::size_t step = followsItself ? 1 : batch.data.size();
  for (std::size_t done = 0; done < batch.data.size(); done += step) {
    item.updateWithBatch(std::span(batch.data).subspan(done, step));
    xpc::Reply<Error>::answerAll(std::span(batch.replies).subspan(done, step), nullptr);
  }
}

void KLNNotificationHandler::removePublishedItemForName(Name name, xpc::Reply<Error> withHandler) {
  const Service& service = KLNNotificationService::defaultService();
  queueWork(service,
            [handler = shared_from_this(), service, name = std::move(name),
             reply = std::move(withHandler)]() mutable { reply(handler->remove(*service, name)); });
}

Error KLNNotificationHandler::remove(KLNNotificationService& service, const Name& name) {
  const auto found = publishedItems().find(name);
  if (found == publishedItems().end()) return Error(KLNErrorDomain, errNotFound);
  Error error;
  service.removePublishedItemForName(name, xpcConnection(), &error);
  if (!error) publishedItems_->erase(found);
  return error;
}

void KLNNotificationHandler::getModuleTableWithHandler(xpc::Reply<Dictionary> handler) {
  handler(KLNModuleManager::defaultManager()->moduleTable().dictionary());
}

void KLNNotificationHandler::dumpNotification(Name name, bool withData,
                                              xpc::Reply<Array, Error> andHandler) {
  const Service& service = KLNNotificationService::defaultService();
  queueWork(service, [handler = shared_from_this(), service, name = std::move(name), withData,
                      reply = std::move(andHandler)]() mutable {
    if (name.view() != kAllNames) return dumpOne(*service, name, withData, std::move(reply));
    service->work().dumps().begin(withData, handler->xpcConnection(), std::move(reply));
  });
}

void KLNNotificationHandler::connectionInterupted() {
  const auto connection = xpcConnection();
  log.debug("NotifyService connection from ({}){} interrupted",
            connection ? connection->processIdentifier() : 0,
            connection ? connection->auditSessionIdentifier() : 0);
}

void KLNNotificationHandler::connectionInvalidated() {
  const auto connection = xpcConnection();
  log.debug("NotifyService  connection from ({}){} invalidated",
            connection ? connection->processIdentifier() : 0,
            connection ? connection->auditSessionIdentifier() : 0);
  const Service& service = KLNNotificationService::defaultService();
  if (connection) service->work().dumps().connectionEnds(connection);
  queueWork(service, [handler = shared_from_this(), service] { handler->cleanUp(service); });
}

void KLNNotificationHandler::cleanUp(const Service& service) {
  log.debug("NotifyService unsubscribing");
  cleanUpHasBegun_ = true;
  CleanUp stage = CleanUp::subscriptions;
  if (!cleanUpStep(stage)) return;
  service->beginCleanUp(xpcConnection_);
  // Weakly: the service holds the queue.
  const std::weak_ptr<KLNNotificationService> weak = service;
  service->work().incremental().add([handler = shared_from_this(), weak, stage]() mutable {
    if (handler->cleanUpStep(stage)) return true;
    if (const auto living = weak.lock()) living->endCleanUp(handler->xpcConnection_);
    return false;
  });
}

// Returns true while work remains.
bool KLNNotificationHandler::cleanUpStep(CleanUp& stage) {
  std::size_t done = 0;
  if (stage == CleanUp::subscriptions) {
    endObjects(subscriptions_, done, [](const KLNSubscriptionObject&) { return true; });
    if (!subscriptions_.empty()) return true;
    log.debug("NotifyService unpublishing");
    stage = CleanUp::publications;
  }
  if (!publishedItems_) return false;
  endObjects(*publishedItems_, done,
             [this](const KLNPublishedObject& item) { return item.isOwnedBy(xpcConnection_); });
  return !publishedItems_->empty();
}

}  // namespace keel
