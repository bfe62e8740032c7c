// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <span>

#include "runtime/foundation/collections.h"
#include "runtime/foundation/error.h"

namespace keel::protocols {

// How news of a followed name reaches the client that follows it. On the notification input queue.
class SubscriberBehavior {
 public:
  virtual ~SubscriberBehavior() = default;
  virtual void updateWithData(const Dictionary& data) = 0;
  // The same with each of `series`, one after the other and with nothing in between.
  virtual void updateWithSeries(std::span<const Dictionary> series) {
    for (const Dictionary& data : series) updateWithData(data);
  }
  virtual void updateWithError(Error error) = 0;
  // The subscriber's own connection has ended.
  virtual void connectionIsInvalid() = 0;
};

}  // namespace keel::protocols
