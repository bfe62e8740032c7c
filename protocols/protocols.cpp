// SPDX-License-Identifier: Apache-2.0
// Compiles every protocol once, so that its method table is checked even without a user.
#include "protocols/auth_proxy.h"
#include "protocols/delivery.h"
#include "protocols/notify_proxy.h"
#include "protocols/publish_behavior.h"
#include "protocols/subscriber_behavior.h"
#include "protocols/subscriber_proxy.h"

namespace keel::protocols {

static_assert(xpc::MethodsOf<NotifyProxy>::kCount == 8);
static_assert(xpc::MethodsOf<SubscriberProxy>::kCount == 2);
static_assert(xpc::MethodsOf<AuthProxy>::kCount == 8);

void SubscriberBehavior::deliver(Delivery& delivery) {
  if (delivery.error()) return updateWithError(delivery.error());
  for (const Dictionary& data : delivery.batch()) updateWithData(data);
}

}  // namespace keel::protocols
