// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>

#include "protocols/subscriber_proxy.h"

namespace keel {

// The object that a client exports to the notification service. Lives on the I/O thread.
class SubscriberEndpoint final : public protocols::SubscriberProxy {
 public:
  using Deliver = std::function<void(Name name, Dictionary item, Error error)>;
  explicit SubscriberEndpoint(Deliver deliver) : deliver_(std::move(deliver)) {}

  void updateSubscriptionFor(Name name, Dictionary withItem, std::uint64_t flags,
                             Error error) override;
  // Answers with the library's version and this process's id.
  void getClientInfoViaHandler(xpc::Reply<Dictionary> handler) override;

 private:
  const Deliver deliver_;
};

}  // namespace keel
