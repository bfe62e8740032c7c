// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "runtime/foundation/check.h"
#include "runtime/wire/argument.h"

namespace keel::xpc {

// The destination of answers: a connection, or a block in this process.
class ReplyRoute {
 public:
  using WriteResults = void (*)(void* results, ArgumentWriter& writer);

  virtual ~ReplyRoute() = default;
  // All three may be called from any thread.
  virtual void sendReply(std::uint64_t requestId, std::size_t resultCount, WriteResults write,
                         void* results) = 0;
  virtual void sendFailure(std::uint64_t requestId, FailureCode code, std::string_view text) = 0;
  // Sends the same results to each request.
  virtual void sendReplies(std::span<const std::uint64_t> requestIds, std::size_t resultCount,
                           WriteResults write, void* results) {
    for (const std::uint64_t id : requestIds) sendReply(id, resultCount, write, results);
  }
  virtual bool isLocal() const { return false; }
};

// A reply block: answers one request, exactly once, from any thread. Dropped unanswered, it answers
// with a failure. It keeps the connection object alive, and may outlive the connection's end.
template <class... Results>
class Reply {
 public:
  Reply(std::shared_ptr<ReplyRoute> route, std::uint64_t requestId)
      : route_(std::move(route)), requestId_(requestId) {}

  // Returns a reply block that calls `block(results...)`; dropped unanswered, it calls nothing.
  template <class LocalBlock>
    requires std::is_invocable_v<LocalBlock&, Results...>
  static Reply to(LocalBlock block) {
    return Reply(std::make_shared<LocalRoute>(std::move(block)), 0);
  }

  Reply(Reply&& other) noexcept : route_(std::move(other.route_)), requestId_(other.requestId_) {}
  Reply& operator=(Reply&& other) noexcept {
    std::swap(route_, other.route_);
    std::swap(requestId_, other.requestId_);
    return *this;
  }
  Reply(const Reply&) = delete;
  Reply& operator=(const Reply&) = delete;
  ~Reply() {
    if (route_)
      route_->sendFailure(requestId_, FailureCode::unanswered,
                          "the request was dropped unanswered");
  }

  // At most once.
  void operator()(Results... results) {
    KEEL_CHECK(route_ != nullptr);
    std::shared_ptr<ReplyRoute> route = std::exchange(route_, nullptr);
    if (route->isLocal()) {
      static_cast<LocalRoute&>(*route).block(std::move(results)...);
      return;
    }
    std::tuple<Results&...> all(results...);
    route->sendReply(requestId_, sizeof...(Results), &writeAll, &all);
  }

  // Answers each of `replies` with the same results, in their order. Answers to one connection
  // are sent as a batch.
  static void answerAll(std::span<Reply> replies, Results... results) {
    if (replies.size() == 1) return replies.front()(std::move(results)...);
    std::vector<std::uint64_t> ids;
    ids.reserve(replies.size());
    while (!replies.empty()) {
      KEEL_CHECK(replies.front().route_ != nullptr);
      const std::shared_ptr<ReplyRoute> route = replies.front().route_;
      if (route->isLocal()) {
        replies.front()(results...);
        replies = replies.subspan(1);
        continue;
      }
      ids.clear();
      for (; !replies.empty() && replies.front().route_ == route; replies = replies.subspan(1)) {
        ids.push_back(replies.front().requestId_);
        replies.front().route_ = nullptr;
      }
      std::tuple<Results&...> all(results...);
      route->sendReplies(ids, sizeof...(Results), &writeAll, &all);
    }
  }

 private:
  static void writeAll(void* held, ArgumentWriter& writer) {
    std::apply([&](auto&... each) { (Argument<Results>::write(writer, each), ...); },
               *static_cast<std::tuple<Results&...>*>(held));
  }

  struct LocalRoute final : ReplyRoute {
    template <class LocalBlock>
    explicit LocalRoute(LocalBlock given) : block(std::move(given)) {}
    void sendReply(std::uint64_t, std::size_t, WriteResults, void*) override {}
    void sendFailure(std::uint64_t, FailureCode, std::string_view) override {}
    bool isLocal() const override { return true; }
    std::move_only_function<void(Results...)> block;
  };

  std::shared_ptr<ReplyRoute> route_;
  std::uint64_t requestId_;
};

}  // namespace keel::xpc
