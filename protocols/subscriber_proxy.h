// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

#include "runtime/foundation/collections.h"
#include "runtime/foundation/error.h"
#include "runtime/foundation/string.h"
#include "runtime/wire/method_table.h"
#include "runtime/xpc/reply.h"

namespace keel::protocols {

// Exported by clients of the notify service, to receive the names they follow.
class SubscriberProxy {
 public:
  virtual ~SubscriberProxy() = default;

  // Delivers data of a followed name (null if it has none yet) with a null error, or an error with
  // a null item. The flags are always 0.
  virtual void updateSubscriptionFor(Name name, Dictionary withItem, std::uint64_t flags,
                                     Error error) = 0;

  // Part of every client's interface; the daemon never calls it.
  virtual void getClientInfoViaHandler(xpc::Reply<Dictionary> handler) = 0;
};

using SubscriberProxyMethods = xpc::MethodTable<
    xpc::Method<"updateSubscriptionFor:withItem:flags:error:",
                &SubscriberProxy::updateSubscriptionFor>,
    xpc::Method<"getClientInfoViaHandler:", &SubscriberProxy::getClientInfoViaHandler>>;
SubscriberProxyMethods methodTableOf(const SubscriberProxy*);

}  // namespace keel::protocols
