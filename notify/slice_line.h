// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <deque>
#include <functional>
#include <memory>

namespace keel {

class SerialQueue;

// Long work of the registry, done in slices between which other requests run. However much of it
// there is, one block of the input queue does one slice, and the pieces of work take turns. Held by
// the registry and by the block that it has queued; lives on the notification input queue.
class SliceLine : public std::enable_shared_from_this<SliceLine> {
 public:
  // Does one slice; says whether anything is left. Takes about 0.1 ms: the reactor runs up to 16
  // blocks that queue one another before it looks at the sockets again.
  using Slice = std::move_only_function<bool()>;

  explicit SliceLine(std::shared_ptr<SerialQueue> inputQueue);

  // Queues the first slice, behind those that wait already.
  void add(Slice slice);

 private:
  void queueNext();
  void runNext();

  const std::shared_ptr<SerialQueue> inputQueue_;
  std::deque<Slice> waiting_;
  bool isQueued_ = false;
};

}  // namespace keel
