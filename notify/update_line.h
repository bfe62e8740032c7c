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

// Updates of one name that a client sent one behind the other. One block of the input queue carries them all out, as if each
// had a block of its own; what they have in common is done once.
struct UpdateBatch {
  std::shared_ptr<KLNNotificationHandler> handler;
  Name name;
  std::vector<Dictionary> data;
  std::vector<xpc::Reply<Error>> replies;  // one for each
};

// Queues the updates of all clients: with the batch that was queued last, as long as nothing is queued behind it. Held by the
// registry and by the blocks that it has queued; lives on the thread of the notification input queue.
class UpdateLine : public std::enable_shared_from_this<UpdateLine> {
 public:
  explicit UpdateLine(std::shared_ptr<SerialQueue> inputQueue);
  ~UpdateLine();

  void add(KLNNotificationHandler& handler, Name name, Dictionary data, xpc::Reply<Error> reply);

 private:
  class QueuedBatch;

  std::unique_ptr<UpdateBatch> emptyBatch();
  void takeBack(std::unique_ptr<UpdateBatch> batch);

  const std::shared_ptr<SerialQueue> inputQueue_;
  UpdateBatch* last_ = nullptr;     // null: nothing can be added to it any more
  std::uint64_t numberOfLast_ = 0;  // among the queue's blocks
  // Empty; their memory is for the next ones.
  std::vector<std::unique_ptr<UpdateBatch>> smallSpares_;
  std::vector<std::unique_ptr<UpdateBatch>> largeSpares_;
};

}  // namespace keel
