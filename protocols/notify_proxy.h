// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

#include "runtime/foundation/collections.h"
#include "runtime/foundation/error.h"
#include "runtime/foundation/string.h"
#include "runtime/wire/method_table.h"
#include "runtime/xpc/reply.h"

namespace keel::protocols {

// The service "com.vantor.keeld.notify". A null error means success;
// error codes are those of KLNErrorDomain (platform/product/product.h).
class NotifyProxy {
 public:
  virtual ~NotifyProxy() = default;

  // Replies true if `user` was proved an administrator in that audit session; the error is always
  // null.
  virtual void authCheckForUser(String user, std::int32_t andASID,
                                xpc::Reply<bool, Error> withHandler) = 0;

  // Follows `name`, published or not. The dictionary of the reply is always null. Data arrives
  // through SubscriberProxy, the current value right behind the reply if the item exists. Codes 9,
  // 12, 13.
  virtual void subscribeTo(Name name, std::uint64_t withFlags,
                           xpc::Reply<Dictionary, Error> andHandler) = 0;

  virtual void unsubscribeFrom(Name name) = 0;

  // Publishes `item`, which may be null, under a name that nobody publishes. Codes 9, 12, 13.
  virtual void publishItem(Dictionary item, Name name, std::uint64_t flags, std::int64_t value,
                           xpc::Reply<Error> withHandler) = 0;

  // Replaces the data of a name that this connection publishes. Code 11.
  virtual void updatePublishedItem(Dictionary item, Name name, xpc::Reply<Error> withHandler) = 0;

  // Withdraws a name that this connection publishes. Codes 10, 11.
  virtual void removePublishedItemForName(Name name, xpc::Reply<Error> withHandler) = 0;

  // Replies with a map from "keel_" + short name of each enabled module to its job's service name.
  virtual void getModuleTableWithHandler(xpc::Reply<Dictionary> handler) = 0;

  // Describes the item of that name, or all for "_all": a snapshot of the moment at which the
  // request was served, though deliveries of later changes may precede the reply. Code 11 with an
  // empty array for an unknown name.
  virtual void dumpNotification(Name name, bool withData, xpc::Reply<Array, Error> andHandler) = 0;
};

using NotifyProxyMethods = xpc::MethodTable<
    xpc::Method<"authCheckForUser:andASID:withHandler:", &NotifyProxy::authCheckForUser>,
    xpc::Method<"subscribeTo:withFlags:andHandler:", &NotifyProxy::subscribeTo>,
    xpc::Method<"unsubscribeFrom:", &NotifyProxy::unsubscribeFrom>,
    xpc::Method<"publishItem:name:flags:value:withHandler:", &NotifyProxy::publishItem>,
    xpc::Method<"updatePublishedItem:name:withHandler:", &NotifyProxy::updatePublishedItem,
                xpc::Weight::brief>,
    xpc::Method<"removePublishedItemForName:withHandler:",
                &NotifyProxy::removePublishedItemForName>,
    xpc::Method<"getModuleTableWithHandler:", &NotifyProxy::getModuleTableWithHandler>,
    xpc::Method<"dumpNotification:withData:andHandler:", &NotifyProxy::dumpNotification,
                xpc::Weight::heavy>>;
NotifyProxyMethods methodTableOf(const NotifyProxy*);

}  // namespace keel::protocols
