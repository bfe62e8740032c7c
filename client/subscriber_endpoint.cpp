// SPDX-License-Identifier: Apache-2.0
#include "client/subscriber_endpoint.h"

#include <unistd.h>

#include <cstdint>
#include <utility>

#include "platform/product/product.h"
#include "runtime/foundation/value.h"

namespace keel {

void SubscriberEndpoint::updateSubscriptionFor(Name name, Dictionary withItem, std::uint64_t,
                                               Error error) {
  deliver_(std::move(name), std::move(withItem), std::move(error));
}

void SubscriberEndpoint::getClientInfoViaHandler(xpc::Reply<Dictionary> handler) {
  handler(Dictionary(Value::map({{"library", "KLNClient"},
                                 {"version", TBCopyCalderBuildVersion().view()},
                                 {"pid", std::int64_t{getpid()}}})));
}

}  // namespace keel
