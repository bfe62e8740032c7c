// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

#include "platform/foundation/collections.h"
#include "platform/foundation/error.h"
#include "platform/foundation/string.h"
#include "platform/xpc/method_table.h"
#include "platform/xpc/reply.h"

namespace keel::protocols {

// What a client of the notify service exports, to hear of what it follows.
class SubscriberProxy {
 public:
  virtual ~SubscriberProxy() = default;

  // New data of a followed name (`item`, null when there is none yet, with a null error), or an error (with a null item). The
  // flags are always 0.
  virtual void updateSubscriptionFor(Name name, Dictionary withItem, std::uint64_t flags, Error error) = 0;

  // Part of every client's interface; the daemon never asks.
  virtual void getClientInfoViaHandler(xpc::Reply<Dictionary> handler) = 0;
};

using SubscriberProxyMethods =
    xpc::MethodTable<xpc::Method<"updateSubscriptionFor:withItem:flags:error:", &SubscriberProxy::updateSubscriptionFor>,
                     xpc::Method<"getClientInfoViaHandler:", &SubscriberProxy::getClientInfoViaHandler>>;
SubscriberProxyMethods methodTableOf(const SubscriberProxy*);

}  // namespace keel::protocols
