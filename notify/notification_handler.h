// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>
#include <unordered_map>

#include "notify/published_object.h"
#include "notify/subscription_object.h"
#include "protocols/notify_proxy.h"
#include "runtime/foundation/exception.h"
#include "runtime/xpc/connection.h"

namespace keel {

class KLNNotificationService;
struct UpdateBatch;

// Serves one client of the notify service and records what this client publishes and follows.
// Requests arrive on the connection's queue. Work on the registry or the tables here, and the
// replies, run on the registry's input queue in order of arrival. Owned by its connection and by
// the work it has queued; refers to the connection weakly. Created with make_shared.
class KLNNotificationHandler final : public protocols::NotifyProxy,
                                     public std::enable_shared_from_this<KLNNotificationHandler> {
 public:
  using PublishedItems = std::unordered_map<Name, std::shared_ptr<KLNPublishedObject>, StringHash>;
  using Subscriptions =
      std::unordered_map<Name, std::shared_ptr<KLNSubscriptionObject>, StringHash>;

  // Names of a client that is gone that one step cleans up; those with many subscribers weigh more.
  static constexpr std::size_t kCleanUpStep = 32;

  // Answered by KLNAuthService, on its strand.
  void authCheckForUser(String user, std::int32_t andASID,
                        xpc::Reply<bool, Error> withHandler) override;
  // Answers a null name at once, and an exception with code 13, whose user info holds
  // "subscriptionName", "exception" and "backtrace".
  void subscribeTo(Name name, std::uint64_t withFlags,
                   xpc::Reply<Dictionary, Error> andHandler) override;
  // Only logs a name that is not followed.
  void unsubscribeFrom(Name name) override;
  // Answers a null name at once, and an exception with code 13, whose user info holds
  // "publishName", "exception" and "backtrace".
  void publishItem(Dictionary item, Name name, std::uint64_t flags, std::int64_t value,
                   xpc::Reply<Error> withHandler) override;
  void updatePublishedItem(Dictionary item, Name name, xpc::Reply<Error> withHandler) override;
  void removePublishedItemForName(Name name, xpc::Reply<Error> withHandler) override;
  // Answers at once.
  void getModuleTableWithHandler(xpc::Reply<Dictionary> handler) override;
  void dumpNotification(Name name, bool withData, xpc::Reply<Array, Error> andHandler) override;

  // Logs that the client sent something undecodable; changes nothing.
  void connectionInterupted();
  // Queues the clean-up of a connection that has ended: first its subscriptions, without any
  // delivery, then its publications, which become placeholders. Other requests may run in between,
  // never in the middle of one name.
  void connectionInvalidated();

  // Carries out and answers the updates of a batch. On the input queue.
  void update(UpdateBatch& batch);

  // Both on the input queue only.
  const PublishedItems& publishedItems() const {
    // Never destroyed: other threads use it while the process ends.
    static const auto& none = *new PublishedItems;
    return publishedItems_ ? *publishedItems_ : none;
  }
  const Subscriptions& subscriptions() const { return subscriptions_; }

  std::shared_ptr<xpc::Connection> xpcConnection() const { return xpcConnection_.lock(); }
  void setXpcConnection(const std::shared_ptr<xpc::Connection>& connection) {
    xpcConnection_ = connection;
  }

 private:
  // Carry out a request on the input queue. Return the error of its reply.
  Error subscribe(KLNNotificationService& service, const Name& name, std::uint64_t flags);
  void unsubscribe(KLNNotificationService& service, const Name& name);
  Error publish(KLNNotificationService& service, const Dictionary& item, const Name& name,
                std::uint64_t flags, std::int64_t value);
  Error remove(KLNNotificationService& service, const Name& name);
  enum class CleanUp : std::uint8_t { subscriptions, publications };
  void cleanUp(const std::shared_ptr<KLNNotificationService>& service);
  bool cleanUpStep(CleanUp& stage);

  std::unique_ptr<PublishedItems> publishedItems_;  // null: most clients publish nothing
  Subscriptions subscriptions_;
  std::weak_ptr<xpc::Connection> xpcConnection_;
  // Shared by its subscriptions, which are ended in steps.
  bool cleanUpHasBegun_ = false;
};

}  // namespace keel
