// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "runtime/foundation/collections.h"
#include "runtime/foundation/error.h"
#include "runtime/foundation/string.h"
#include "runtime/xpc/reply.h"

namespace keel {

class KLNNotificationHandler;
class SerialQueue;

// One or more updates of one name that a client sent one behind the other. One block of the input
// queue carries them all out, as if each had a block of its own.
struct UpdateBatch {
  std::shared_ptr<KLNNotificationHandler> handler;
  Name name;
  std::vector<Dictionary> data;
  std::vector<xpc::Reply<Error>> replies;  // one for each
  std::size_t bytes = 0;                   // upper bound of what one subscriber is sent
};

// Queues the updates of all clients. An update joins the batch that was queued last if that is of
// the same client and name, has room, and nothing is queued behind it. This is the only place that
// decides what travels together; all else handles a batch, be it of one. With debug logging a batch
// holds one update, since the log has lines for each.
//
// Held by whoever queues updates and by the blocks that it has queued. Lives on the thread of the
// notification input queue.
class UpdateCoalescer : public std::enable_shared_from_this<UpdateCoalescer> {
 public:
  explicit UpdateCoalescer(std::shared_ptr<SerialQueue> inputQueue);
  ~UpdateCoalescer();

  void add(KLNNotificationHandler& handler, Name name, Dictionary data, xpc::Reply<Error> reply);

 private:
  class QueuedBatch;

  bool canJoin(const KLNNotificationHandler& handler, const Name& name, std::size_t bytes) const;
  std::unique_ptr<UpdateBatch> takeIdle();
  void giveBack(std::unique_ptr<UpdateBatch> batch);

  const std::shared_ptr<SerialQueue> inputQueue_;
  UpdateBatch* last_ = nullptr;     // null: nothing can be added to it any more
  std::uint64_t numberOfLast_ = 0;  // among the queue's blocks
  // Empty, with their memory.
  std::vector<std::unique_ptr<UpdateBatch>> idle_;
};

}  // namespace keel
