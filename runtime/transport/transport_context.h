// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <vector>

#include "runtime/dispatch/reactor.h"
#include "runtime/foundation/memory_account.h"
#include "runtime/transport/holdings.h"
#include "runtime/transport/output_queue.h"
#include "runtime/wire/message_pool.h"
#include "runtime/wire/name_cache.h"

namespace keel::xpc {

class FrameStream;

// State shared by all connections of one reactor: buffers and pools, so that an idle connection
// owns none, and the accounts of what their peers make this process hold. Lives on the reactor's
// thread. Created beside the reactor and outlives whatever the reactor still holds, so declare it
// first:
//
//   TransportContext context{reactor};
//   Reactor reactor;
class TransportContext {
 public:
  // The reactor is borrowed.
  explicit TransportContext(Reactor& reactor);
  TransportContext(const TransportContext&) = delete;
  TransportContext& operator=(const TransportContext&) = delete;

  // Returns the context of this process's I/O thread, kept until the process ends.
  static TransportContext& ofIoThread();

  Reactor& reactor() { return reactor_; }

  // Returns the buffer that every stream reads into: `kHeadroomBytes` for an earlier read, then a
  // full read budget.
  static constexpr std::size_t kHeadroomBytes = 64u << 10;
  std::span<std::byte> readBuffer();

  OutputQueuePool& outputQueues() { return outputQueues_; }
  MessagePool& messages() { return messages_; }
  NameCache& names() { return names_; }

  // Backlogs of slow readers, in bytes.
  Holdings<FrameStream>& backlogs() { return backlogs_; }
  // Received descriptors whose message is incomplete.
  Holdings<FrameStream>& unclaimedFiles() { return unclaimedFiles_; }
  // Number of streams that wait for the system to take more descriptors.
  std::size_t& stuckStreamCount() { return stuckStreamCount_; }
  // Number of slow readers that were dropped and have not ended yet.
  std::size_t& droppedReaderCount() { return droppedReaderCount_; }

  // Notes that a connection has released memory. In the context of the I/O thread, free memory is
  // given back to the system some time after a burst, on a thread of the pool.
  void noteReleased(std::size_t bytes);

  // Peers of one kind list their methods in the same order and share the matching.
  using MethodIndexes = std::shared_ptr<const std::vector<std::int64_t>>;
  MethodIndexes shared(std::vector<std::int64_t> methodIndexes);

 private:
  Reactor& reactor_;
  std::unique_ptr<std::byte[]> readBuffer_;
  OutputQueuePool outputQueues_;
  MessagePool messages_;
  NameCache names_;
  Holdings<FrameStream> backlogs_;
  Holdings<FrameStream> unclaimedFiles_;
  std::size_t stuckStreamCount_ = 0;
  std::size_t droppedReaderCount_ = 0;
  bool givesBack_ = false;
  std::size_t releasedBytes_ = 0;   // since memory was last given back
  Reactor::TimerId trimTimer_ = 0;  // 0: none
  MethodIndexes lastMethodIndexes_;
};

}  // namespace keel::xpc
