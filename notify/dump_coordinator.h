// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <vector>

#include "runtime/foundation/collections.h"
#include "runtime/foundation/error.h"
#include "runtime/xpc/reply.h"

namespace keel {

class KLNPublishedObject;
class IncrementalWorkQueue;
namespace xpc {
class Connection;
}

// Answers dumps of all items of a registry. Each answer is a snapshot of the moment of its request,
// though it is written in steps, between which other requests run: an item that is about to change
// is captured before it does. Held by NotificationWork. Lives on the notification input queue.
class DumpCoordinator : public std::enable_shared_from_this<DumpCoordinator> {
 public:
  using Reply = xpc::Reply<Array, Error>;

  // The work of one step. An item, a subscriber, and 2 KiB of data count 1 each, per answer.
  static constexpr std::size_t kStepWork = 64;

  explicit DumpCoordinator(std::shared_ptr<IncrementalWorkQueue> incremental);
  ~DumpCoordinator();
  DumpCoordinator(const DumpCoordinator&) = delete;
  DumpCoordinator& operator=(const DumpCoordinator&) = delete;

  // For tests, where few items have to take several steps.
  void setStepWork(std::size_t work) { stepWork_ = work; }

  // Record that an item enters or leaves the registry's table. A destroyed item leaves by itself.
  void enter(KLNPublishedObject& item);
  void leave(KLNPublishedObject& item);

  // Answers with a snapshot of all items, at once if one step is enough. Drops the request when
  // `asker` ends, since the reply keeps that connection alive.
  void begin(bool withData, const std::shared_ptr<xpc::Connection>& asker, Reply reply);
  // Drops the requests of a connection that ends but still exists.
  void connectionEnds(const std::shared_ptr<xpc::Connection>& connection);

  // Returns the number of the last dump that began. Every dump up to this one contains
  // an item captured for it.
  std::uint64_t lastNumber() const { return lastNumber_; }
  // Captures the item for all dumps that lack it.
  void capture(KLNPublishedObject& item);

 private:
  struct Dump;

  void dropExpired();
  bool step();
  void answerFirst();

  const std::shared_ptr<IncrementalWorkQueue> incremental_;
  std::size_t stepWork_ = kStepWork;
  std::uint64_t lastNumber_ = 0;
  std::size_t workDone_ = 0;

  // The items in the order of their entering, linked through themselves.
  KLNPublishedObject* first_ = nullptr;
  KLNPublishedObject* last_ = nullptr;
  std::size_t itemCount_ = 0;

  // In the order in which they began. What is captured for the first is captured for all, so they
  // end in this order too.
  std::list<Dump> dumps_;
  KLNPublishedObject* next_ = nullptr;  // the first item that the first of them may lack
  bool isQueued_ = false;
  // Connections that have ended, some of which still live until their last requests are done.
  std::vector<std::weak_ptr<xpc::Connection>> ended_;
};

}  // namespace keel
