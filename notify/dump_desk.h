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
class SliceLine;
namespace xpc {
class Connection;
}

// Describes all items of a registry to those who ask for them. Each answer shows the registry at
// the moment of its request, though it is written in slices, between which other requests run: an
// item that is about to change is described before it does. Held by the registry; lives on the
// notification input queue.
class DumpDesk : public std::enable_shared_from_this<DumpDesk> {
 public:
  using Reply = xpc::Reply<Array, Error>;

  // The work of one slice: an item, or a subscriber of one, in one answer counts 1, and so do 2 KiB
  // of data.
  static constexpr std::size_t kSliceWork = 64;

  explicit DumpDesk(std::shared_ptr<SliceLine> line);
  ~DumpDesk();
  DumpDesk(const DumpDesk&) = delete;
  DumpDesk& operator=(const DumpDesk&) = delete;

  // For tests, which want few items to be many.
  void setSliceWork(std::size_t work) { sliceWork_ = work; }

  // Items as they enter and leave the table of the registry. One that is destroyed leaves by
  // itself.
  void enter(KLNPublishedObject& item);
  void leave(KLNPublishedObject& item);

  // Answers with all items that there are now: at once if one slice is enough. The answer is
  // dropped when `asker` ends or has ended, since it keeps that connection.
  void begin(bool withData, const std::shared_ptr<xpc::Connection>& asker, Reply reply);
  // Before the connection is gone.
  void connectionEnds(const std::shared_ptr<xpc::Connection>& connection);

  // The number of the last dump that began. Items that are described for it need not be described
  // for any.
  std::uint64_t lastNumber() const { return lastNumber_; }
  // Describes the item for all that still lack it.
  void describe(KLNPublishedObject& item);

 private:
  struct Dump;

  void forgetTheGone();
  bool work();
  void answerFirst();

  const std::shared_ptr<SliceLine> line_;
  std::size_t sliceWork_ = kSliceWork;
  std::uint64_t lastNumber_ = 0;
  std::size_t workDone_ = 0;

  // The items in the order of their entering, linked through themselves.
  KLNPublishedObject* first_ = nullptr;
  KLNPublishedObject* last_ = nullptr;
  std::size_t itemCount_ = 0;

  // In the order of their beginning. All get what is described for the first, so that they end in
  // this order, too.
  std::list<Dump> dumps_;
  KLNPublishedObject* next_ = nullptr;  // the first item that the first of them may lack
  bool isInLine_ = false;
  // Connections that have ended, some of which still live until their last requests are done.
  std::vector<std::weak_ptr<xpc::Connection>> ended_;
};

}  // namespace keel
