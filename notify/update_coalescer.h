// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "runtime/foundation/collections.h"
#include "runtime/foundation/error.h"
#include "runtime/foundation/string.h"
#include "runtime/xpc/reply.h"

namespace keel {

class KLNNotificationHandler;
class SerialQueue;

// A batch of one or more updates that a client pipelined to one name. One block of the input queue
// carries them out, as if each had a block of its own.
struct UpdateBatch {
  std::shared_ptr<KLNNotificationHandler> handler;
  std::optional<uid_t> user;  // the client's
  Name name;
  std::vector<Dictionary> data;
  std::vector<xpc::Reply<Error>> replies;  // one per update
  std::size_t bytes = 0;                   // upper bound of what one subscriber is sent
};

// Queues the updates of all clients. An update joins the batch that was queued last if that is of
// the same client and name, has room, and nothing is queued behind it. Only this class decides what
// a batch holds; all other code handles batches of any length. At the debug level a batch holds one
// update, since the log has lines for each.
//
// Owned by NotificationWork and by the blocks it has queued. Lives on the notification input
// queue's thread.
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
  UpdateBatch* last_ = nullptr;        // null: none accepts updates
  std::uint64_t lastBlockNumber_ = 0;  // of the block that holds last_
  // Empty batches, kept for their memory.
  std::vector<std::unique_ptr<UpdateBatch>> idle_;
};

}  // namespace keel
