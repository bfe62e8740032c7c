// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

#include "runtime/foundation/collections.h"
#include "runtime/foundation/error.h"
#include "runtime/foundation/string.h"
#include "runtime/wire/method_table.h"
#include "runtime/xpc/reply.h"

namespace keel::protocols {

// What a client of the notify service exports, to hear of what it follows.
class SubscriberProxy {
 public:
  virtual ~SubscriberProxy() = default;

  // New data of a followed name (`item`, null when there is none yet, with a null error), or an
  // error (with a null item). The flags are always 0.
  virtual void updateSubscriptionFor(Name name, Dictionary withItem, std::uint64_t flags,
                                     Error error) = 0;

  // Part of every client's interface; the daemon never asks.
  virtual void getClientInfoViaHandler(xpc::Reply<Dictionary> handler) = 0;
};

using SubscriberProxyMethods = xpc::MethodTable<
    xpc::Method<"updateSubscriptionFor:withItem:flags:error:",
                &SubscriberProxy::updateSubscriptionFor>,
    xpc::Method<"getClientInfoViaHandler:", &SubscriberProxy::getClientInfoViaHandler>>;
SubscriberProxyMethods methodTableOf(const SubscriberProxy*);

}  // namespace keel::protocols
