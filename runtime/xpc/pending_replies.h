// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <unordered_map>
#include <utility>

#include "runtime/foundation/error.h"
#include "runtime/wire/argument.h"

namespace keel::xpc {

// The requests of this side that the peer has not answered yet. On the I/O thread, until the
// connection's queue, if it has one, takes answers out.
class PendingReplies {
 public:
  using ErrorBlock = std::move_only_function<void(Error)>;
  // Reads the results and calls the reply block; returns false, calling nothing, if they do not
  // fit.
  using Reader = std::move_only_function<bool(ArgumentReader& results, std::uint64_t resultCount)>;

  struct Reply {
    Reader read;
    ErrorBlock onError;
  };

  // Registers a request and returns its id.
  std::uint64_t registerReply(Reader read, ErrorBlock onError) {
    const std::uint64_t id = nextRequestId_++;
    replies_.emplace(id, Reply{std::move(read), std::move(onError)});
    return id;
  }
  // Returns nothing for a request that is not pending.
  std::optional<Reply> take(std::uint64_t requestId) {
    auto found = replies_.extract(requestId);
    if (found.empty()) return std::nullopt;
    return std::move(found.mapped());
  }
  std::unordered_map<std::uint64_t, Reply> takeAll() { return std::exchange(replies_, {}); }

 private:
  std::uint64_t nextRequestId_ = 1;
  std::unordered_map<std::uint64_t, Reply> replies_;
};

}  // namespace keel::xpc
